#include "platform/host/errorlog/spoollines.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/files.h"
#include "platform/host/errorlog/limits.h"

namespace kest::host
{
namespace
{

// in place of a line's first character
constexpr char takenMark = '#';

} // namespace

void reserveBehind(int descriptor)
{
    struct stat facts {
    };
    if (fstat(descriptor, &facts) == 0 &&
        static_cast<std::uint64_t>(facts.st_blocks) * 512 < sizeOf(facts) + leastSpareBytes) {
        [[maybe_unused]] const int ignored =
            fallocate(descriptor, FALLOC_FL_KEEP_SIZE, facts.st_size, static_cast<off_t>(reservedBytes));
    }
}

int dropUnfinished(int descriptor)
{
    struct stat facts {
    };
    if (fstat(descriptor, &facts) != 0) {
        return errno;
    }
    std::uint64_t end = sizeOf(facts);
    piece room;
    while (end > 0) {
        const std::uint64_t from = end - std::min<std::uint64_t>(end, pieceBytes);
        const auto length = static_cast<std::size_t>(end - from);
        const ssize_t moved = pread(descriptor, room.data(), length, static_cast<off_t>(from));
        if (moved != static_cast<ssize_t>(length)) {
            return moved < 0 ? errno : EIO;
        }
        const std::size_t lineEnd = std::string_view(room.data(), length).rfind('\n');
        if (lineEnd != std::string_view::npos) {
            end = from + lineEnd + 1;
            break;
        }
        end = from;
    }
    return end == sizeOf(facts) || ftruncate(descriptor, static_cast<off_t>(end)) == 0 ? 0 : errno;
}

std::vector<textLine> linesOf(const std::vector<std::uint8_t>& bytes)
{
    const std::string_view whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    std::vector<textLine> lines;
    std::size_t begin = 0;
    for (std::size_t end = whole.find('\n'); end != whole.npos; end = whole.find('\n', begin)) {
        if (whole[begin] != takenMark) {
            lines.push_back({whole.substr(begin, end - begin), begin});
        }
        begin = end + 1;
    }
    return lines;
}

int markTaken(int descriptor, std::span<const textLine> lines)
{
    for (const textLine& line : lines) {
        if (pwrite(descriptor, &takenMark, 1, static_cast<off_t>(line.offset)) != 1) {
            return errno;
        }
    }
    return lines.empty() || fdatasync(descriptor) == 0 ? 0 : errno;
}

int emptyFile(int descriptor)
{
    if (ftruncate(descriptor, 0) != 0 || fdatasync(descriptor) != 0) {
        return errno;
    }
    reserveBehind(descriptor);
    return 0;
}

int writeLine(int descriptor, std::string_view line)
{
    if (const int error = writeAll(descriptor, line); error != 0) {
        return error;
    }
    if (const int error = writeAll(descriptor, "\n"); error != 0) {
        return error;
    }
    return fdatasync(descriptor) == 0 ? 0 : errno;
}

std::vector<std::string_view> someOf(std::span<const textLine> lines)
{
    std::vector<std::string_view> some;
    std::size_t bytes = 0;
    while (some.size() < lines.size() && some.size() < linesAtOnce && bytes < bytesAtOnce) {
        some.push_back(lines[some.size()].text);
        bytes += some.back().size();
    }
    return some;
}

} // namespace kest::host
