/// Where the devices of device texts are, whatever the spelling of the texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/configuration/settings.h"

namespace kest::host
{

/// A device at its place.
struct placedType {
    /// Bus after node mapping, hubs on the way with their ports, address. The same for all texts that name the place.
    std::string place;
    std::uint32_t type = 0; ///< as in a device text: 0x2C0256
    std::uint8_t address = 0; ///< 8-bit form
};

/// Takes a device text apart: PATH,NODE and then TYPE,ADDRESS of the device, or TYPE,ADDRESS,PORT of each hub before it.
/// Case, a leading 0x, leading zeros and an address in the path make no difference. Whether there are such types and
/// such a bus is not checked.
/// @param nodes  the node map; a node that it lacks is a place of its own
/// @return the hubs on the way and then the device; empty for a text of another form
[[nodiscard]] std::vector<placedType> placesOf(std::string_view text, const nodeMap& nodes);

} // namespace kest::host
