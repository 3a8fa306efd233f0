/// Reads the files of trace rings, of processes that run or have ended. They may be hostile.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

#include "platform/host/trace/record.h"

namespace kest::host
{

/// Reads one file. Torn records in it are left out; a file that is no ring, or cut short, is an error.
ringContents readRing(const std::filesystem::path& file);

/// The rings of a folder, by process and time of creation. Files that can't be read are skipped.
std::vector<ringInfo> listRings(const std::filesystem::path& folder);

/// What a folder of rings has.
struct ringList {
    std::vector<ringInfo> rings; ///< by process and time of creation
    std::vector<ringContents> skipped; ///< files (or the folder itself) that can't be read, with `info.file` and why
};

/// Waits a moment.
void waitForRings();

/// Lists the rings of a folder, and the files beside them that can't be read. A file that is being made looks damaged
/// for a moment, so files that can't be read are tried again after `pause`. A file that is removed meanwhile is not in
/// the list. A missing folder counts as empty.
ringList listRingsAndOthers(const std::filesystem::path& folder, const std::function<void()>& pause = waitForRings);

/// All records of one process in a folder, from all its buffers, oldest first.
std::vector<traceRecord> readProcess(const std::filesystem::path& folder, std::uint32_t pid);

} // namespace kest::host
