/// Files of the user: "-" is standard input or output. Every function throws a `failure` with the file's name.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kest::tools
{

/// Reads a whole file. @param maximum  more bytes than this are a failure (exit code 2)
[[nodiscard]] std::vector<unsigned char> readInput(const std::string& name, std::size_t maximum);

/// Writes a whole file as an `outputFile` does, or standard output. Raw bytes go to a terminal only when forced.
/// In a dry run (preferences.h) neither gets a byte.
void writeOutput(const std::string& name, std::span<const unsigned char> bytes, bool force);

/// Says in a dry run what writeOutput() would have written.
void tellOutput(const std::string& name, std::size_t bytes);

/// Lines of offset, hexadecimal digits and text, for people: at most 79 columns.
[[nodiscard]] std::string hexLines(std::uint32_t offset, std::span<const unsigned char> bytes);

/// Reads bytes from hexadecimal digits. Blanks and line ends may stand between bytes. Throws a `failure` (exit code 2).
[[nodiscard]] std::vector<unsigned char> parseHex(const std::string& digits, const std::string& what);

} // namespace kest::tools
