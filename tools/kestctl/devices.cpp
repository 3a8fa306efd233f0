#include "tools/kestctl/devices.h"

#include <cstdio>
#include <fmt/core.h>
#include <optional>
#include <utility>

#include "base/hex.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/identity.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/wear.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

jsonList expectationJson(const host::deviceEntry& entry)
{
    jsonList rows;
    for (const host::expectedBytes& each : entry.expect) {
        rows.push_back({{"offset", each.offset}, {"bytes", hexDigits(each.bytes)}});
    }
    return rows;
}

/// Behind a row; nothing where no page has been written.
std::string wearNote(const std::optional<wearReport>& wear)
{
    return !wear || wear->counts.total() == 0 ? "" : "  " + countText(wear->counts.total(), "page write");
}

/// On standard error: too many page writes, or counts that can't be read.
void tellTrouble(const host::deviceEntry& entry, const wearReport& wear)
{
    for (const std::string& text : {wear.trouble, wearWarning(wear.counts)}) {
        if (!text.empty()) {
            const std::string name = entry.name.empty() ? fmt::format("0x{:X}", entry.number) : escaped(entry.name);
            std::fputs(fmt::format("kestctl: {}: {}\n", name, escaped(text)).c_str(), stderr);
        }
    }
}

int runDevices(const context& shared)
{
    const auto& table = host::currentConfiguration().devices;
    jsonList rows;
    int code = exitDone;
    for (const host::deviceEntry& entry : table) {
        std::string chip = "?";
        std::optional<wearReport> wear;
        try {
            const device which = parseDeviceText(entry.location);
            chip = which.end().type->chip;
            if (which.end().type->kind == deviceKind::seeprom) {
                wear = wearOf(which);
            }
            requireRoomFor(which, entry.expect);
            if (!entry.expectFormat.empty()) {
                static_cast<void>(requireFormatFor(which, entry.expectFormat));
            }
        } catch (const failure& why) {
            std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
            code = exitWrongUse;
        }
        jsonValue row({{"number", entry.number},
                       {"position", entry.position},
                       {"name", entry.name},
                       {"type", chip},
                       {"text", entry.location},
                       {"expect", expectationJson(entry)},
                       {"expect_format", entry.expectFormat.empty() ? jsonValue() : jsonValue(entry.expectFormat)}});
        if (wear) {
            addWearFields(row, *wear);
            tellTrouble(entry, *wear);
        }
        rows.push_back(std::move(row));
        if (!shared.json) {
            standardOutput().text(fmt::format("0x{:04X}{:<4} {:<18} {:<8} {}{}\n", entry.number,
                                              entry.position == 0 ? "" : fmt::format("/{}", entry.position),
                                              escaped(entry.name), chip, escaped(entry.location), wearNote(wear)));
        }
    }
    if (shared.json) {
        standardOutput().json({{"devices", rows}});
    }
    return code;
}

} // namespace

void addDevices(command program, context& shared)
{
    runs(addVerb(program, "devices", "list the device table: number, name, type, device text"), shared, runDevices);
}

} // namespace kest::tools
