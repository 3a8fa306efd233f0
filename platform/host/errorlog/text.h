/// Texts of devices and clients, made harmless for the error log.
#pragma once

#include <string>
#include <string_view>

namespace kest::host
{

/// @return `text` as valid UTF-8: other bytes, and control characters but line end and tab, become \xHH
std::string cleanText(std::string_view text);

} // namespace kest::host
