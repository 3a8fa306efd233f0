#include "tools/kestctl/area.h"

#include <fmt/core.h>

#include "tools/common/duration.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/defaults.h"

namespace kest::tools
{

command addArea(command program, const std::string& name, const std::string& help)
{
    command area = program.add(name, help);
    area.requireSubcommand();
    area.fallThrough();
    return area;
}

command addVerb(command area, const std::string& name, const std::string& help, const std::string& more)
{
    command verb = area.add(name, help);
    verb.fallThrough();
    verb.footer(more + (more.empty() ? "" : "\n") +
                "The options of 'kestctl --help' work here, too: --json, --timeout, --config, ...");
    return verb;
}

void runs(command verb, context& shared, int (*run)(const context&))
{
    verb.whenGiven([&shared, run] { shared.action = [&shared, run] { return run(shared); }; });
}

void addDryRun(command verb)
{
    verb.flag("--dry-run", preferred().dryRun, "change nothing: say what would be done, or refused");
}

void addDryRunField(jsonValue& result)
{
    if (preferred().dryRun) {
        result.add("dry_run", true);
    }
}

void reportWould(const context& shared, jsonValue json, const std::string& text)
{
    if (shared.json) {
        addDryRunField(json);
        standardOutput().json(json);
    } else {
        standardOutput().text(text + "\n");
    }
}

void addDevice(command verb, std::string& device)
{
    verb.text("DEVICE", device, "name, number or device text", "").required();
}

void addBus(command verb, std::string& bus, std::string& node)
{
    verb.text("BUS", bus, "/dev/i2c-N, sim:NAME, or a device on the bus", "").required();
    addNode(verb, node);
}

void addNode(command verb, std::string& node)
{
    verb.checked("--node", node, "node of the bus: L (local) or 0 to 7", "NODE", [](const std::string& text) {
        return text == "L" || (text.size() == 1 && text[0] >= '0' && text[0] <= '7') ? "" : "expected L or 0 to 7";
    });
}

/// Bus modes above fast-mode plus begin with a byte of their own, which nothing here sends.
void addSpeed(command verb, std::uint32_t& speedKhz, const std::string& otherwise)
{
    const auto read = [&speedKhz](const std::string& text) {
        constexpr std::uint64_t fastestKhz = 1000;
        const std::uint64_t khz = parseNumber(text, "--speed", std::numeric_limits<std::uint32_t>::max());
        if (khz == 0 || khz > fastestKhz) {
            throw wrongUse(fmt::format("--speed {}: expected 1 to {} kHz; faster modes of the bus are not served", text,
                                       fastestKhz));
        }
        speedKhz = static_cast<std::uint32_t>(khz);
    };
    verb.read("--speed", read, "bus speed in kHz (" + otherwise + ")", "N");
}

void addVotes(command verb, std::uint32_t& votes)
{
    const auto read = [&votes](const std::string& text) {
        constexpr std::uint64_t fewestReads = 3;
        constexpr std::uint64_t mostReads = 15;
        const std::uint64_t reads = parseNumber(text, "--voted", std::numeric_limits<std::uint32_t>::max());
        if (reads < fewestReads || reads > mostReads || reads % 2 == 0) {
            throw wrongUse(fmt::format("--voted {}: expected an odd number from {} to {}: an even number of reads can "
                                       "end in a draw",
                                       text, fewestReads, mostReads));
        }
        votes = static_cast<std::uint32_t>(reads);
    };
    elseByDefault({verb.read("--voted", read, "read N times (odd, 3 to 15) and take the majority of each byte", "N"),
                   verb.actingFlag(
                           "--no-voted", [&votes] { votes = 1; }, "read once")
                       .hidden()},
                  [&votes](const host::commandDefaults& defaults) { votes = defaults.voted; });
}

void addWait(command verb, std::uint64_t& waitNs)
{
    const auto read = [&waitNs](const std::string& text) { waitNs = parseDuration(text, "--wait"); };
    elseByDefault({verb.read("--wait", read,
                             "wait so long for others who have the device, in seconds, or with a unit: 500ms, 5min "
                             "(default 30, 0: not at all)",
                             "TIME")},
                  [&waitNs](const host::commandDefaults& defaults) { waitNs = defaults.waitNs; });
}

void addMilliseconds(command verb, const std::string& name, std::uint32_t& milliseconds, const std::string& help,
                     std::uint32_t most)
{
    const auto read = [&milliseconds, name, most](const std::string& text) {
        const std::uint64_t ns =
            parseDuration(text, name, {.plainNs = nsPerMs, .leastNs = nsPerMs, .mostNs = most * nsPerMs});
        milliseconds = static_cast<std::uint32_t>((ns + nsPerMs - 1) / nsPerMs);
    };
    verb.read(name, read, help, "TIME");
}

} // namespace kest::tools
