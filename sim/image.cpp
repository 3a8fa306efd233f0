#include "sim/image.h"

#include "base/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

// Under a name first that no image can have: a killed process leaves no short image.
bool makeErased(const std::filesystem::path& path, std::uint32_t sizeBytes)
{
    const std::vector<std::uint8_t> erased(sizeBytes, 0xFF);
    const std::string early = (path.parent_path() / "machine.image.new").string();
    unlink(early.c_str());
    const int made = ownDescriptor(open(early.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    bool good = made >= 0 && writeAllAt(made, erased, 0) == 0;
    if (made >= 0) {
        good = ::close(made) == 0 && good;
    }
    return good && rename(early.c_str(), path.c_str()) == 0;
}

} // namespace

std::string image::prepare(int& error)
{
    struct stat found {
    };
    error = 0;
    if (stat(path.c_str(), &found) != 0) {
        if (errno != ENOENT || !makeErased(path, sizeBytes)) {
            error = errno;
        }
    } else if (!S_ISREG(found.st_mode)) {
        return "not a regular file";
    } else if (found.st_size != static_cast<off_t>(sizeBytes)) {
        return "has " + std::to_string(found.st_size) + " bytes, the chip " + std::to_string(sizeBytes);
    } else if (access(path.c_str(), R_OK | W_OK) != 0) {
        error = errno;
    }
    return error == 0 ? std::string{} : std::generic_category().message(error);
}

void image::begin(std::uint32_t chipIndex, pageWrite& pending)
{
    chip = chipIndex;
    page = &pending;
    windowStart = noWindow;
    lost = false;
}

bool image::open()
{
    struct stat found {
    };
    if (descriptor < 0) {
        descriptor = ownDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (descriptor >= 0 && (fstat(descriptor, &found) != 0 || !S_ISREG(found.st_mode) ||
                                found.st_size != static_cast<off_t>(sizeBytes))) {
            close();
        }
    }
    return descriptor >= 0;
}

void image::close()
{
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    descriptor = -1;
}

void image::fill(std::uint32_t start)
{
    const std::size_t wanted = std::min<std::size_t>(window.size(), sizeBytes - start);
    window.fill(0xFF);
    std::size_t have = 0;
    ssize_t got = open() ? 1 : 0;
    while (got != 0 && have < wanted) {
        got = pread(descriptor, window.data() + have, wanted - have, static_cast<off_t>(start + have));
        if (got > 0) {
            have += static_cast<std::size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            got = 0;
        }
    }
    lost = lost || have < wanted;
    windowStart = start;
}

void image::read(std::uint32_t offset, std::span<std::uint8_t> bytes)
{
    for (auto& byte : bytes) {
        const std::uint32_t start = offset - offset % windowBytes;
        if (start != windowStart) {
            fill(start);
        }
        byte = window[offset % windowBytes];
        ++offset;
    }
}

void image::program(std::uint32_t offset, std::span<const std::uint8_t> bytes)
{
    if (page != nullptr && bytes.size() <= page->bytes.size()) {
        page->pending = true;
        page->chip = chip;
        page->offset = offset;
        page->length = static_cast<std::uint32_t>(bytes.size());
        std::ranges::copy(bytes, page->bytes.begin());
    }
}

bool image::store(const pageWrite& written)
{
    windowStart = noWindow;
    return holds(written) && open() &&
           writeAllAt(descriptor, {written.bytes.data(), written.length}, static_cast<off_t>(written.offset)) == 0;
}

bool image::holds(const pageWrite& some) const
{
    return some.length <= some.bytes.size() && some.offset <= sizeBytes && some.length <= sizeBytes - some.offset;
}

} // namespace kest::sim
