/// The lines of an open spool file.
///
/// Functions return 0 or an `errno` value unless they say otherwise.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace kest::host
{

constexpr std::size_t pieceBytes = 8 << 10;
/// A part of the file; small enough for the stack.
using piece = std::array<char, pieceBytes>;

inline std::uint64_t sizeOf(const struct stat& facts) { return static_cast<std::uint64_t>(facts.st_size); }

/// A whole line of a spool, without its end, that has not been taken.
struct textLine {
    std::string_view text;
    std::uint64_t offset = 0; ///< in the file
};

/// Reserves disk space beyond the file's end. Not every file system can; nothing is lost then.
void reserveBehind(int descriptor);

/// Cuts off what follows the last line end: the rest of a line whose writer was killed.
int dropUnfinished(int descriptor);

/// @return the lines of a file's bytes, without what follows the last line end
std::vector<textLine> linesOf(const std::vector<std::uint8_t>& bytes);

/// Marks lines as taken, for good. One byte of each changes, so that no crash leaves a line half taken.
int markTaken(int descriptor, std::span<const textLine> lines);

/// Removes all lines.
int emptyFile(int descriptor);

/// Writes a line with its end, durable on return.
int writeLine(int descriptor, std::string_view line);

/// @return the lines to hand over at once, from the first of `lines` on
std::vector<std::string_view> someOf(std::span<const textLine> lines);

} // namespace kest::host
