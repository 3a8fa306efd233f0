#include "platform/host/errorlog/identifiers.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/files.h"
#include "base/folders.h"
#include "base/quietwrites.h"
#include "platform/host/errorlog/process.h"

namespace kest::host
{

namespace
{

constexpr std::uint32_t firstBlock = 16;
constexpr std::uint32_t largestBlock = 1024;
constexpr std::uint32_t lastCountedId = 0x7FFFFFFF;
constexpr std::uint32_t guessedBit = 0x80000000;
constexpr std::size_t counterDigits = 10;

/// @return the highest counted identifier of any entry kept, or nothing when that can't be found out
std::optional<std::uint32_t> highestKnownId(const configuration& settings)
{
    const std::scoped_lock lock(theLog().guard);
    const logStorage& storage = theLog().storageOf(settings);
    std::uint32_t highest = 0;
    if (!storage.store->highestId(lastCountedId, highest)) {
        return std::nullopt;
    }
    std::vector<std::string> lines;
    for (const spoolPlace& place : storage.spools) {
        if (isTrustedPlace(place) && place.lines.read(lines) != 0) {
            return std::nullopt;
        }
    }
    return std::max(highest, highestIdOf(lines, lastCountedId));
}

/// @return the number that a counter file holds, 0 when it holds none
std::uint32_t readCounter(const std::filesystem::path& file)
{
    std::vector<std::uint8_t> bytes;
    if (readFile(file, counterDigits + 1, bytes) != 0 || bytes.size() != counterDigits + 1) {
        return 0;
    }
    const auto* begin = reinterpret_cast<const char*>(bytes.data());
    std::uint32_t number = 0;
    return std::from_chars(begin, begin + counterDigits, number).ptr == begin + counterDigits ? number : 0;
}

/// Puts a number into a counter file, in place: a few bytes of one sector, which no crash tears and no full disk
/// refuses. Nothing stays behind it: a file of another length is a lost counter.
bool writeCounter(const logFiles& files, std::uint32_t number)
{
    const bool fresh = access(files.nextId.c_str(), F_OK) != 0;
    const fileDescriptor counter = openFile(files.nextId, O_WRONLY | O_CREAT);
    const std::string text = fmt::format("{:0{}}\n", number, counterDigits);
    return counter.valid() && writeAll(counter.number(), text) == 0 &&
           ftruncate(counter.number(), static_cast<off_t>(text.size())) == 0 && fdatasync(counter.number()) == 0 &&
           (!fresh || syncFolder(files.folder) == 0);
}

/// Sets `count` identifiers aside for this process, for good: the counter is on the disk before one is used.
/// @return the first of them, 0 when that failed
std::uint32_t setAside(const configuration& settings, std::uint32_t count)
{
    const logFiles files(settings);
    // A lost counter goes on behind every entry still known. That is found out before the file lock is taken: an opener
    // of the database takes that lock while it holds the guard, which this takes.
    std::uint32_t behind = 0;
    if (readCounter(files.nextId) == 0) {
        behind = highestKnownId(settings).value_or(UINT32_MAX) + 1;
    }
    if (makeFolders(files.folder) != 0) {
        return 0;
    }
    const patientLock lock(files.lock, patience(patienceForCounter));
    const std::uint32_t counted = readCounter(files.nextId);
    std::uint32_t next = counted != 0 ? counted : behind;
    if (next > lastCountedId - count) {
        // used up: from the start again, whose entries are long gone
        next = 1;
    }
    return lock.error() == 0 && next != 0 && writeCounter(files, next + count) ? next : 0;
}

/// Without a state folder nothing can be set aside: each process then counts from a point of its own in the upper half
/// of the numbers.
std::uint32_t guess(processLog& log, std::uint32_t count)
{
    if (log.guessedId == 0 && getentropy(&log.guessedId, sizeof log.guessedId) != 0) {
        log.guessedId = static_cast<std::uint32_t>(time(nullptr)) * 2654435761U ^ static_cast<std::uint32_t>(getpid())
                                                                                      << 12;
    }
    log.guessedId |= guessedBit;
    // a block must not pass the very end
    if (log.guessedId > UINT32_MAX - 2 * count) {
        log.guessedId = guessedBit;
    }
    const std::uint32_t first = log.guessedId;
    log.guessedId = first + count;
    return first;
}

} // namespace

std::uint32_t nextEntryId() noexcept
{
    processLog& log = theLog();
    const std::scoped_lock lock(log.idGuard);
    std::uint32_t first = 0;
    try {
        const configuration& settings = currentConfiguration();
        if (log.nextId == log.endId || log.idSettings != &settings) {
            log.blockSize = std::clamp(2 * log.blockSize, firstBlock, largestBlock);
            log.idSettings = &settings;
            log.nextId = log.endId = 0;
            const quietWrites quiet;
            first = setAside(settings, log.blockSize);
        }
    } catch (const std::exception&) {
        // no memory
        log.blockSize = std::max(log.blockSize, firstBlock);
    }
    if (log.nextId == log.endId) {
        log.nextId = first != 0 ? first : guess(log, log.blockSize);
        log.endId = log.nextId + log.blockSize;
    }
    return log.nextId++;
}

} // namespace kest::host
