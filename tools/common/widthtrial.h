/// The trial write of a width proof that the content alone could not decide: one byte, and then what it did.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/failure.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// One byte whose writing shows the width.
struct trialByte {
    std::uint32_t offset = 0;
    std::uint8_t before = 0;
    std::uint8_t wanted = 0;
};

/// The first of the bytes to be written that shows it.
/// @param first  what the part gave behind one offset byte, 256 bytes
/// @param old    the bytes of `range` on the part, as its type reads them. @param wanted  those to be written
/// @return nothing when none of them does
[[nodiscard]] std::optional<trialByte> chooseTrial(unsigned claimedBytes, const std::vector<std::uint8_t>& first,
                                                   const byteRange& range, std::span<const unsigned char> old,
                                                   std::span<const unsigned char> wanted);

/// How a trial ended.
struct trialResult {
    std::string seen; ///< empty when the part takes the width of the chip's type; else what was seen
    bool isKnown = true; ///< which width the part takes
    bool isBack = true; ///< a part with one offset byte holds what it should
    std::optional<failure> trouble = {}; ///< why the byte could not be written
};

/// Writes the byte as the chip's type takes it, and reads behind one offset byte and as the type takes it. Unless the
/// part takes that width, it puts the bytes of a part with one offset byte back.
[[nodiscard]] trialResult tryOut(seeprom& chip, const trialByte& trial, const std::vector<std::uint8_t>& first);

/// The device as the smallest part with one offset byte.
[[nodiscard]] device asShortPart(const device& which);

/// Puts bytes of a part with one offset byte back that differ from what they were. A part with two takes each of these
/// writes for an offset alone. Tries again when a transfer fails.
/// @return false when it still differs, or when that is not known
[[nodiscard]] bool putBack(const seeprom& chip, const std::vector<std::uint8_t>& first);

/// What reads of 256 bytes behind one offset byte gave.
struct firstAgain {
    std::optional<std::vector<std::uint8_t>> bytes = {}; ///< that two reads in a row gave
    /// Each read gave other bytes than the one before, and none failed: a part with two offset bytes does so when one
    /// does not move its address counter.
    bool differ = false;
};

/// Reads 256 bytes behind one offset byte until two reads in a row agree; reads that fail are repeated.
[[nodiscard]] firstAgain readFirstAgain(const seeprom& chip);

} // namespace kest::tools
