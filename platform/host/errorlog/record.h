/// Error log entries as plain records, and what is searched for in them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kest::host
{

struct loggedSrc {
    std::uint16_t creator = 0; ///< component that made it
    std::array<std::uint32_t, 8> words{}; ///< as SrciSrc::getHexData() gives them
    std::uint32_t flags = 0;
    std::uint32_t terminatingState = 0;
};

struct loggedCallout {
    std::uint32_t priority = 0;
    std::uint32_t procedure = 0;
};

struct loggedFruCallout {
    std::uint32_t priority = 0;
    std::uint16_t fru = 0;
};

struct loggedSoftwareError {
    std::uint16_t component = 0;
    std::uint32_t returnCode = 0;
    std::uint16_t word1 = 0;
    std::uint16_t word2 = 0;
    std::uint32_t reserved = 0;
};

struct loggedDetails {
    std::uint16_t component = 0;
    std::uint8_t version = 0;
    std::uint8_t subsection = 0;
    std::vector<std::uint8_t> bytes;
};

struct loggedTrace {
    std::string buffer;
    std::string text; ///< whole lines
};

/// One entry. Each list is in the order in which its items were added.
struct loggedEntry {
    std::uint32_t plid = 0;
    std::int64_t createdMs = 0; ///< wall clock, ms since 1970 UTC
    std::int64_t committedMs = 0; ///< 0: not committed yet
    std::uint32_t severity = 0;
    std::uint32_t eventType = 0;
    std::uint16_t creator = 0; ///< component that created the entry
    std::uint32_t returnCode = 0; ///< 0: none was set
    std::uint16_t commitComponent = 0;
    std::uint16_t commitAction = 0;
    std::int32_t processId = 0;
    std::string process; ///< its name
    bool incomplete = false; ///< an item is missing because there was no memory
    std::vector<loggedSrc> srcs;
    std::vector<loggedCallout> callouts;
    std::vector<loggedFruCallout> fruCallouts;
    std::vector<loggedSoftwareError> softwareErrors;
    std::vector<loggedDetails> userDetails;
    std::vector<loggedTrace> traces;
};

/// Which entries are wanted: those that agree with every item given.
struct entryFilter {
    std::optional<std::int64_t> sinceMs = std::nullopt; ///< committed at this time or later
    std::optional<std::uint32_t> severity = std::nullopt;
    std::optional<std::uint16_t> component = std::nullopt; ///< the entry's creator
    std::optional<std::uint32_t> plid = std::nullopt;
    std::size_t limit = 0; ///< at most so many, the latest; 0 all
};

/// What a store searches for and sorts by.
struct entryKeys {
    std::uint32_t plid = 0;
    std::int64_t committedMs = 0;
    std::uint32_t severity = 0;
    std::uint16_t creator = 0;
};

entryKeys keysOf(const loggedEntry& entry);

bool matches(const loggedEntry& entry, const entryFilter& filter);

} // namespace kest::host
