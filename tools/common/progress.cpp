#include "tools/common/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fmt/core.h>
#include <unistd.h>

#include "tools/common/escape.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"

namespace kest::tools
{
namespace
{
constexpr std::chrono::milliseconds interval{100};

// see progress::mirror()
std::atomic<std::uint32_t>* mirrored = nullptr;
std::uint64_t mirroredTotal = 0;
} // namespace

progress::progress(std::string what, std::uint64_t total, std::chrono::milliseconds quiet)
    : m_what(std::move(what)), m_total(total), m_start(std::chrono::steady_clock::now()), m_next(m_start + quiet),
      m_terminal(isatty(STDERR_FILENO) == 1 && takesSequences() && !preferred().quiet && preferred().verbose == 0)
{
}

progress::~progress()
{
    if (m_shown) {
        std::fputs("\r\033[K", stderr);
    }
}

void progress::update(std::uint64_t done)
{
    if (mirrored != nullptr && m_total == mirroredTotal) {
        *mirrored = static_cast<std::uint32_t>(done);
    }
    const auto now = std::chrono::steady_clock::now();
    if (!m_terminal || m_total == 0 || now < m_next) {
        return;
    }
    m_next = now + interval;
    m_shown = true;
    std::fputs(fmt::format("\r\033[K{}: {}", escaped(m_what), progressText(done, m_total, now - m_start)).c_str(),
               stderr);
    std::fflush(stderr);
}

void progress::mirror(std::atomic<std::uint32_t>* done, std::uint64_t total)
{
    mirrored = done;
    mirroredTotal = total;
}

std::string progressText(std::uint64_t done, std::uint64_t total, std::chrono::duration<double> elapsed)
{
    const double rate = elapsed.count() > 0 ? static_cast<double>(done) / elapsed.count() : 0;
    const auto left = rate > 0 ? static_cast<double>(total - std::min(done, total)) / rate : 0;
    return fmt::format("{} of {}, {}/s, {} left", sizeText(done), sizeText(total),
                       sizeText(static_cast<std::uint64_t>(std::llround(rate))),
                       rate > 0 ? fmt::format("{:.0f} s", std::ceil(left)) : "-");
}

} // namespace kest::tools
