/// How much the error log keeps, and for how long it waits.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kest::host
{

/// Bounds of a store. When one is passed the oldest informational entries go first, then the oldest of the others. The
/// latest entry stays.
struct logLimits {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0; ///< of the entries' JSON form
};

/// Entries of this severity are informational.
constexpr std::uint32_t informationalSeverity = 0x10;

// What a commit waits for the database, for others that write, and for the spools.

constexpr std::chrono::milliseconds commitPatience{5000};
/// The part of it that is kept for each of two spools.
constexpr std::chrono::milliseconds spoolShare{500};
/// After a database that stayed busy, commits try it without waiting, for this long at first and at most.
constexpr std::chrono::milliseconds firstPause{5000};
constexpr std::chrono::milliseconds longestPause{60000};

/// Between two looks of a process's commits at the spools outside the state folder, which other processes may have
/// filled. What the process has put there itself is taken in by its next commit.
constexpr std::chrono::milliseconds elsewhereInterval{1000};

constexpr std::chrono::milliseconds readersPatience{5000};
constexpr std::chrono::milliseconds spoolPatience{5000};
constexpr std::chrono::milliseconds patienceForCounter{2000};

// The database.

/// Entries that one transaction deletes at most: after limits were lowered much, later commits do the rest.
constexpr int dropsAtOnce = 64;
/// Of the write-ahead log, once all of it is in the database.
constexpr std::int64_t keptWalBytes = 4 << 20;
/// Of the write-ahead log, with a reader that holds it up: nothing is added then.
constexpr std::int64_t largestWalBytes = 8 << 20;

// A spool.

constexpr std::size_t largestSpoolBytes = std::size_t{1} << 30;
/// Disk space that is set aside for lines to come, and what has to be left of it before more is set aside.
constexpr std::uint64_t reservedBytes = 1 << 20;
constexpr std::uint64_t leastSpareBytes = 64 << 10;
/// Lines and bytes that are handed to the store at once.
constexpr std::size_t linesAtOnce = 256;
constexpr std::size_t bytesAtOnce = 1 << 20;

/// A spool is cut to an eighth below its limits, so that it is not written anew for each further line.
constexpr logLimits trimmed(const logLimits& limits)
{
    return {limits.entries - limits.entries / 8, limits.bytes - limits.bytes / 8};
}

} // namespace kest::host
