#include "tools/kestctl/simbus.h"

#include <string_view>

#include "tools/common/failure.h"
#include "tools/common/output.h"

namespace kest::tools
{

std::string simBusName(const std::string& name)
{
    constexpr std::string_view simulated = "sim:";
    return name.starts_with(simulated) ? name.substr(simulated.size()) : name;
}

void requireBus(sim::machine& machine, const std::string& name)
{
    const std::size_t colon = name.find(':');
    const bool local = colon == std::string::npos;
    if (colon != 0 &&
        machine.findBus(local ? name : name.substr(colon + 1), local ? "" : name.substr(0, colon)) != nullptr) {
        return;
    }
    std::string known;
    for (const std::string& bus : machine.busNames("")) {
        known += (known.empty() ? "" : ", ") + bus;
    }
    throw failure{.code = exitAbsent, .what = "the simulated machine has no such bus; it has " + known, .device = name};
}

void reportDone(const context& shared, const jsonValue& json, const std::string& text)
{
    if (shared.json) {
        standardOutput().json(json);
    } else {
        standardOutput().text(text + "\n");
    }
}

} // namespace kest::tools
