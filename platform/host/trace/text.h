/// Texts of records: a format with its arguments, made harmless.
#pragma once

#include <string>
#include <string_view>

#include "platform/host/trace/arguments.h"

namespace kest::host::trace
{

/// Adds a text; bytes that are not printable ASCII, and '\', become \xNN.
void appendEscaped(std::string& to, std::string_view text);

/// @param arguments  the format with its NUL comes first
/// @return the text, escaped. From the first conversion that cannot be formatted, the rest of the format follows as it
/// is.
std::string formatText(argumentReader& arguments);

} // namespace kest::host::trace
