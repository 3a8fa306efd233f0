#include "sim/machinetext.h"

#include "base/clock.h"
#include "base/descriptor.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

constexpr off_t longestTextBytes = 1 << 20;

[[noreturn]] void failToRead(const std::filesystem::path& file)
{
    throw std::system_error{errno, std::generic_category(), file.string() + ": cannot be read"};
}

} // namespace

machineText::machineText(std::filesystem::path file, std::uint64_t tickNs) : m_file{std::move(file)}, m_tickNs{tickNs}
{
    m_text = read();
}

// The folder may be another user's: neither a FIFO nor a file without end holds anybody up.
std::string machineText::read()
{
    m_stamp = {};
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
    const fileStamp stamp = fileStamp::of(found);
    if (std::cmp_equal(have, found.st_size) && stamp.isSettled(startedAt, m_tickNs)) {
        m_stamp = stamp;
    }
    return text;
}

bool machineText::stillHolds()
{
    struct stat now {
    };
    if ((stat(m_file.c_str(), &now) == 0 && fileStamp::of(now) == m_stamp) || read() == m_text) {
        return true;
    }
    // what was read is another text
    m_stamp = {};
    return false;
}

} // namespace kest::sim
