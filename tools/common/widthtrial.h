/// The trial write of a width proof that the content alone could not decide: one byte, and then what it did.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/common/failure.h"
#include "tools/common/seeprom.h"
#include "tools/common/shortpart.h"

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
[[nodiscard]] std::optional<trialByte> chooseTrial(unsigned claimedBytes, const firstContent& first,
                                                   const byteRange& range, std::span<const unsigned char> old,
                                                   std::span<const unsigned char> wanted);

enum class trialEnd : std::uint8_t {
    asClaimed, ///< the part took the byte in the width of its type
    goesOn, ///< so it did, and goes on at the next address: not known for a type with two offset bytes
    inOther, ///< it took it in the other width
    unchanged, ///< nothing has changed: it takes the other width, or did not take the byte
    notKnown,
};

/// How a trial ended.
struct trialResult {
    trialEnd end = trialEnd::notKnown;
    std::string seen; ///< what shows it; empty when the byte could not be written
    partEnd reach = partEnd::notKnown; ///< where the part ends, when it took the byte as one with one offset byte
    bool isBack = false; ///< reads show that the part holds its old bytes
    bool wentElsewhere = false; ///< the chip wrote a byte, and no read shows where
    std::optional<failure> trouble = {}; ///< why the byte could not be written
};

/// Writes the byte as the chip's type takes it, and reads behind one offset byte and as the type takes it. Unless the
/// part took it so, it puts the old bytes back: those of a part with one offset byte, and of one with two where that is
/// possible.
[[nodiscard]] trialResult tryOut(seeprom& chip, const trialByte& trial, const firstContent& first);

/// Puts the byte of a trial back that ended as claimed. @return whether it reads back
[[nodiscard]] bool takeBack(seeprom& chip, const trialByte& trial);

} // namespace kest::tools
