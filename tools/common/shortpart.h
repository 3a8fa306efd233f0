/// A part as if it had one offset byte: what it gives behind one, and how bytes of it are put back. All of this is
/// harmless for a part with two, which takes the byte behind the first one for the rest of an offset.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "tools/common/partend.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// The 256 bytes of a part behind one offset byte.
using firstContent = std::vector<std::uint8_t>;
/// Offsets of these.
using firstOffsets = std::set<std::size_t>;

/// The device as the smallest part with one offset byte.
[[nodiscard]] device asShortPart(const device& which);

/// Reads a byte behind one offset byte, through the library. Throws the `failure` of a part that does not answer.
void readBehindOne(const seeprom& chip);

/// What reads of 256 bytes behind one offset byte gave.
struct firstAgain {
    std::optional<firstContent> bytes = {}; ///< that two reads in a row gave
    /// None failed, and each gave bytes that can't be those of the one before, however noisy: a part with two offset
    /// bytes does so when one does not move its address counter.
    bool unlike = false;
};
/// Reads 256 bytes behind one offset byte until two reads in a row agree; reads that fail are repeated.
[[nodiscard]] firstAgain readFirstAgain(const seeprom& chip);

/// What has become of bytes that could have been changed.
enum class firstChange : std::uint8_t {
    none,
    there, ///< at some of the offsets alone
    elsewhere, ///< other bytes differ, too: what was done does not do that
    notKnown, ///< the reads differ or fail
};
/// @param first  the bytes before. @param offsets  at which they could have been changed
[[nodiscard]] firstChange changeOf(const firstAgain& now, const firstContent& first, const firstOffsets& offsets);

/// Where the part ends, when two looks in a row agree; looks that fail are repeated.
/// @param now    what it gives behind one offset byte, 256 bytes
/// @param start  as findPartEnd()
/// @return nothing when the looks differ or fail
[[nodiscard]] std::optional<partEnd> findShortEnd(const seeprom& chip, const firstContent& now, std::size_t start);

/// Puts the bytes back that differ from what they were, wherever they are: an offset byte can arrive as another one.
/// Tries again when a transfer fails.
/// @return false unless reads show that all 256 bytes are what they were
[[nodiscard]] bool putBack(const seeprom& chip, const firstContent& first);

} // namespace kest::tools
