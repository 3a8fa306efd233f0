/// A part that was found on a bus, or behind a hub, and what is known of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/iic/tools.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// What the type of a part rests on.
enum class partSource : std::uint8_t {
    none, ///< there is no type
    kernel, ///< a driver or the device tree names the part
    proof, ///< the width proof
    address, ///< the range of addresses alone: a guess
};

/// What is at an address, or at several neighbours of which the same is known.
struct foundPart {
    std::vector<deviceLink> way = {}; ///< the hub before it, with the port
    std::uint8_t address = 0; ///< 8-bit form
    std::uint8_t lastAddress = 0; ///< of the neighbours; `address` when there are none
    host::iic::presence state = host::iic::presence::present;
    partSource source = partSource::none;
    std::vector<const deviceTypeInfo*> types = {}; ///< that it may be; the first fits best
    bool isReady = false; ///< the first type serves the part; else somebody has to choose
    bool endIsOpen = false; ///< one offset byte is proved, and whether the part ends after 256 bytes is not
    std::string note = {}; ///< for people: what is known, and from where. Not escaped
};

} // namespace kest::tools
