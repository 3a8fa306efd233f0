/// Areas that look at buses and at what is on them: scan, reset, topology, devices, detect.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/kestctl/context.h"

namespace kest::tools
{

struct scanOptions {
    std::string bus; ///< path, or a device on it
    std::string node;
    std::uint32_t speedKhz = 0;
};
/// Probes every address of a bus that can be probed without harm, and shows a grid.
int runScan(const context& shared, const scanOptions& options);

struct resetOptions {
    std::string bus;
    std::string node;
};
int runReset(const context& shared, const resetOptions& options);

struct topologyOptions {
    bool probe = false; ///< ask each device whether it is there
};
/// Shows buses, hubs with their ports, and devices as a tree: those of the device table and of the simulated machine.
int runTopology(const context& shared, const topologyOptions& options);

struct devicesOptions {
};
int runDevices(const context& shared, const devicesOptions& options);

struct detectOptions {
    std::vector<std::string> devices; ///< empty: those of the device table
    std::uint32_t speedKhz = 0;
};
/// Tells for each device whether it is there; the exit code is that of the first one that isn't.
int runDetect(const context& shared, const detectOptions& options);

} // namespace kest::tools
