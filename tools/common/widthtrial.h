/// The trial write of a width proof that the content alone could not decide: one byte, and then what it did.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/offsetreads.h"
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

/// Writes the byte as the chip's type takes it, and reads behind one offset byte and as the type takes it. When the part
/// takes the other width, it puts the bytes back.
/// @return empty when the part takes the width of the chip's type; else what was seen
[[nodiscard]] std::string tryOut(seeprom& chip, const trialByte& trial, const std::vector<std::uint8_t>& first);

/// Puts bytes of a part with one offset byte back that differ from what they were. A part with two takes each of these
/// writes for an offset alone.
/// @return false when it still differs
[[nodiscard]] bool putBack(const seeprom& chip, const std::vector<std::uint8_t>& first);

/// Reads 256 bytes behind one offset byte until two reads in a row agree. Nothing when they do not.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> readFirstAgain(offsetReads& reads);

} // namespace kest::tools
