/// Whether the part at a device's place is the one that the device table expects there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/partcontents.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

enum class identity : std::uint8_t {
    notExpected, ///< the table expects nothing
    asExpected,
    blank, ///< all that was read is FF, or all is 00
    unexpected, ///< something else; only when forced
};

/// "as-expected", for JSON.
[[nodiscard]] const char* identityWord(identity found);

/// Throws a `failure` (exit code 2) when a device has no room for what the table expects of it, or its hardware is sent
/// no offset.
void requireRoomFor(const device& which, const std::vector<host::expectedBytes>& expected);

/// The format that the table expects of a device's contents. Throws a `failure` (exit code 2) when there is none of that
/// name, or the device holds no bytes, or its hardware is sent no offset.
[[nodiscard]] const contents::format& requireFormatFor(const device& which, const std::string& name);

/// Whether the table expects anything of a device.
[[nodiscard]] bool isExpected(const device& which);

/// The step of these reads, for messages.
inline constexpr const char* identityStep = "identity";

struct identityFinding {
    identity found = identity::notExpected;
    // when it is `unexpected`
    std::string difference = {}; ///< "the device table expects 54 at offset 4 (0x4), the part holds 55"
    std::uint32_t offset = 0; ///< of the first byte that differs
    std::uint8_t expected = 0;
    std::uint8_t seen = 0;
};

/// Reads what the table expects, before a write. Around expected bytes the whole pages are read, so that a single FF does
/// not pass for a blank part; for a format, as many bytes as show which it is. Throws as requireRoomFor() and the reader.
/// @param served  how many bytes can be read, from the first one on
[[nodiscard]] identityFinding findIdentity(const device& which, std::uint32_t served, const bytesReader& read);

/// Throws a `failure` and makes an error entry (exit code 3) when the part holds something else and is not blank.
/// @param force  returns `unexpected` instead of throwing
identity requireExpected(const device& which, const identityFinding& finding, bool force);

} // namespace kest::tools
