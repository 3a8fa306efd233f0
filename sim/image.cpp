#include "sim/image.h"

#include "base/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

// The file begins under a name that no image can have, so that a killed process leaves no short image.
bool makeErased(const std::filesystem::path& path, std::uint32_t sizeBytes)
{
    const std::vector<std::uint8_t> erased(sizeBytes, 0xFF);
    const std::string early = (path.parent_path() / ("machine.new." + path.filename().string())).string();
    unlink(early.c_str());
    const int made = ownDescriptor(open(early.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (made < 0) {
        return false;
    }
    const bool written = writeAllAt(made, erased, 0) == 0;
    const bool closed = ::close(made) == 0;
    return written && closed && rename(early.c_str(), path.c_str()) == 0;
}

} // namespace

std::string image::prepare(int& error)
{
    struct stat found {
    };
    error = 0;
    if (stat(m_path.c_str(), &found) != 0) {
        error = errno == ENOENT && makeErased(m_path, m_sizeBytes) ? 0 : errno;
    } else if (!S_ISREG(found.st_mode)) {
        return "not a regular file";
    } else if (found.st_size != static_cast<off_t>(m_sizeBytes)) {
        return "has " + std::to_string(found.st_size) + " bytes, the chip " + std::to_string(m_sizeBytes);
    } else if (access(m_path.c_str(), R_OK | W_OK) != 0) {
        error = errno;
    }
    return error == 0 ? std::string{} : std::generic_category().message(error);
}

bool image::makeWhenMissing() const
{
    struct stat found {
    };
    if (lstat(m_path.c_str(), &found) == 0 && !S_ISLNK(found.st_mode)) {
        return true;
    }
    if (access(m_path.c_str(), F_OK) != 0 && errno == ENOENT) {
        makeErased(m_path, m_sizeBytes);
    }
    return false;
}

void image::begin(std::uint32_t chipIndex, pageWrite& pending)
{
    m_chip = chipIndex;
    m_page = &pending;
    m_windowStart = noWindow;
    m_lost = false;
}

bool image::open()
{
    struct stat found {
    };
    if (m_descriptor >= 0) {
        return true;
    }
    m_descriptor = ownDescriptor(::open(m_path.c_str(), O_RDWR | O_CLOEXEC));
    if (m_descriptor < 0) {
        return false;
    }
    if (fstat(m_descriptor, &found) != 0 || !S_ISREG(found.st_mode) ||
        found.st_size != static_cast<off_t>(m_sizeBytes)) {
        close();
        return false;
    }
    return true;
}

void image::close()
{
    if (m_descriptor >= 0) {
        ::close(m_descriptor);
    }
    m_descriptor = -1;
}

void image::fill(std::uint32_t start)
{
    const std::size_t wanted = std::min<std::size_t>(m_window.size(), m_sizeBytes - start);
    m_window.fill(0xFF);
    std::size_t have = 0;
    ssize_t got = open() ? 1 : 0;
    while (got != 0 && have < wanted) {
        got = pread(m_descriptor, m_window.data() + have, wanted - have, static_cast<off_t>(start + have));
        if (got > 0) {
            have += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            got = 0;
        }
    }
    m_lost = m_lost || have < wanted;
    m_windowStart = start;
}

void image::read(std::uint32_t offset, std::span<std::uint8_t> bytes)
{
    for (auto& byte : bytes) {
        const std::uint32_t start = offset - offset % windowBytes;
        if (start != m_windowStart) {
            fill(start);
        }
        byte = m_window[offset % windowBytes];
        ++offset;
    }
}

void image::program(std::uint32_t offset, std::span<const std::uint8_t> bytes)
{
    if (m_page == nullptr || bytes.size() > m_page->bytes.size()) {
        return;
    }
    m_page->pending = true;
    m_page->chip = m_chip;
    m_page->offset = offset;
    m_page->length = static_cast<std::uint32_t>(bytes.size());
    std::ranges::copy(bytes, m_page->bytes.begin());
}

bool image::store(const pageWrite& written)
{
    return holds(written) && write(written.offset, {written.bytes.data(), written.length});
}

bool image::write(std::uint32_t offset, std::span<const std::uint8_t> bytes)
{
    m_windowStart = noWindow;
    const bool written = open() && writeAllAt(m_descriptor, bytes, static_cast<off_t>(offset)) == 0;
    m_lost = m_lost || !written;
    return written;
}

bool image::holds(const pageWrite& some) const
{
    return some.length <= some.bytes.size() && some.offset <= m_sizeBytes && some.length <= m_sizeBytes - some.offset;
}

} // namespace kest::sim
