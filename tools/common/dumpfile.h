/// Dump and undo files: bytes with the device they belong to, as JSON that people can read and compare.
#pragma once

#include <cstdint>
#include <string>

#include "tools/common/seeprom.h"

namespace kest::tools
{

/// What a dump file holds: docs/kestctl.md describes it.
struct dumpContents {
    std::string text; ///< device text
    std::string name; ///< as the user named it
    std::uint32_t number = 0; ///< device number, by which a persisted copy is found; 0 none
    /// Where the bytes came from and go to: hardware, or file for the persisted copy.
    accessMode mode = accessMode::hardware;
    std::uint32_t offset = 0;
    byteVector bytes;
    bool proved = true; ///< its sum covers the whole file, not only the data
};

/// @return the contents of a dump of these bytes, with the mode that served them
[[nodiscard]] dumpContents dumpOf(const seeprom& chip, std::uint32_t offset, const byteVector& bytes);

/// @return the file's text
[[nodiscard]] std::string dumpText(const dumpContents& contents);

/// Reads a dump file of this format or the previous one, strictly. A missing, unknown or repeated key, a value of
/// another kind, and a sum that does not match are failures (exit code 2) that say what is wrong.
[[nodiscard]] dumpContents parseDump(const std::string& fileName, const std::string& text);

} // namespace kest::tools
