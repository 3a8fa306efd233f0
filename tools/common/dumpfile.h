/// Dump and undo files: bytes of a device with the device they belong to, as JSON that people can read and compare.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "tools/common/seeprom.h"

namespace kest::tools
{

/// {"format": "kest-dump-1", "device": text, "name": name, "offset": N, "length": N, "sum": "crc32 in hex", "data": ["32 bytes in hex", ...]}
struct dumpContents {
    std::string   text; ///< device text
    std::string   name; ///< as the user named it
    std::uint32_t offset = 0;
    byteVector    bytes;
};

/// @return the file's text
[[nodiscard]] std::string dumpText(const dumpContents& contents);

/// Reads a dump file. Throws a `failure` (exit code 2) that says what is wrong with it: not JSON, a key, a length, the check sum.
[[nodiscard]] dumpContents parseDump(const std::string& fileName, const std::string& text);

/// Saves old bytes in a new file of the state folder, synced before this returns. @return its path. Throws a `failure`.
[[nodiscard]] std::string saveUndo(const device& which, std::uint32_t offset, const byteVector& bytes);

/// CRC-32 (polynomial 0x04C11DB7, reflected, as in zip files).
[[nodiscard]] std::uint32_t crc32(std::span<const unsigned char> bytes);

} // namespace kest::tools
