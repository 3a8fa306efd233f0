/// Area "port": outputs, inputs and configuration of LED drivers and I/O expanders.
#pragma once

#include <cstdint>
#include <string>

#include "tools/kestctl/context.h"

namespace kest::tools
{

struct portReadOptions {
    std::string device;
    std::uint32_t mask = 0xFFFF;
    std::uint32_t speedKhz = 0;
};
int runPortRead(const context& shared, const portReadOptions& options);

struct portWriteOptions {
    std::string device;
    std::string operation; ///< on, off, blink0, blink1, low, high, copy
    std::string bits; ///< number; empty: `pins` is given
    std::string pins; ///< "0,3-5"
    std::string mask; ///< number, for copy; empty: all pins
    std::uint32_t speedKhz = 0;
    bool yes = false; ///< a hub's reset line may be driven
    bool force = false; ///< also where a driver of the kernel has the device
};
/// Changes the chosen pins and no others. Asks before it drives a hub's reset line.
int runPortWrite(const context& shared, const portWriteOptions& options);

struct portConfigOptions {
    std::string device;
    std::string function; ///< input, output, prescaler0, duty0, prescaler1, duty1, polarity0, polarity1
    std::string value; ///< number; empty: `pins` is given
    std::string pins;
    std::uint32_t speedKhz = 0;
    bool force = false; ///< also where a driver of the kernel has the device
};
int runPortConfig(const context& shared, const portConfigOptions& options);

} // namespace kest::tools
