#include "tools/kestctl/dumpplan.h"

#include <algorithm>
#include <fmt/core.h>
#include <numeric>
#include <set>

#include "tools/common/devicetext.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

/// "planar-vpd.json": names in the table are file names, too. Without a name of its own "device-0x12-3.json", by number
/// and position.
std::string fileOf(const host::deviceEntry& row, std::set<std::string>& used)
{
    if (!row.name.empty() && used.insert(row.name).second) {
        return row.name + ".json";
    }
    return fmt::format("device-0x{:X}-{}.json", row.number, row.position);
}

} // namespace

std::uint32_t busDumps::bytes() const
{
    return std::accumulate(dumps.begin(), dumps.end(), std::uint32_t{0},
                           [](std::uint32_t sum, const plannedDump& each) { return sum + each.bytes; });
}

std::vector<busDumps> planDumps(std::span<const host::deviceEntry> table, const std::filesystem::path& folder)
{
    std::vector<busDumps> plan;
    std::set<std::string> used;
    for (const host::deviceEntry& row : table) {
        try {
            const device which = parseDeviceText(row.location);
            if (which.end().type->kind != deviceKind::seeprom) {
                continue;
            }
            const std::string bus = isLocal(which.node) ? which.bus : which.bus + " of node " + which.node;
            auto found = std::ranges::find(plan, bus, &busDumps::bus);
            if (found == plan.end()) {
                found = plan.insert(plan.end(), {.bus = bus, .dumps = {}});
            }
            found->dumps.push_back({.device = row.name.empty() ? row.location : row.name,
                                    .file = folder / fileOf(row, used),
                                    .bytes = which.end().type->bytes});
        } catch (const failure&) {
            // no device: 'kestctl devices' says what is wrong with the row
            continue;
        }
    }
    return plan;
}

} // namespace kest::tools
