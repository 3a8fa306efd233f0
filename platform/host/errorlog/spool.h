/// The error log's spool: a file of entries, one JSON text a line. It takes what the database can't, until the database
/// can; in a build without a database the spool is the store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/record.h"
#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

/// Functions return 0 or an `errno` value. Any number of processes use one spool; each change is made under a lock, for
/// which they wait for as long as `wait` says.
class spool
{
public:
    /// @param file  its lock is `lock` beside it
    spool(std::filesystem::path file, std::filesystem::path lock);

    /// Adds a line, durable on return. What a killed writer left of a line is removed first. Keeps within the limits.
    /// Allocates nothing where the file and its lock are there already.
    int append(std::string_view line, const logLimits& limits, const patience& wait = defaultPatience());
    /// Sets disk space aside, so that entries can be added when the disk is full. Makes the file. Never waits.
    int reserve();
    /// Adds all whole lines that have not been taken to `lines`.
    int read(std::vector<std::string>& lines) const;
    /// @return whether there may be lines
    [[nodiscard]] bool pending() const;
    /// Hands the lines over, some at a time, and removes those for which `consumer` returned true. Ends early when
    /// `consumer` returns false or `until` is over. Nobody adds lines meanwhile. Never waits for the lock.
    int take(const std::function<bool(std::span<const std::string_view>)>& consumer, const patience& until);
    /// Removes all lines.
    int clear(const patience& wait = defaultPatience());

private:
    /// How many lines the first `bytes` of a file hold; spares reading it again for every line added.
    struct knownLines {
        std::uint64_t device = 0, inode = 0, bytes = 0, lines = 0;
    };

    static patience defaultPatience() { return patience(spoolPatience); }
    int openMade(int flags, fileDescriptor& descriptor) const;
    int appendLocked(std::string_view line);
    int countLines(int descriptor);
    int trim(const logLimits& limits);

    std::filesystem::path m_file;
    std::filesystem::path m_lock;
    knownLines m_known;
};

/// Adds the entries of lines that match, the last line first. @return how many lines are damaged
std::uint64_t entriesOf(std::span<const std::string> lines, const entryFilter& filter,
                        std::vector<loggedEntry>& entries);

/// @return the highest identifier in the lines that is not above `limit`; 0 when there is none
std::uint32_t highestIdOf(std::span<const std::string> lines, std::uint32_t limit);

/// @return a sentence for people: why a spool could not be read or cleared
std::string spoolProblem(int error);
/// @return a sentence for people: that lines of a spool are damaged
std::string damagedLines(std::uint64_t count);

} // namespace kest::host
