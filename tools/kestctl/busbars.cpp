#include "tools/kestctl/busbars.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <unistd.h>

#include "tools/common/escape.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"

namespace kest::tools
{

std::string barText(const busBar& bar)
{
    constexpr std::uint64_t cells = 20;
    constexpr std::size_t nameColumns = 28;
    const std::uint64_t done = std::min(bar.done, bar.total);
    const std::uint64_t full = bar.total != 0 ? cells * done / bar.total : 0;
    std::string name = escaped(bar.bus);
    if (name.size() > nameColumns) {
        name = ".." + name.substr(name.size() - nameColumns + 2);
    }
    return fmt::format("{:{}} [{:#<{}}{:.<{}}] {} of {}", name, nameColumns, "", full, "", cells - full, sizeText(done),
                       sizeText(bar.total));
}

busBars::busBars()
    : m_terminal(isatty(STDERR_FILENO) == 1 && takesSequences() && !preferred().quiet && preferred().verbose == 0)
{
}

void busBars::draw(std::span<const busBar> bars)
{
    if (!m_terminal) {
        return;
    }
    clear();
    std::string lines;
    for (const busBar& bar : bars) {
        lines += barText(bar) + "\n";
    }
    std::fputs(lines.c_str(), stderr);
    std::fflush(stderr);
    m_drawn = bars.size();
}

void busBars::clear()
{
    if (m_drawn > 0) {
        // up to the first, and everything from there on
        std::fputs(fmt::format("\033[{}A\r\033[J", m_drawn).c_str(), stderr);
        std::fflush(stderr);
        m_drawn = 0;
    }
}

} // namespace kest::tools
