/// The width proof of a device: how many offset bytes the part at its place takes, whatever its device text says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/devicetext.h"
#include "tools/common/json.h"
#include "tools/common/seeprom.h"
#include "tools/common/widthengine.h"

namespace kest::tools
{

/// Offset bytes that a SEEPROM type takes.
[[nodiscard]] unsigned offsetBytesOf(const deviceTypeInfo& type);

/// Proves the width with signals blocked, in at most 64 reads. Reads only, changes no part, makes no error entry. When an
/// offset byte arrived as another one and a part with one has taken it for data, puts the byte back and says so in
/// `seen`; it saves and names an undo file when that is not certain. It uses
/// bus, address, hub and port of the device, and not its type. A hub on the way is locked meanwhile; throws an
/// interruption() when a signal ends the wait for that.
/// @param speedKhz  0 the library's default
/// @param written   bytes that are to be written; of length 0 when none are
[[nodiscard]] widthFinding proveWidth(const device& which, std::uint32_t speedKhz, const byteRange& written = {});

/// Whether nothing more is to be known: the width is one or two bytes.
[[nodiscard]] bool isProved(const widthFinding& finding);
/// Whether a proved part can be one of a type.
[[nodiscard]] bool canBe(const widthFinding& finding, const deviceTypeInfo& type);
/// The types that a proved part can be.
[[nodiscard]] std::vector<const deviceTypeInfo*> fittingTypes(const widthFinding& finding);
/// "24C02 (1C0002)", "none: ..."
[[nodiscard]] std::string fittingText(const widthFinding& finding);

/// "one_byte", "two_bytes", "block_addressed", "flaky", "uniform", "not_decidable".
[[nodiscard]] const char* widthWord(const widthFinding& finding);
/// "two offset bytes: behind two offset bytes it gives other bytes than behind one".
[[nodiscard]] std::string widthText(const widthFinding& finding);
/// "planar-vpd: offset width: two offset bytes: ...", escaped.
[[nodiscard]] std::string widthLine(const device& which, const widthFinding& finding);
[[nodiscard]] jsonValue widthJson(const widthFinding& finding);

} // namespace kest::tools
