/// The key `expect` of a device: by what its part is known.
#pragma once

#include "platform/host/configuration/settings.h"
#include "platform/host/configuration/tomlreader.h"

namespace kest::host
{

/// Makes the reader of the key: { offset = 0, bytes = "54 6C" }, a list of such, or the name of a format.
/// @param reader, target  the caller's; used when the key is read
[[nodiscard]] tomlReader::keyReader expectation(tomlReader& reader, deviceEntry& target);

} // namespace kest::host
