/// Reads the files of trace rings, of processes that run or have ended. They are taken as hostile.
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

/// The rings of a folder, by process and time of creation. What can't be read is passed over.
std::vector<ringInfo> listRings(const std::filesystem::path& folder);

/// What there is in a folder of rings.
struct ringList {
    std::vector<ringInfo> rings; ///< by process and time of creation
    std::vector<ringContents> skipped; ///< files (or the folder itself) that can't be read, with `info.file` and why
};

/// Waits a moment.
void waitForRings();

/// Lists the rings of a folder, and the files beside them that can't be read. A file that is being made looks damaged for
/// a moment, so these are looked at again after `pause`. A file that goes meanwhile is not in the list. A folder that is
/// not there is an empty one.
ringList listRingsAndOthers(const std::filesystem::path& folder, const std::function<void()>& pause = waitForRings);

/// All that one process traced into a folder, over all its buffers, oldest first.
std::vector<traceRecord> readProcess(const std::filesystem::path& folder, std::uint32_t pid);

} // namespace kest::host
