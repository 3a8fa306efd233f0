/// What the verbs of area "copy" share: which copy is meant, and what is said of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/host/vpd/copies.h"
#include "tools/common/device.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// A copy needs no device. It is named by any device number, or by a name of the device table. Throws a `failure`.
[[nodiscard]] std::uint32_t copyNumber(const std::string& which);

/// The device that a number's copy belongs to; none when the table has no valid row for the number.
[[nodiscard]] std::optional<device> ownerOf(std::uint32_t number);

/// Name of the device that a copy belongs to; empty when the table has none.
[[nodiscard]] std::string ownerName(std::uint32_t number);

/// "copy 5", "copy 53250 (panel-vpd)".
[[nodiscard]] std::string copyLabel(std::uint32_t number);

/// Throws for the `errno` that a function of the copies returned; 0 is none.
void throwCopy(int error, std::uint32_t number, const std::string& step);

/// "proved", "unproved", "damaged", "unreadable".
[[nodiscard]] const char* stateWord(host::copyState state);

/// Where a damaged copy is damaged, for people: "in the 4 KiB at offset 4096 (0x1000)".
[[nodiscard]] std::string damageText(const host::copyInfo& copy);

/// The fields of a copy: what is not known is null.
[[nodiscard]] jsonValue copyJson(const host::copyInfo& copy);

} // namespace kest::tools
