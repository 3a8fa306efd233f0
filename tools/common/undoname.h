/// Names of undo files. They show which files belong to a device, and in which order they were made, without a look
/// into the files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/accessmode.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

struct undoName {
    std::string label; ///< what people recognise; safe in a file name
    std::string key; ///< undoKeyOf() the device
    std::uint64_t number = 0; ///< counts a device's files: a clock that was set back does not change their order
    std::string time; ///< "20240501T120000Z"
};

/// What all undo files of one device have in their names, whatever it was called: 16 hexadecimal digits. All device
/// texts of one place have one key: the spelling of bus and node makes no difference, nor does the type.
/// @param place  hardware, or file for the device's persisted copy, whose files are others
[[nodiscard]] std::string undoKeyOf(const device& which, accessMode place);
/// The keys that older versions gave the device: of all types and all nodes by which its place can be named.
[[nodiscard]] std::vector<std::string> formerUndoKeysOf(const device& which, accessMode place);

/// "LABEL-KEY-NUMBER-TIME.json".
[[nodiscard]] std::string undoFileName(const undoName& name);
/// @return nothing for a name that undoFileName() does not make, or with a number above 10^12; for one of the former
/// form "LABEL-TIME.json", too
[[nodiscard]] std::optional<undoName> parseUndoName(std::string_view fileName);

/// A name for people as part of a file name.
[[nodiscard]] std::string undoLabel(const std::string& name);
/// The present time as it stands in names.
[[nodiscard]] std::string undoTimeNow();
/// @return the time in a name, ms since 1970 UTC, in the former form's names, too; nothing when there is none
[[nodiscard]] std::optional<std::int64_t> undoTimeIn(std::string_view fileName);

} // namespace kest::tools
