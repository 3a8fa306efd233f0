/// What an adapter can do, told by the kernel's I2C_FUNC_... bits, and what follows from it. Kernel buses and simulated
/// ones share it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// Whether all of some functions are among an adapter's.
constexpr bool hasFunctions(unsigned long adapter, unsigned long wanted) { return (adapter & wanted) == wanted; }

/// What an adapter of these functions takes at once.
transferLimits limitsOf(unsigned long functions);

/// Whether a transaction can be made with these functions at all. @return done, notSupported, or tooLong
outcome checkSegments(std::span<const segment> segments, unsigned long functions);

/// Asks an address on a bus, in a way that suits address, method and functions.
/// @return done, addressNotAcknowledged, notSupported where there is no such question, or a trouble of the bus
transferResult askAddress(bus& wires, std::uint8_t address, probeMethod method, unsigned long functions,
                          const transferPace& pace);

/// What the functions are, one short text each.
std::vector<std::string> functionTexts(unsigned long functions);
/// What they lack that transfers here use.
std::vector<std::string> lackTexts(unsigned long functions);

} // namespace kest::host::iic
