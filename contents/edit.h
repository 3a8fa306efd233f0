/// Changes fields of an image in memory, and makes new images. Lengths and checksums are mended; what does not fit, or
/// would move another area, is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "contents/editresult.h"

namespace kest::contents
{

/// Names of the formats whose fields can be set, and of which images can be made.
[[nodiscard]] std::vector<std::string> editableFormats();

/// Whether the fields of a format can be set.
[[nodiscard]] bool isEditable(std::string_view format);

/// Names of all fields of an editable format that can be set.
[[nodiscard]] std::vector<std::string> settableFields(std::string_view format);

/// Sets fields of an image of an editable format, one after the other. Refuses an image that is damaged.
/// @param image  from the first byte of the part on; it does not grow, so it must have the room that is to be used
[[nodiscard]] editResult setFields(std::string_view format, std::span<const std::uint8_t> image,
                                   std::span<const fieldSetting> settings);

/// Makes an image of an editable format with these fields alone.
/// @param size  bytes of the image, filled with FF after its content; 0: as many as the content has
[[nodiscard]] editResult makeImage(std::string_view format, std::size_t size, std::span<const fieldSetting> settings);

} // namespace kest::contents
