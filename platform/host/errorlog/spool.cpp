#include "platform/host/errorlog/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/host/errorlog/json.h"

namespace kest::host
{

namespace
{

constexpr std::uint64_t reservedBytes   = 1 << 20;
constexpr std::uint64_t leastSpareBytes = 64 << 10; // below this more is set aside
constexpr std::size_t   pieceBytes      = 64 << 10;
constexpr std::size_t   largestBytes    = std::size_t{1} << 30;

std::uint64_t sizeOf(const struct stat& facts) { return static_cast<std::uint64_t>(facts.st_size); }

/// Sets disk space aside behind the file's end. Not every file system can; nothing is lost then.
void reserveBehind(int descriptor)
{
    struct stat facts {
    };
    if (fstat(descriptor, &facts) == 0 &&
        static_cast<std::uint64_t>(facts.st_blocks) * 512 < sizeOf(facts) + leastSpareBytes) [[maybe_unused]]
        const int ignored =
            fallocate(descriptor, FALLOC_FL_KEEP_SIZE, facts.st_size, static_cast<off_t>(reservedBytes));
}

/// Cuts off whatever follows the last line end: the rest of a line whose writer was killed.
int dropUnfinished(int descriptor)
{
    struct stat facts {
    };
    int           error = fstat(descriptor, &facts) == 0 ? 0 : errno;
    std::uint64_t end   = error == 0 ? sizeOf(facts) : 0;
    std::string   piece;
    bool          found = end == 0;
    while (error == 0 && !found && end > 0) {
        const std::uint64_t from = end - std::min<std::uint64_t>(end, pieceBytes);
        piece.resize(static_cast<std::size_t>(end - from));
        if (pread(descriptor, piece.data(), piece.size(), static_cast<off_t>(from)) !=
            static_cast<ssize_t>(piece.size()))
            error = errno != 0 ? errno : EIO;
        const std::size_t lineEnd = piece.rfind('\n');
        found                     = lineEnd != piece.npos;
        end                       = found ? from + lineEnd + 1 : from;
    }
    if (error == 0 && end != sizeOf(facts) && ftruncate(descriptor, static_cast<off_t>(end)) != 0)
        error = errno;
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
    int        error = fstat(descriptor, &facts) == 0 ? 0 : errno;
    const bool same = m_known.device == facts.st_dev && m_known.inode == facts.st_ino && m_known.bytes <= sizeOf(facts);
    if (error == 0 && !same)
        m_known = {facts.st_dev, facts.st_ino, 0, 0};
    std::string piece(pieceBytes, '\0');
    while (error == 0 && m_known.bytes < sizeOf(facts)) {
        const auto moved = pread(descriptor, piece.data(), piece.size(), static_cast<off_t>(m_known.bytes));
        if (moved > 0) {
            m_known.lines += static_cast<std::uint64_t>(std::count(piece.begin(), piece.begin() + moved, '\n'));
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
    descriptor       = openFile(m_file, flags | O_RDWR | O_CREAT);
    int error        = descriptor.valid() ? 0 : errno;
    if (error == 0 && fresh)
        error = syncFolder(m_file.parent_path());
    return error;
}

int spool::append(const std::string& line, const logLimits& limits)
{
    const fileLock lock(m_lock);
    int            error = lock.error();
    std::uint64_t  bytes = 0;
    std::uint64_t  lines = 0;
    if (error == 0) {
        fileDescriptor descriptor;
        struct stat    before {
        };
        error = openMade(O_APPEND, descriptor);
        if (error == 0)
            error = dropUnfinished(descriptor.number());
        if (error == 0 && fstat(descriptor.number(), &before) != 0)
            error = errno;
        if (error == 0) {
            reserveBehind(descriptor.number());
            error = writeAll(descriptor.number(), line + '\n');
            if (error == 0 && fdatasync(descriptor.number()) != 0)
                error = errno;
            if (error != 0) // a line is there whole or not at all
                [[maybe_unused]]
                const int ignored = ftruncate(descriptor.number(), before.st_size);
        }
        if (error == 0)
            error = countLines(descriptor.number(), bytes, lines);
    }
    if (error == 0 && (bytes > limits.bytes || lines > limits.entries))
        trim(limits); // its failure loses nothing: the next line tries again
    return error;
}

/// Brings the spool an eighth below its limits, so that it is not written anew for each further line.
int spool::trim(const logLimits& limits)
{
    std::vector<std::string> lines;
    int                      error   = read(lines);
    std::uint64_t            entries = lines.size();
    std::uint64_t            bytes   = 0;
    for (const std::string& line : lines)
        bytes += line.size() + 1;
    for (const bool informational : {true, false}) {
        for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
            const bool over = entries > limits.entries - limits.entries / 8 || bytes > limits.bytes - limits.bytes / 8;
            if (over && !lines[index].empty()) {
                const auto entry = fromLine(lines[index]);
                if (!informational || (entry && entry->severity == informationalSeverity)) {
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
    if (error == 0)
        error = replaceFile(m_file, kept);
    return error;
}

int spool::reserve()
{
    const fileLock lock(m_lock);
    int            error = lock.error();
    if (error == 0) {
        fileDescriptor descriptor;
        error = openMade(0, descriptor);
        if (error == 0)
            reserveBehind(descriptor.number());
    }
    return error;
}

int spool::read(std::vector<std::string>& lines) const
{
    std::vector<std::uint8_t> bytes;
    int                       error = readFile(m_file, largestBytes, bytes);
    if (error == ENOENT || error == ENOTDIR)
        error = 0;
    auto begin = bytes.begin();
    for (auto end = std::find(begin, bytes.end(), '\n'); end != bytes.end();
         end      = std::find(begin, bytes.end(), '\n')) {
        lines.emplace_back(begin, end);
        begin = end + 1;
    }
    return error;
}

bool spool::pending() const
{
    struct stat facts {
    };
    return stat(m_file.c_str(), &facts) == 0 && facts.st_size > 0;
}

int spool::take(const std::function<bool(const std::vector<std::string>&)>& consumer)
{
    const fileLock           lock(m_lock);
    int                      error = lock.error();
    std::vector<std::string> lines;
    if (error == 0)
        error = read(lines);
    if (error == 0 && consumer(lines)) {
        const fileDescriptor descriptor = openFile(m_file, O_RDWR);
        if (!descriptor.valid() || ftruncate(descriptor.number(), 0) != 0 || fdatasync(descriptor.number()) != 0)
            error = errno;
        else
            reserveBehind(descriptor.number());
    }
    return error;
}

} // namespace kest::host
