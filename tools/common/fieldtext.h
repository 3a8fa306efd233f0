/// Device texts in the form of other tools: BUS:PART@ADDR7, with parts by their names and addresses in the 7-bit form.
#pragma once

#include <string>

#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Whether a text begins as a device text in the field's form does: with a bus and a colon. Names of files hardly do.
[[nodiscard]] bool isFieldText(const std::string& text);

/// Reads BUS:PART@ADDR7 or, through hubs, BUS:HUB@ADDR7/PORT:...:PART@ADDR7: "i2c-1:24c256@50",
/// "sim:planar:922@40/3:24c128@0x51". BUS is i2c-N, /dev/i2c-N or sim:NAME of the local node, PORT 0 to 7. Addresses
/// are hexadecimal, 03 to 77. Throws a `failure` (exit code 2) that names the field, what stands there and what was
/// expected.
/// @return the device, with `text` in the canonical form and `label` as given
[[nodiscard]] device parseFieldText(const std::string& text);

/// The path of a bus that is named as other tools do: "/dev/i2c-1" for "i2c-1". Any other text stays as it is.
[[nodiscard]] std::string busPathOf(const std::string& name);

/// A device of the local node in the field's form: "sim:planar:922@40/3:24c128@51".
[[nodiscard]] std::string fieldText(const std::string& bus, const std::vector<deviceLink>& links);

} // namespace kest::tools
