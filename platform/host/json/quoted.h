/// Writing JSON texts.
#pragma once

#include <string>
#include <string_view>

namespace kest::host
{

/// @return `text` as a JSON string with its quotes, in ASCII. Where bytes are not UTF-8 it has U+FFFD: one for the
/// beginning of a character that does not end, and one for each byte that begins none.
std::string quotedText(std::string_view text);

/// Adds the same to a text.
void appendQuoted(std::string& to, std::string_view text);

} // namespace kest::host
