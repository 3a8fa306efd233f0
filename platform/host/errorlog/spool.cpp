#include "platform/host/errorlog/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/files.h"
#include "base/folders.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/spoollines.h"

namespace kest::host
{

spool::spool(std::filesystem::path file, std::filesystem::path lock) : m_file(std::move(file)), m_lock(std::move(lock))
{
}

/// Counts the bytes and lines of the open spool, reading only what came since it was last counted.
int spool::countLines(int descriptor)
{
    struct stat facts {
    };
    if (fstat(descriptor, &facts) != 0) {
        return errno;
    }
    if (m_known.device != facts.st_dev || m_known.inode != facts.st_ino || m_known.bytes > sizeOf(facts)) {
        m_known = {facts.st_dev, facts.st_ino, 0, 0};
    }
    piece room;
    while (m_known.bytes < sizeOf(facts)) {
        const ssize_t moved = pread(descriptor, room.data(), room.size(), static_cast<off_t>(m_known.bytes));
        if (moved <= 0) {
            return moved == 0 ? EIO : errno;
        }
        m_known.lines += static_cast<std::uint64_t>(std::count(room.begin(), room.begin() + moved, '\n'));
        m_known.bytes += static_cast<std::uint64_t>(moved);
    }
    return 0;
}

/// Opens the file, whose name is durable from then on.
int spool::openMade(int flags, fileDescriptor& descriptor) const
{
    const bool fresh = access(m_file.c_str(), F_OK) != 0;
    descriptor = openFile(m_file, flags | O_RDWR | O_CREAT);
    if (!descriptor.valid()) {
        return errno;
    }
    return fresh ? syncFolder(m_file.parent_path()) : 0;
}

int spool::append(std::string_view line, const logLimits& limits, const patience& wait)
{
    const patientLock lock(m_lock, wait);
    if (lock.error() != 0) {
        return lock.error();
    }
    if (const int error = appendLocked(line); error != 0) {
        return error;
    }
    if (m_known.bytes > limits.bytes || m_known.lines > limits.entries) {
        try {
            // its failure loses nothing: the next line tries again
            trim(limits);
        } catch (const std::exception&) {
            // no memory
            m_known = {};
        }
    }
    return 0;
}

/// Adds a line and counts what the spool then holds.
int spool::appendLocked(std::string_view line)
{
    fileDescriptor descriptor;
    struct stat before {
    };
    if (const int error = openMade(O_APPEND, descriptor); error != 0) {
        return error;
    }
    if (const int error = dropUnfinished(descriptor.number()); error != 0) {
        return error;
    }
    if (fstat(descriptor.number(), &before) != 0) {
        return errno;
    }
    reserveBehind(descriptor.number());
    if (const int error = writeLine(descriptor.number(), line); error != 0) {
        // a line is there whole or not at all
        [[maybe_unused]] const int ignored = ftruncate(descriptor.number(), before.st_size);
        return error;
    }
    // The line is there even when it can't be counted.
    countLines(descriptor.number());
    return 0;
}

/// Brings the spool below its limits: the oldest informational entries go first, then the oldest of the others.
int spool::trim(const logLimits& limits)
{
    std::vector<std::string> lines;
    if (const int error = read(lines); error != 0) {
        return error;
    }
    const logLimits wanted = trimmed(limits);
    std::uint64_t entries = lines.size();
    std::uint64_t bytes = 0;
    for (const std::string& line : lines) {
        bytes += line.size() + 1;
    }
    for (const bool informational : {true, false}) {
        for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
            std::string& line = lines[index];
            if ((entries <= wanted.entries && bytes <= wanted.bytes) || line.empty()) {
                continue;
            }
            const auto keys = informational ? keysOfLine(line) : std::nullopt;
            if (!informational || (keys && keys->severity == informationalSeverity)) {
                bytes -= line.size() + 1;
                --entries;
                line.clear();
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
    return replaceFile(m_file, kept);
}

int spool::reserve()
{
    const patientLock lock(m_lock, patience());
    if (lock.error() != 0) {
        return lock.error();
    }
    fileDescriptor descriptor;
    if (const int error = openMade(0, descriptor); error != 0) {
        return error;
    }
    reserveBehind(descriptor.number());
    return 0;
}

int spool::read(std::vector<std::string>& lines) const
{
    std::vector<std::uint8_t> bytes;
    const int error = readFile(m_file, largestSpoolBytes, bytes);
    for (const textLine& line : linesOf(bytes)) {
        lines.emplace_back(line.text);
    }
    return error == ENOENT || error == ENOTDIR ? 0 : error;
}

bool spool::pending() const
{
    struct stat facts {
    };
    return stat(m_file.c_str(), &facts) == 0 && facts.st_size > 0;
}

int spool::take(const std::function<bool(std::span<const std::string_view>)>& consumer, const patience& until)
{
    const patientLock lock(m_lock, patience());
    if (lock.error() != 0) {
        return lock.error();
    }
    std::vector<std::uint8_t> bytes;
    if (const int error = readFile(m_file, largestSpoolBytes, bytes); error != 0) {
        return error;
    }
    const fileDescriptor descriptor = openFile(m_file, O_RDWR);
    if (!descriptor.valid()) {
        return errno;
    }
    const std::vector<textLine> lines = linesOf(bytes);
    std::span<const textLine> rest(lines);
    while (!rest.empty()) {
        const std::vector<std::string_view> some = someOf(rest);
        if (!consumer(some)) {
            break;
        }
        rest = rest.subspan(some.size());
        if (until.over()) {
            break;
        }
    }
    return rest.empty() ? emptyFile(descriptor.number())
                        : markTaken(descriptor.number(), std::span(lines).first(lines.size() - rest.size()));
}

int spool::clear(const patience& wait)
{
    const patientLock lock(m_lock, wait);
    if (lock.error() != 0) {
        return lock.error() == ENOENT ? 0 : lock.error();
    }
    const fileDescriptor descriptor = openFile(m_file, O_RDWR);
    if (!descriptor.valid()) {
        return errno == ENOENT ? 0 : errno;
    }
    return emptyFile(descriptor.number());
}

std::uint64_t entriesOf(std::span<const std::string> lines, const entryFilter& filter,
                        std::vector<loggedEntry>& entries)
{
    std::uint64_t damaged = 0;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        auto entry = fromLine(*line);
        if (!entry) {
            ++damaged;
        } else if (matches(*entry, filter)) {
            entries.push_back(std::move(*entry));
        }
    }
    return damaged;
}

std::uint32_t highestIdOf(std::span<const std::string> lines, std::uint32_t limit)
{
    std::uint32_t highest = 0;
    for (const std::string& line : lines) {
        const auto keys = keysOfLine(line);
        if (keys && keys->plid <= limit) {
            highest = std::max(highest, keys->plid);
        }
    }
    return highest;
}

std::string spoolProblem(int error) { return fmt::format("the error log's spool: {}", std::strerror(error)); }

std::string damagedLines(std::uint64_t count)
{
    return fmt::format("the error log's spool: {} lines are damaged", count);
}

} // namespace kest::host
