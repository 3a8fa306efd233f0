/// Finding out which format an image has.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "contents/table.h"

namespace kest::contents
{

/// @return the formats whose signatures the image carries from its first byte on; none when it has none
[[nodiscard]] std::vector<const format*> recognise(std::span<const std::uint8_t> image);

/// Whether an image carries the signature of a format. One without signatures is carried by any image.
[[nodiscard]] bool carriesFormat(const format& which, std::span<const std::uint8_t> image);

/// @return the format of this name, null when there is none
[[nodiscard]] const format* findFormat(std::string_view name);

} // namespace kest::contents
