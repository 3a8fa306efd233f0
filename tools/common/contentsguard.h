/// Writes no contents with wrong checksums, and nothing else over contents of a known format, unless the user wants it.
#pragma once

#include <span>
#include <string>

#include "tools/common/json.h"
#include "tools/common/partcontents.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// The step of these reads, for messages.
inline constexpr const char* contentsStep = "contents";

/// What a write makes of the contents of a part. Names of formats are empty where none is known.
struct contentsFinding {
    std::string before;
    std::string after;
    std::string doubt; ///< why a user should think twice; empty: no reason
    std::string remedy = {}; ///< what helps besides writing all the same; empty: nothing
};

[[nodiscard]] jsonValue contentsJson(const contentsFinding& finding);

/// Judges a write by all that the part will hold from its first byte on. Reads what belongs to the contents and is not
/// part of the write.
/// @param part  knows the old bytes of `range`
/// @param wanted  the new ones
[[nodiscard]] contentsFinding judgeContents(partContents& part, const byteRange& range,
                                            std::span<const unsigned char> wanted);

/// Judges bytes that are written from the first one of a part on, when nobody knows what else it holds: whether they carry
/// a checksum that is wrong.
[[nodiscard]] contentsFinding judgeWritten(std::span<const unsigned char> bytes);

/// Judges a write to a device's hardware; of a persisted copy, and of a device without offsets, nothing is found. Throws
/// as the reader.
/// @param old  the bytes of `range`. @param wanted  the new ones
[[nodiscard]] contentsFinding findContents(const seeprom& chip, const byteRange& range,
                                           std::span<const unsigned char> old, std::span<const unsigned char> wanted,
                                           bytesReader read);

/// Asks about a finding with a doubt. Throws a `failure` (exit code 3) when the answer is not yes, or there is nobody to
/// ask.
void askForContents(const device& which, const contentsFinding& finding);

} // namespace kest::tools
