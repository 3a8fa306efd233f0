/// Edits FRU information: the chassis, board and product areas.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "contents/editresult.h"

namespace kest::contents
{

/// @return the names of all fields of FRU information that can be set, but for custom ones
[[nodiscard]] std::vector<std::string> fruFields();

/// As setFields(). An area keeps its place and its length: a field grows into the padding of its own area alone.
[[nodiscard]] editResult setFruFields(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings);

/// As makeImage(). The image has the areas of which fields are given.
[[nodiscard]] editResult makeFru(std::size_t size, std::span<const fieldSetting> settings);

} // namespace kest::contents
