/// UTF-8 texts.
#pragma once

#include <cstddef>
#include <string_view>

namespace kest
{

/// @param text  not empty
/// @return the bytes of the character at the start of `text`; 0 when those are no valid UTF-8
std::size_t utf8Length(std::string_view text);

/// @param text  not empty, and no valid UTF-8 at its start
/// @return the bytes at its start that begin a character and do not complete it, at least 1
std::size_t brokenUtf8Length(std::string_view text);

/// @param character  all bytes of one valid character. @return its code point
char32_t codePoint(std::string_view character);

} // namespace kest
