/// Undo files: the old bytes of a device, saved before it is written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/devicetext.h"
#include "tools/common/dumpfile.h"

namespace kest::tools
{

/// Saves old bytes in a new file of the state folder; file and folder are synced before this returns. @return its path.
/// Throws a `failure` whose entry is in the error log.
[[nodiscard]] std::string saveUndo(const device& which, const dumpContents& contents);

/// Removes old undo files, as the configuration says: never a device's latest. To be called once the latest is certain
/// to stay.
void removeOldUndo();

/// "'kestctl seeprom restore FILE' puts the old bytes back".
[[nodiscard]] std::string restoreHint(const std::string& path);

/// Removes an undo file that is not needed: nothing was written.
void dropUndo(const std::string& path);

struct undoEntry {
    std::string path;
    std::optional<std::int64_t> timeMs; ///< since 1970 UTC, from its name
    dumpContents contents; ///< nothing in it when there is trouble
    std::string trouble; ///< why it can't be used; empty when it can
    bool distrusted = false; ///< anybody could have put it there, who need not have written to the device
};

/// The undo files of a device, the latest first. Files whose names don't show their device, as older versions made
/// them, come last. A file that can't be used is among them. Throws a `failure` when the folder can't be read.
/// @param place  hardware, or file for those of the persisted copy
/// @param most  no more than these are read
[[nodiscard]] std::vector<undoEntry> undoFilesOf(const device& which, accessMode place, std::size_t most = SIZE_MAX);

} // namespace kest::tools
