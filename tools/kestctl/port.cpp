#include "tools/kestctl/port.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <functional>

#include "kest/dataport.h"
#include "tools/common/attributes.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/portwords.h"

namespace kest::tools
{
namespace
{

constexpr std::uint32_t allBits = 0xFFFF;

struct portReadOptions {
    std::string device;
    std::uint32_t mask = allBits;
    std::uint32_t speedKhz = 0;
    bool force = false; ///< also where the device table has another type
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
};

struct portWriteOptions {
    std::string device;
    std::string operation; ///< on, off, blink0, blink1, low, high, copy
    std::string bits; ///< number; empty: `pins` is given
    std::string pins; ///< "0,3-5"
    std::string mask; ///< number, for copy; empty: all pins
    std::uint32_t speedKhz = 0;
    bool yes = false; ///< drive a hub's reset line without asking
    bool force = false; ///< also where a kernel driver has the device, or the device table another type
    std::uint64_t waitNs = usualWaitNs;
};

struct portConfigOptions {
    std::string device;
    std::string function; ///< input, output, prescaler0, duty0, prescaler1, duty1, polarity0, polarity1
    std::string value; ///< number; empty: `pins` is given
    std::string pins;
    std::uint32_t speedKhz = 0;
    bool force = false; ///< also where a kernel driver has the device, or the device table another type
    std::uint64_t waitNs = usualWaitNs;
};

template <typename Options>
device portDevice(const Options& options, const std::string& verb, bool sensors)
{
    device which = findDevice(options.device);
    which.speedKhz = options.speedKhz != 0 ? options.speedKhz : libraryKhz;
    refuseUnservedChain(which);
    if (!sensors || which.end().type->kind != deviceKind::sensor) {
        requireKind(which, {deviceKind::registers}, verb);
    }
    refuseOtherType(which, options.force);
    return which;
}

std::uint32_t allPins(const device& which) { return (1U << which.end().type->pins) - 1; }

/// The pins, given as a number or as a list. Exactly one of the two must be given.
std::uint32_t chosenPins(const std::string& bits, const std::string& pins, const device& which, const std::string& what)
{
    if (bits.empty() == pins.empty()) {
        throw wrongUse("give either " + what + " or --pins");
    }
    return pins.empty() ? static_cast<std::uint32_t>(parseNumber(bits, what, allPins(which)))
                        : parsePins(pins, which.end().type->pins);
}

std::string pinList(std::uint32_t pins)
{
    std::string text;
    for (unsigned pin = 0; pin < 32; ++pin) {
        if ((pins >> pin & 1U) != 0) {
            text += fmt::format("{}{}", text.empty() ? "" : ",", pin);
        }
    }
    return text.empty() ? "none" : text;
}

/// Pin 15 of the PCA9552 at C0 or C2 is the reset line of two hubs.
struct resetLine {
    std::uint8_t address;
    std::array<std::uint8_t, 2> hubs;
};
constexpr std::array resetLines{resetLine{0xC0, {0x80, 0x88}}, resetLine{0xC2, {0x82, 0x8A}}};
constexpr unsigned resetPin = 15;

void guardResetLine(const device& which, std::uint32_t pins, bool yes)
{
    const auto line = std::ranges::find(resetLines, which.end().address, &resetLine::address);
    const bool asks = !preferred().dryRun;
    if (asks && which.end().type->type == KEST_DEV_9552 && line != resetLines.end() && (pins >> resetPin & 1U) != 0) {
        confirm(fmt::format("Pin {} of {} is the reset line of the hubs at {} and {}.", resetPin, which.label,
                            addressText(line->hubs[0]), addressText(line->hubs[1])),
                yes);
    }
}

jsonValue head(const device& which)
{
    return {{"device", which.label}, {"text", which.text}, {"type", which.end().type->chip}};
}

/// Takes the device for a write: pins that are not chosen are read and written back.
void writeHeld(const device& which, const char* doing, std::uint64_t waitNs, const std::function<void()>& step)
{
    whileHeld(which, {.use = operationUse::write, .doing = doing, .waitNs = waitNs}, step, "; nothing was written",
              "; all is written");
}

std::uint32_t readPins(const device& which, const portReadOptions& options)
{
    const attributeRecord attributes = hardwareAttributes(options.speedKhz);
    std::uint32_t value = 0;
    whileHeld(which, {.use = operationUse::read, .doing = "port read", .waitNs = options.waitNs}, [&] {
        throwEntry(KEST_dpRead(which.text.c_str(), options.mask, &value, attributes.data(), 0), which, "port read");
    });
    return value;
}

void writePins(const device& which, const portOperation& operation, std::uint32_t bits, std::uint32_t mask,
               const portWriteOptions& options)
{
    const attributeRecord attributes = hardwareAttributes(options.speedKhz);
    writeHeld(which, "port write", options.waitNs, [&] {
        throwEntry(KEST_dpWrite(which.text.c_str(), operation.operation, bits, mask, attributes.data(), 0), which,
                   "port write");
    });
}

int runPortRead(const context& shared, const portReadOptions& options)
{
    const interruptWatch signals;
    const device which = portDevice(options, "port read", true);
    const std::uint32_t value = readPins(which, options);
    if (shared.json) {
        jsonValue result = head(which);
        result.add("mask", options.mask);
        result.add("value", value);
        standardOutput().json(result);
        return exitDone;
    }
    const unsigned digits = which.end().type->pins / 4;
    standardOutput().text(fmt::format("{}: 0x{:0{}X}\n", escaped(which.label), value, digits));
    if (which.end().type->kind == deviceKind::registers) {
        standardOutput().text(
            fmt::format("high: {}\nlow:  {}\n", pinList(value), pinList(~value & options.mask & allPins(which))));
    }
    return exitDone;
}

/// Changes only the chosen pins. Asks before it drives a hub's reset line.
int runPortWrite(const context& shared, const portWriteOptions& options)
{
    const interruptWatch signals;
    const device which = portDevice(options, "port write", false);
    const portOperation& operation = findOperation(options.operation, which);
    const bool copies = operation.operation == KEST_DP_COPY;
    const std::uint32_t bits = chosenPins(options.bits, options.pins, which, "BITS");
    if (!copies && !options.mask.empty()) {
        throw wrongUse("--mask goes with copy alone");
    }
    const std::uint32_t mask = options.mask.empty()
                                   ? allPins(which)
                                   : static_cast<std::uint32_t>(parseNumber(options.mask, "--mask", allPins(which)));
    refuseDoubtfulWrite(which, options.force);
    guardResetLine(which, copies ? mask : bits, options.yes);
    if (!preferred().dryRun) {
        writePins(which, operation, bits, mask, options);
    }
    const char* const would = preferred().dryRun ? "would set " : "";
    if (shared.json) {
        jsonValue result = head(which);
        addDryRunField(result);
        result.add("operation", operation.word);
        result.add("bits", bits);
        result.add("mask", copies ? mask : bits);
        standardOutput().json(result);
    } else if (copies) {
        standardOutput().text(fmt::format("{}: {}pins {} {}to 0x{:X}\n", escaped(which.label), would, pinList(mask),
                                          preferred().dryRun ? "" : "set ", bits & mask));
    } else {
        standardOutput().text(
            fmt::format("{}: {}pins {} {}\n", escaped(which.label), would, pinList(bits), operation.word));
    }
    return exitDone;
}

void configurePins(const device& which, const portFunction& function, std::uint32_t value,
                   const portConfigOptions& options)
{
    const attributeRecord attributes = hardwareAttributes(options.speedKhz);
    writeHeld(which, "port config", options.waitNs, [&] {
        throwEntry(KEST_dpConfig(which.text.c_str(), function.config, value, attributes.data()), which, "port config");
    });
}

int runPortConfig(const context& shared, const portConfigOptions& options)
{
    constexpr std::uint64_t highestByte = 0xFF;
    const interruptWatch signals;
    const device which = portDevice(options, "port config", false);
    const portFunction& function = findFunction(options.function, which);
    if (which.end().type->pins < function.pinsRequired) {
        throw wrongUse(fmt::format("function '{}': a {} has one port, and its function is polarity0", function.word,
                                   which.end().type->chip));
    }
    if (!function.perPin && !options.pins.empty()) {
        throw wrongUse(fmt::format("{} takes a VALUE, not --pins", function.word));
    }
    const std::uint32_t value = function.perPin
                                    ? chosenPins(options.value, options.pins, which, "VALUE")
                                    : static_cast<std::uint32_t>(parseNumber(options.value, "VALUE", highestByte));
    refuseDoubtfulWrite(which, options.force);
    if (!preferred().dryRun) {
        configurePins(which, function, value, options);
    }
    const char* const is = preferred().dryRun ? "would be" : function.perPin ? "are" : "is";
    if (shared.json) {
        jsonValue result = head(which);
        addDryRunField(result);
        result.add("function", function.word);
        result.add("value", value);
        standardOutput().json(result);
    } else {
        standardOutput().text(
            function.perPin
                ? fmt::format("{}: pins {} {} {}s\n", escaped(which.label), pinList(value), is, function.word)
                : fmt::format("{}: {} {} 0x{:02X}\n", escaped(which.label), function.word, is, value));
    }
    return exitDone;
}

void addRead(command area, context& shared)
{
    const auto reading = std::make_shared<portReadOptions>();
    command read = addVerb(area, "read", "read the levels of the pins");
    addDevice(read, reading->device);
    read.number("--mask", reading->mask, "the pins to read, as bits", 0, allBits);
    read.flag("--force", reading->force, forcedType);
    addSpeed(read, reading->speedKhz, usualSpeed);
    addWait(read, reading->waitNs);
    runs(read, shared, reading, runPortRead);
}

void addWrite(command area, context& shared)
{
    const auto writing = std::make_shared<portWriteOptions>();
    command write = addVerb(area, "write", "change outputs; pins that are not chosen stay as they are",
                            "Operations: low, high; for LED drivers also on (low), off (released), blink0,\n"
                            "blink1; copy sets the pins of --mask to the levels in BITS. On an I/O expander\n"
                            "this takes effect only on pins that are outputs. Pin 15 of a PCA9552 at C0 or C2\n"
                            "is the reset line of two hubs: a write to it asks first.\n"
                            "  kestctl port write panel-leds on --pins 0,3-5\n"
                            "  kestctl port write panel-leds copy 0x0A --mask 0x0F");
    addDevice(write, writing->device);
    write.text("OPERATION", writing->operation, "low, high, on, off, blink0, blink1 or copy", "").required();
    write.text("BITS", writing->bits, "pins as bits, pin 0 in bit 0; for copy their levels", "");
    write.text("--pins", writing->pins, "pins as a list instead: 0,3-5", "LIST");
    write.text("--mask", writing->mask, "for copy: the pins to change, as bits (default: all)", "N");
    write.flag("--yes", writing->yes, "drive a hub's reset line without asking");
    addDryRun(write);
    write.flag("--force", writing->force, forcedType + "; write even if a kernel driver has the device");
    addSpeed(write, writing->speedKhz, usualSpeed);
    addWait(write, writing->waitNs);
    runs(write, shared, writing, runPortWrite);
}

void addConfig(command area, context& shared)
{
    const auto configuring = std::make_shared<portConfigOptions>();
    command config = addVerb(area, "config", "set pin directions, blink rates or polarity",
                             "Functions: input, output (pins) and polarity0, polarity1 (a byte) of I/O\n"
                             "expanders; prescaler0, duty0, prescaler1, duty1 (a byte) of LED drivers.\n"
                             "  kestctl port config straps output --pins 4-7\n"
                             "  kestctl port config panel-leds prescaler0 43");
    addDevice(config, configuring->device);
    config.text("FUNCTION", configuring->function, "what to set", "").required();
    config.text("VALUE", configuring->value, "pins as bits, or the register's byte", "");
    config.text("--pins", configuring->pins, "pins as a list instead: 0,3-5", "LIST");
    addDryRun(config);
    config.flag("--force", configuring->force, forcedType + "; write even if a kernel driver has the device");
    addSpeed(config, configuring->speedKhz, usualSpeed);
    addWait(config, configuring->waitNs);
    runs(config, shared, configuring, runPortConfig);
}

} // namespace

void addPort(command program, context& shared)
{
    const command area = addArea(program, "port", "pins of LED drivers and I/O expanders (PCA9551, 9552, 9554, 9555)");
    addRead(area, shared);
    addWrite(area, shared);
    addConfig(area, shared);
}

} // namespace kest::tools
