/// What is known of every bus: its adapter, and what the kernel or the simulated machine has on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/iic/sysfs.h"
#include "tools/common/devicetext.h"
#include "tools/common/failure.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// One bus. What could not be found out is in `unknown`, and the field is then empty or 0.
struct busDescription {
    busName bus = {};
    std::optional<unsigned int> number = {}; ///< the kernel's, of a kernel bus's adapter
    std::string name = {}; ///< of the adapter
    std::uint64_t clockHz = 0;
    std::vector<std::string> functions = {}; ///< what the adapter can do
    std::vector<std::string> limits = {}; ///< what it can't
    std::vector<host::iic::kernelDevice> devices = {}; ///< that the kernel knows on a kernel bus
    std::size_t chips = 0; ///< of a simulated bus
    std::size_t chipsBehindHubs = 0; ///< how many of them
    std::vector<std::string> unknown = {}; ///< what could not be found out, and why; one text each

    [[nodiscard]] bool isSimulated() const { return bus.path.starts_with("sim:"); }
};

/// All buses of the local and the mapped nodes, and adapters of the kernel without a node in /dev. Kernel buses come
/// first, by number. Nothing goes over any bus.
/// @param[out] trouble  what kept buses from being listed
[[nodiscard]] std::vector<busDescription> describeBuses(const host::iic::sysfs& kernel, std::vector<failure>& trouble);

/// Lines for people, of at most 80 columns as far as names allow; each with its end.
[[nodiscard]] std::string busLines(const busDescription& which);

[[nodiscard]] jsonValue busJson(const busDescription& which);

} // namespace kest::tools
