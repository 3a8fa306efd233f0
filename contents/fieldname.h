/// Names of fields as users write them.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kest::contents
{

/// Whether two names are the same but for upper and lower case, blanks, "-" and "_": "serialNumber", "Serial number".
[[nodiscard]] bool isSameName(std::string_view one, std::string_view other);

/// "one, other, third".
[[nodiscard]] std::string joinedNames(std::span<const std::string> names);

} // namespace kest::contents
