#include "sim/machinetext.h"

#include "base/clock.h"
#include "base/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

constexpr off_t longestTextBytes = 1 << 20;

// Longer than the tick of stamps without nanoseconds, which is a second.
constexpr std::uint64_t longTickNs = 3 * nsPerSecond;

std::uint64_t nsOf(const timespec& time)
{
    return static_cast<std::uint64_t>(time.tv_sec) * nsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

[[noreturn]] void failToRead(const std::filesystem::path& file)
{
    throw std::system_error{errno, std::generic_category(), file.string() + ": cannot be read"};
}

} // namespace

machineText::version machineText::versionOf(const struct ::stat& found)
{
    return {.device = found.st_dev,
            .number = found.st_ino,
            .size = found.st_size,
            .modifiedNs = nsOf(found.st_mtim),
            .changedNs = nsOf(found.st_ctim)};
}

machineText::machineText(std::filesystem::path file, std::uint64_t tickNs) : m_file{std::move(file)}, m_tickNs{tickNs}
{
    m_text = read();
}

// The folder may be another user's: neither a FIFO nor a file without end holds anybody up.
std::string machineText::read()
{
    m_version = {};
    const fileDescriptor in{ownDescriptor(open(m_file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))};
    struct stat found {
    };
    if (!in.valid() || fstat(in.number(), &found) != 0) {
        failToRead(m_file);
    }
    if (!S_ISREG(found.st_mode)) {
        throw std::runtime_error{m_file.string() + ": is not a regular file"};
    }
    if (found.st_size > longestTextBytes) {
        throw std::runtime_error{m_file.string() + ": is too large"};
    }
    const std::uint64_t startedAt = clockNs(CLOCK_REALTIME);
    std::string text(static_cast<std::size_t>(found.st_size), '\0');
    std::size_t have = 0;
    while (have < text.size()) {
        const ssize_t got = uninterrupted([&] { return ::read(in.number(), text.data() + have, text.size() - have); });
        if (got < 0) {
            failToRead(m_file);
        }
        if (got == 0) {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    text.resize(have);
    const version read = versionOf(found);
    const std::uint64_t tick = read.changedNs % nsPerSecond == 0 ? std::max(longTickNs, m_tickNs) : m_tickNs;
    if (std::cmp_equal(have, found.st_size) && startedAt >= read.changedNs && startedAt - read.changedNs >= tick) {
        m_version = read;
    }
    return text;
}

bool machineText::stillHolds()
{
    struct stat now {
    };
    if ((stat(m_file.c_str(), &now) == 0 && versionOf(now) == m_version) || read() == m_text) {
        return true;
    }
    // the version that was read has another text
    m_version = {};
    return false;
}

} // namespace kest::sim
