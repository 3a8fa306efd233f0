#include "sim/wavefile.h"

#include "base/descriptor.h"
#include "base/quietwrites.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <span>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

std::span<const std::uint8_t> bytesOf(const std::string& text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Whether a file begins as VCD files do: with one of their key words.
bool beginsAsWaveform(int file)
{
    constexpr std::array<std::string_view, 6> keyWords{"$comment", "$date", "$version", "$timescale", "$scope", "$var"};
    std::array<char, 64> begin{};
    const ssize_t got = pread(file, begin.data(), begin.size(), 0);
    std::string_view text = {begin.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
    return std::ranges::any_of(keyWords, [text](std::string_view word) { return text.starts_with(word); });
}

bool isRegular(int file, struct stat& found) { return fstat(file, &found) == 0 && S_ISREG(found.st_mode); }

// Path and length come from the state file, which may be damaged: another file is left alone, and so is one that was cut.
bool holdsRecording(int file, std::uint64_t length)
{
    struct stat found {
    };
    return isRegular(file, found) && std::cmp_greater_equal(found.st_size, length) && beginsAsWaveform(file);
}

// @return bytes written
std::size_t writeAsFarAsPossible(int file, const std::string& text, std::uint64_t offset)
{
    std::size_t moved = 0;
    while (moved < text.size()) {
        const ssize_t wrote =
            pwrite(file, text.data() + moved, text.size() - moved, static_cast<off_t>(offset + moved));
        if (wrote == 0 || (wrote < 0 && errno != EINTR)) {
            break;
        }
        moved += wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    return moved;
}

} // namespace

namespace
{

/// @param more  flags of open() besides those of every such file
int openAsWave(const std::string& path, int more)
{
    const int file = ownDescriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | more, 0666));
    if (file < 0) {
        errno = errno == EISDIR || errno == ELOOP || errno == ENXIO ? EEXIST : errno;
        return -1;
    }
    struct stat found {
    };
    if (!isRegular(file, found) || (found.st_size != 0 && !beginsAsWaveform(file))) {
        close(file);
        errno = EEXIST;
        return -1;
    }
    return file;
}

} // namespace

int openWaveFile(const std::string& path) { return openAsWave(path, O_CREAT); }

bool mayOpenWaveFile(const std::string& path)
{
    const int file = openAsWave(path, 0);
    if (file >= 0) {
        close(file);
        return true;
    }
    const std::string folder = std::filesystem::path(path).parent_path().string();
    return errno == ENOENT && access(folder.c_str(), W_OK | X_OK) == 0;
}

bool replaceWave(int file, const std::string& text)
{
    const std::span<const std::uint8_t> bytes = bytesOf(text);
    struct stat old {
    };
    if (fstat(file, &old) != 0) {
        return false;
    }
    const std::size_t kept =
        std::cmp_less(old.st_size, bytes.size()) ? static_cast<std::size_t>(old.st_size) : bytes.size();
    if (writeAllAt(file, bytes.subspan(kept), static_cast<off_t>(kept)) != 0) {
        const int error = errno;
        errno = ftruncate(file, old.st_size) == 0 ? error : errno;
        return false;
    }
    return writeAllAt(file, bytes.first(kept), 0) == 0 && ftruncate(file, static_cast<off_t>(bytes.size())) == 0;
}

bool appendToWaveFile(const std::string& path, std::uint64_t& length, const std::string& text, const std::string& tail)
{
    const quietWrites quiet;
    const int file = ownDescriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file < 0) {
        return false;
    }
    if (!holdsRecording(file, length)) {
        close(file);
        return false;
    }
    const bool whole = writeAsFarAsPossible(file, text + tail, length) == text.size() + tail.size();
    if (whole) {
        length += text.size();
    }
    const bool cut = ftruncate(file, static_cast<off_t>(length + (whole ? tail.size() : 0))) == 0;
    close(file);
    return whole && cut;
}

} // namespace kest::sim
