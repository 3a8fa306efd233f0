/// Images for tests, and what is asked of their readings.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contents/reading.h"

namespace kest::contents::test
{

using Bytes = std::vector<std::uint8_t>;

/// An image of examples/images. Without it the test fails.
[[nodiscard]] Bytes exampleImage(const std::string& name);

/// Images that may only be read by tests lie beside the tree, in shared/images. @return nothing where they are missing
[[nodiscard]] Bytes sharedImage(const std::string& name);

/// Bytes from hexadecimal digits; blanks between them do not count.
[[nodiscard]] Bytes fromHex(std::string_view digits);

/// The text of a field with its unit; "(there is none)" when the reading has no such field.
[[nodiscard]] std::string textOf(const reading& what, std::string_view name);

/// The problem of a field; "(there is none)" when the reading has no such field.
[[nodiscard]] std::string problemOf(const reading& what, std::string_view name);

/// Reads an image as the format of this name, from memory in which nothing lies behind the last byte.
[[nodiscard]] reading readExactly(std::string_view formatName, const Bytes& image);

} // namespace kest::contents::test
