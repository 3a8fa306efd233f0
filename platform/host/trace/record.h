/// What a reader finds in trace rings.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kest::host
{

/// A record with its text.
struct traceRecord {
    std::uint64_t timeNs = 0; ///< since 1970
    std::uint32_t thread = 0; ///< counted from 1 in the order in which the process's threads began to trace
    std::uint32_t hash = 0;
    std::uint32_t line = 0;
    std::string text; ///< of a text record: formatted; bytes that are not printable ASCII, and '\', as \xNN
    bool binary = false;
    bool cut = false; ///< the writer left something out
    std::vector<std::uint8_t> header; ///< of a binary record
    std::vector<std::uint8_t> data;
    std::uint32_t dataSize = 0; ///< bytes before the writer cut them
    std::string buffer; ///< name of the trace buffer
};

/// What a ring says about itself.
struct ringInfo {
    std::filesystem::path file; ///< empty for a ring of this process
    std::string buffer;
    std::string processName;
    std::uint32_t pid = 0;
    std::uint64_t createdNs = 0; ///< since 1970
    bool alive = false; ///< the process still runs and writes
};

struct ringContents {
    ringInfo info;
    std::vector<traceRecord> records; ///< oldest first
    std::string error; ///< why it could not be read; empty when it could
    /// `errno` of the failed call; ENOENT: the file is gone. 0 when the bytes are wrong, or when all is well.
    int errorNumber = 0;
};

} // namespace kest::host
