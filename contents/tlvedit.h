/// Edits TlvInfo tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "contents/editresult.h"

namespace kest::contents
{

/// @return the names of all fields of a TlvInfo table that can be set
[[nodiscard]] std::vector<std::string> tlvFields();

/// As setFields(). The table may grow over blank bytes behind it. A field is named by its name, or its code: 0x23.
[[nodiscard]] editResult setTlvFields(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings);

/// As makeImage().
[[nodiscard]] editResult makeTlv(std::size_t size, std::span<const fieldSetting> settings);

} // namespace kest::contents
