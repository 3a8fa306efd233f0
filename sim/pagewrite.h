/// A page of a memory chip on its way into the chip's image.
#pragma once

#include "sim/chip.h"

#include <array>
#include <cstdint>

namespace kest::sim
{

/// Part of the bus's state until the page is in its image, so that a killed process loses neither half.
struct pageWrite {
    bool pending = false;
    std::uint32_t chip = 0; ///< index among the bus's chips
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::array<std::uint8_t, longestPage> bytes{};
};

} // namespace kest::sim
