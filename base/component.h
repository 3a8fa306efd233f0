/// Component numbers: who made an error entry or one of its SRCs.
#pragma once

#include <cstdint>

namespace kest
{

/// Applications know it as kest_component (kest/reasons.h).
constexpr std::uint16_t componentLibrary = 0x1300;
constexpr std::uint16_t componentVpd = 0x1400;
constexpr std::uint16_t componentRegistry = 0x1500;
constexpr std::uint16_t componentService = 0x1600;
constexpr std::uint16_t componentTools = 0x1700;

} // namespace kest
