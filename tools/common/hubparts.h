/// Which memory parts are behind a 922 hub.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/common/foundpart.h"
#include "tools/common/memoryparts.h"

namespace kest::tools
{

/// Asks each address of memory parts at each port, by reads through the hub alone, and proves the width of what
/// answers. The hub is locked meanwhile. A status that is left in it from earlier is lost, as with every use of a hub.
/// @param address  of a part that is known to be a hub
/// @return the hub itself, then the parts behind it
[[nodiscard]] std::vector<foundPart> findPartsBehind(const busName& bus, std::uint8_t address,
                                                     const partAsking& asking);

} // namespace kest::tools
