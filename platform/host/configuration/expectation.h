/// The key `expect` of a device: by what its part is known.
#pragma once

#include <vector>

#include "platform/host/configuration/settings.h"
#include "platform/host/configuration/tomlreader.h"

namespace kest::host
{

/// Makes the reader of the key: { offset = 0, bytes = "54 6C" }, or a list of such.
/// @param reader, target  the caller's; used when the key is read
[[nodiscard]] tomlReader::keyReader expectation(tomlReader& reader, std::vector<expectedBytes>& target);

} // namespace kest::host
