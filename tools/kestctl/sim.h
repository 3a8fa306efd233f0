/// Area "sim": the simulated machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sim/machine.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

struct simNewOptions {
    std::string folder;
};
/// Writes a demo machine and its configuration. Refuses a folder that has anything in it.
int runSimNew(const context& shared, const simNewOptions& options);

struct simShowOptions {
};
/// Chips with their registers and what their pins do, faults, bus times.
int runSimShow(const context& shared, const simShowOptions& options);

struct simFaultAddOptions {
    sim::machine::fault what;
    std::optional<std::string> bus; ///< "planar" or "sim:planar"; none: every bus
    std::optional<std::string> address; ///< number; none: every address
};
int runSimFaultAdd(const context& shared, const simFaultAddOptions& options);

struct simFaultListOptions {
};
int runSimFaultList(const context& shared, const simFaultListOptions& options);

struct simFaultClearOptions {
    std::optional<std::uint32_t> number; ///< none: all
};
int runSimFaultClear(const context& shared, const simFaultClearOptions& options);

struct simWaveOptions {
    std::string bus;
    std::string file; ///< to start
};
int runSimWaveStart(const context& shared, const simWaveOptions& options);
int runSimWaveStop(const context& shared, const simWaveOptions& options);

struct simPowerCycleOptions {
};
int runSimPowerCycle(const context& shared, const simPowerCycleOptions& options);

} // namespace kest::tools
