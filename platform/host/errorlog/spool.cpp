#include "platform/host/errorlog/spool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/files.h"
#include "base/folders.h"
#include "platform/host/errorlog/json.h"

namespace kest::host
{

namespace
{

constexpr std::uint64_t reservedBytes = 1 << 20;
// below this more is set aside
constexpr std::uint64_t leastSpareBytes = 64 << 10;
// on the stack
constexpr std::size_t pieceBytes = 8 << 10;
// handed over
constexpr std::size_t linesAtOnce = 256;
constexpr std::size_t bytesAtOnce = 1 << 20;
// in place of a line's first character
constexpr char takenMark = '#';

using piece = std::array<char, pieceBytes>;

constexpr std::size_t largestBytes = std::size_t{1} << 30;

std::uint64_t sizeOf(const struct stat& facts) { return static_cast<std::uint64_t>(facts.st_size); }

/// Sets disk space aside behind the file's end. Not every file system can; nothing is lost then.
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

/// Cuts off whatever follows the last line end: the rest of a line whose writer was killed.
int dropUnfinished(int descriptor)
{
    struct stat facts {
    };
    int error = fstat(descriptor, &facts) == 0 ? 0 : errno;
    std::uint64_t end = error == 0 ? sizeOf(facts) : 0;
    piece room;
    bool found = end == 0;
    while (error == 0 && !found && end > 0) {
        const std::uint64_t from = end - std::min<std::uint64_t>(end, pieceBytes);
        const auto moved =
            pread(descriptor, room.data(), static_cast<std::size_t>(end - from), static_cast<off_t>(from));
        if (moved != static_cast<ssize_t>(end - from)) {
            error = moved < 0 ? errno : EIO;
        } else {
            const std::string_view text(room.data(), static_cast<std::size_t>(moved));
            const std::size_t lineEnd = text.rfind('\n');
            found = lineEnd != text.npos;
            end = found ? from + lineEnd + 1 : from;
        }
    }
    if (error == 0 && end != sizeOf(facts) && ftruncate(descriptor, static_cast<off_t>(end)) != 0) {
        error = errno;
    }
    return error;
}

/// A whole line of a spool, without its end, that has not been taken.
struct textLine {
    std::string_view text;
    std::uint64_t offset = 0; ///< in the file
};

/// Leaves out what follows the last line end.
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

/// Has lines be taken for good: one byte of each changes, so that no crash leaves a line half taken.
int markTaken(int descriptor, std::span<const textLine> lines)
{
    int error = 0;
    for (const textLine& line : lines) {
        if (error == 0 && pwrite(descriptor, &takenMark, 1, static_cast<off_t>(line.offset)) != 1) {
            error = errno;
        }
    }
    if (error == 0 && !lines.empty() && fdatasync(descriptor) != 0) {
        error = errno;
    }
    return error;
}

int emptyFile(int descriptor)
{
    const int error = ftruncate(descriptor, 0) == 0 && fdatasync(descriptor) == 0 ? 0 : errno;
    if (error == 0) {
        reserveBehind(descriptor);
    }
    return error;
}

} // namespace

spool::spool(std::filesystem::path file, std::filesystem::path lock) : m_file(std::move(file)), m_lock(std::move(lock))
{
}

/// Counts the bytes and lines of the open spool, reading only what came since it was last counted.
int spool::countLines(int descriptor, std::uint64_t& bytes, std::uint64_t& lines)
{
    struct stat facts {
    };
    int error = fstat(descriptor, &facts) == 0 ? 0 : errno;
    const bool same = m_known.device == facts.st_dev && m_known.inode == facts.st_ino && m_known.bytes <= sizeOf(facts);
    if (error == 0 && !same) {
        m_known = {facts.st_dev, facts.st_ino, 0, 0};
    }
    piece room;
    while (error == 0 && m_known.bytes < sizeOf(facts)) {
        const auto moved = pread(descriptor, room.data(), room.size(), static_cast<off_t>(m_known.bytes));
        if (moved > 0) {
            m_known.lines += static_cast<std::uint64_t>(std::count(room.begin(), room.begin() + moved, '\n'));
            m_known.bytes += static_cast<std::uint64_t>(moved);
        } else {
            error = moved == 0 ? EIO : errno;
        }
    }
    bytes = m_known.bytes;
    lines = m_known.lines;
    return error;
}

/// Opens the file, which is there for good from then on.
int spool::openMade(int flags, fileDescriptor& descriptor) const
{
    const bool fresh = access(m_file.c_str(), F_OK) != 0;
    descriptor = openFile(m_file, flags | O_RDWR | O_CREAT);
    int error = descriptor.valid() ? 0 : errno;
    if (error == 0 && fresh) {
        error = syncFolder(m_file.parent_path());
    }
    return error;
}

patience spool::defaultPatience() { return patience(std::chrono::seconds(5)); }

int spool::append(std::string_view line, const logLimits& limits, const patience& wait)
{
    const patientLock lock(m_lock, wait);
    int error = lock.error();
    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
    if (error == 0) {
        error = appendLocked(line, bytes, lines);
    }
    if (error == 0 && (bytes > limits.bytes || lines > limits.entries)) {
        try {
            // its failure loses nothing: the next line tries again
            trim(limits);
        } catch (const std::exception&) {
            // no memory
            m_known = {};
        }
    }
    return error;
}

/// @param[out] bytes,lines  what the spool then holds
int spool::appendLocked(std::string_view line, std::uint64_t& bytes, std::uint64_t& lines)
{
    fileDescriptor descriptor;
    struct stat before {
    };
    int error = openMade(O_APPEND, descriptor);
    if (error == 0) {
        error = dropUnfinished(descriptor.number());
    }
    if (error == 0 && fstat(descriptor.number(), &before) != 0) {
        error = errno;
    }
    if (error == 0) {
        reserveBehind(descriptor.number());
        error = writeAll(descriptor.number(), line);
        if (error == 0) {
            error = writeAll(descriptor.number(), "\n");
        }
        if (error == 0 && fdatasync(descriptor.number()) != 0) {
            error = errno;
        }
        // a line is there whole or not at all
        if (error != 0) {
            [[maybe_unused]] const int ignored = ftruncate(descriptor.number(), before.st_size);
        }
    }
    if (error == 0) {
        [[maybe_unused]] const int ignored =
            // the line is there, whatever comes of counting
            countLines(descriptor.number(), bytes, lines);
    }
    return error;
}

/// Brings the spool an eighth below its limits, so that it is not written anew for each further line.
int spool::trim(const logLimits& limits)
{
    std::vector<std::string> lines;
    int error = read(lines);
    std::uint64_t entries = lines.size();
    std::uint64_t bytes = 0;
    for (const std::string& line : lines) {
        bytes += line.size() + 1;
    }
    for (const bool informational : {true, false}) {
        for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
            const bool over = entries > limits.entries - limits.entries / 8 || bytes > limits.bytes - limits.bytes / 8;
            if (over && !lines[index].empty()) {
                const auto facts = factsOfLine(lines[index]);
                if (!informational || (facts && facts->severity == informationalSeverity)) {
                    bytes -= lines[index].size() + 1;
                    --entries;
                    lines[index].clear();
                }
            }
        }
    }
    std::vector<std::uint8_t> kept;
    for (const std::string& line : lines) {
        if (!line.empty()) {
            kept.insert(kept.end(), line.begin(), line.end());
            kept.push_back('\n');
        }
    }
    if (error == 0) {
        error = replaceFile(m_file, kept);
    }
    return error;
}

int spool::reserve()
{
    const patientLock lock(m_lock, patience());
    int error = lock.error();
    if (error == 0) {
        fileDescriptor descriptor;
        error = openMade(0, descriptor);
        if (error == 0) {
            reserveBehind(descriptor.number());
        }
    }
    return error;
}

int spool::read(std::vector<std::string>& lines) const
{
    std::vector<std::uint8_t> bytes;
    int error = readFile(m_file, largestBytes, bytes);
    if (error == ENOENT || error == ENOTDIR) {
        error = 0;
    }
    for (const textLine& line : linesOf(bytes)) {
        lines.emplace_back(line.text);
    }
    return error;
}

bool spool::pending() const
{
    struct stat facts {
    };
    return stat(m_file.c_str(), &facts) == 0 && facts.st_size > 0;
}

int spool::take(const std::function<bool(std::span<const std::string>)>& consumer, const patience& until)
{
    const patientLock lock(m_lock, patience());
    std::vector<std::uint8_t> bytes;
    int error = lock.error();
    if (error == 0) {
        error = readFile(m_file, largestBytes, bytes);
    }
    const fileDescriptor descriptor = error == 0 ? openFile(m_file, O_RDWR) : fileDescriptor();
    if (error == 0 && !descriptor.valid()) {
        error = errno;
    }
    const std::vector<textLine> lines = linesOf(bytes);
    std::size_t taken = 0;
    bool goesOn = error == 0;
    while (goesOn && taken < lines.size()) {
        std::vector<std::string> some;
        for (std::size_t size = 0;
             taken + some.size() < lines.size() && some.size() < linesAtOnce && size < bytesAtOnce;
             size += some.back().size()) {
            some.emplace_back(lines[taken + some.size()].text);
        }
        goesOn = consumer(some);
        taken += goesOn ? some.size() : 0;
        goesOn = goesOn && !until.over();
    }
    if (error == 0 && taken == lines.size()) {
        error = emptyFile(descriptor.number());
    } else if (error == 0) {
        error = markTaken(descriptor.number(), std::span(lines).first(taken));
    }
    return error;
}

int spool::clear(const patience& wait)
{
    const patientLock lock(m_lock, wait);
    const fileDescriptor descriptor = lock.error() == 0 ? openFile(m_file, O_RDWR) : fileDescriptor();
    int error = lock.error();
    if (error == 0) {
        error = descriptor.valid() ? emptyFile(descriptor.number()) : errno;
    }
    return error == ENOENT ? 0 : error;
}

} // namespace kest::host
