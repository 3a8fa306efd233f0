/// Numbers and pin lists as users write them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kest::tools
{

/// Reads a decimal number, or a hexadecimal one after 0x. No sign, no octal, no blanks.
/// @param what  names the number in the error: "offset"
/// Throws a `failure` (exit code 2) that names text and bounds.
[[nodiscard]] std::uint64_t parseNumber(const std::string& text, const std::string& what, std::uint64_t maximum,
                                        std::uint64_t minimum = 0);

/// A size or an offset: the same, with KiB, MiB or GiB (K, M or G) allowed at the end, powers of 1024. Any other unit is
/// refused.
[[nodiscard]] std::uint64_t parseSize(const std::string& text, const std::string& what, std::uint64_t maximum);

/// Pins such as "0,3,5-7" as a bit mask. @param pins  how many the chip has, at most 32
[[nodiscard]] std::uint32_t parsePins(const std::string& text, unsigned pins);

/// "1 page", "2 pages".
[[nodiscard]] std::string countText(std::uint64_t count, const char* what);

/// "1.5 KiB", "300 B".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

/// "A0 = 0x50": an address in the 8-bit form used throughout, and the 7-bit one that other tools show.
[[nodiscard]] std::string addressText(std::uint8_t address);

} // namespace kest::tools
