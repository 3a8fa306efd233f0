/// Reads trace rings: those of this process, and the files of others, living or dead. Files are taken as hostile.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kest::host
{

/// A record, its text made.
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
    std::uint32_t dataSize = 0; ///< bytes there were before the writer cut them
    std::string buffer; ///< name of the trace buffer
};

/// What a ring says about itself.
struct ringInfo {
    std::filesystem::path file; ///< empty for a ring of this process
    std::string buffer;
    std::string processName;
    std::uint32_t pid = 0;
    std::uint64_t createdNs = 0; ///< since 1970
    bool alive = false; ///< the process is still there and writes
};

struct ringContents {
    ringInfo info;
    std::vector<traceRecord> records; ///< oldest first
    std::string error; ///< why it could not be read; empty when it could
    int errorNumber =
        0; ///< `errno` of the failed call; ENOENT: the file has gone. 0 when the bytes are wrong, or nothing is
};

/// Reads one file. What is torn in it is left out; a file that is none, or cut short, is an error.
ringContents readRing(const std::filesystem::path& file);

/// Reads a ring's bytes. @param image  as in a file
ringContents readRingImage(std::span<const std::uint8_t> image);

/// Reads a ring's bytes from the latest record backwards. A record is formatted when its turn has come, so that those
/// nobody wants cost
/// little. None when the bytes are no ring. @param image  as in a file. @param wanted  takes a record; returns whether it wants another
void readLatest(std::span<const std::uint8_t> image, const std::function<bool(const traceRecord&)>& wanted);

/// The rings of a folder, by process and time of creation. What can't be read is passed over.
std::vector<ringInfo> listRings(const std::filesystem::path& folder);

/// What there is in a folder of rings.
struct ringList {
    std::vector<ringInfo> rings; ///< by process and time of creation
    std::vector<ringContents> skipped; ///< files (or the folder itself) that can't be read, with `info.file` and why
};

/// Waits a moment.
void waitForRings();

/// Lists the rings of a folder, and what there is beside them. A file that is being made looks damaged for a moment:
/// what can't be read is looked at again after `pause`. Files that go meanwhile, and a folder that is not there, are
/// nobody's mistake and not in the list.
ringList listRingsAndOthers(const std::filesystem::path& folder, const std::function<void()>& pause = waitForRings);

/// All that one process traced into a folder, over all its buffers, oldest first.
std::vector<traceRecord> readProcess(const std::filesystem::path& folder, std::uint32_t pid);

/// Records whose texts this process has made, for tests that hold how much work a reading is. Counts modulo 2^32.
std::uint32_t recordsFormatted();

/// One line without its end: time of day (UTC), thread, hash, source line, text; " name size: bytes in hex" for binary
/// data.
/// @param dataBytes  so many bytes of binary data at most; what is left out is marked by "..."
std::string renderRecord(const traceRecord& record, std::size_t dataBytes = SIZE_MAX);

} // namespace kest::host
