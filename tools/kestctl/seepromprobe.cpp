#include "tools/kestctl/seepromprobe.h"

#include <cerrno>
#include <fmt/core.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/host/configuration/configuration.h"
#include "tools/common/advice.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/diagnosis.h"
#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/proposal.h"
#include "tools/common/widthproof.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct probeOptions {
    std::string device;
    std::uint32_t speedKhz = 0;
    bool force = false;
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
};

/// A row of the device table for the part, ready for kest.toml.
struct proposedRow {
    device which; ///< with the type of the row
    std::string text;
    bool sizeKnown = true;
};

/// The type of the row: the one claimed, when the part can be one; else the smallest that it can be. The first bytes of
/// a larger part are reached by it, too.
std::optional<proposedRow> proposeRow(const device& which, const widthFinding& finding)
{
    const auto fitting = fittingTypes(finding);
    if (fitting.empty()) {
        return std::nullopt;
    }
    const deviceTypeInfo* const claimed = which.end().type;
    proposedRow row{.which = which, .text = {}, .sizeKnown = fitting.size() == 1};
    device& part = row.which;
    part.links.back().type = canBe(finding, *claimed) ? claimed : fitting.front();
    part.text = deviceText(part.bus, part.node, part.links);
    // number 0 of the table would be the messages' own in file and mixed mode
    if (!part.named && part.number == 0) {
        part.number = static_cast<std::uint32_t>(firstFreeNumber(host::currentConfiguration()));
    }
    row.text = fmt::format("[[device]]\nnumber = 0x{:08X}\n", part.number);
    if (part.position != 0) {
        row.text += fmt::format("position = {}\n", part.position);
    }
    row.text += fmt::format("location = \"{}\"", part.text);
    if (!row.sizeKnown) {
        row.text += fmt::format(" # size not proved; can be: {}", fittingText(finding));
    }
    row.text += "\n";
    // names begin with a letter, numbers do not
    if (part.named && part.label.find_first_of("0123456789") != 0) {
        row.text += fmt::format("name = \"{}\"\n", part.label);
    }
    return row;
}

jsonValue rowJson(const std::optional<proposedRow>& row)
{
    if (!row) {
        return nullptr;
    }
    return {{"number", row->which.number},         {"position", row->which.position}, {"location", row->which.text},
            {"type", row->which.end().type->code}, {"size_proved", row->sizeKnown},   {"toml", row->text}};
}

void refuseDriversDevice(const device& which, bool force)
{
    if (!force && openBus({which.bus, which.node})->heldByDriver(which.head().address)) {
        throw failure{.code = exitRefused,
                      .what = "a kernel driver has " + addressText(which.head().address),
                      .tryThis = "--force probes all the same",
                      .device = which.label,
                      .step = "probe"};
    }
}

/// A part that did not answer, or a bus in trouble, is a failure; content that shows nothing is not.
void throwTrouble(device which, const widthFinding& finding, std::uint32_t speedKhz)
{
    if (finding.error == 0) {
        return;
    }
    const busName bus{which.bus, which.node};
    errnoAdvice advice = adviceFor(finding.error, bus);
    failure why{
        .code = advice.code, .what = advice.what, .tryThis = advice.tryThis, .device = which.label, .step = "probe"};
    if (finding.error == ENXIO || finding.error == ETIME) {
        which.speedKhz = speedKhz != 0 ? speedKhz : libraryKhz;
        diagnoseSilence({.error = finding.error}, which, why);
        nameBus(why.tryThis, bus);
    }
    // what the bus shows says more than how the reads ended
    if (std::string_view(why.verdict).empty() && why.what != finding.seen) {
        why.what += ": " + finding.seen;
    }
    hintAtWrongForm(why, which);
    throw why;
}

void tellText(const device& which, const widthFinding& finding, const std::optional<proposedRow>& row)
{
    const deviceTypeInfo& claimed = *which.end().type;
    const char* claim = !isProved(finding) ? "not proved" : canBe(finding, claimed) ? "can be" : "is not";
    standardOutput().text(fmt::format("{}: {}\nnamed as {}: {}\n", escaped(which.label), escaped(widthText(finding)),
                                      aChip(claimed), claim));
    if (isProved(finding)) {
        standardOutput().text(fmt::format("types that fit: {}\n", fittingText(finding)));
    }
    if (row) {
        standardOutput().text("\n" + row->text);
    }
}

widthFinding proveHeld(const device& which, const probeOptions& options)
{
    widthFinding finding;
    whileHeld(which, {.use = operationUse::read, .doing = "seeprom probe", .waitNs = options.waitNs},
              [&] { finding = proveWidth(which, options.speedKhz); });
    return finding;
}

int runSeepromProbe(const context& shared, const probeOptions& options)
{
    const interruptWatch signals;
    const device which = findDevice(options.device);
    refuseUnservedChain(which);
    requireKind(which, {deviceKind::seeprom}, "seeprom probe");
    refuseDriversDevice(which, options.force);
    const widthFinding finding = proveHeld(which, options);
    throwTrouble(which, finding, options.speedKhz);
    const std::optional<proposedRow> row = proposeRow(which, finding);
    if (shared.json) {
        jsonValue result{{"device", which.label}, {"text", which.text}, {"claimed", which.end().type->code}};
        result.add({{"as_claimed", isProved(finding) ? jsonValue(canBe(finding, *which.end().type)) : jsonValue()},
                    {"width", widthJson(finding)},
                    {"entry", rowJson(row)}});
        standardOutput().json(result);
    } else {
        tellText(which, finding, row);
    }
    return isProved(finding) ? exitDone : exitFailed;
}

} // namespace

void addSeepromProbe(command area, context& shared)
{
    const auto options = std::make_shared<probeOptions>();
    command verb = addVerb(area, "probe", "find out what part is there, without changing it",
                           "The type of the device is only a claim: the probe finds out how many offset\n"
                           "bytes the part takes. Exit code 1 when that can't be known.");
    verb.text("DEVICE", options->device, "name, number or device text").required();
    addSpeed(verb, options->speedKhz, usualSpeed);
    addWait(verb, options->waitNs);
    verb.flag("--force", options->force, "also when a kernel driver has the device");
    runs(verb, shared, options, runSeepromProbe);
}

} // namespace kest::tools
