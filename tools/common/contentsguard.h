/// Writes no contents with wrong checksums, and nothing else over contents of a known format, unless the user wants it.
#pragma once

#include <span>
#include <string>

#include "tools/common/json.h"
#include "tools/common/partcontents.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

struct contentsOptions {
    bool dryRun = false; ///< nothing is asked
    bool force = false; ///< nothing is judged: write all the same
};

/// What a write makes of the contents of a part. Names of formats are empty where none is known.
struct contentsFinding {
    std::string before;
    std::string after;
    std::string doubt; ///< why a user should think twice; empty: no reason
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

/// Judges a write to a device's hardware, and asks when there is a doubt. A persisted copy is written without a question. Throws a `failure` (exit code 3) when the answer is not
/// yes, or there is nobody to ask; and as seeprom::read().
[[nodiscard]] contentsFinding guardContents(seeprom& chip, const byteRange& range, std::span<const unsigned char> old,
                                            std::span<const unsigned char> wanted, const contentsOptions& options);

/// Asks about a finding with a doubt, as guardContents() does.
void askForContents(const device& which, const contentsFinding& finding);

} // namespace kest::tools
