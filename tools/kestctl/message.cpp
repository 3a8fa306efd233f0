#include "tools/kestctl/message.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>

#include "base/clock.h"
#include "base/hex.h"
#include "platform/host/configuration/configuration.h"
#include "tools/client/client.h"
#include "tools/common/bus.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/identity.h"
#include "tools/common/interrupt.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/common/seeprom.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/messagefailure.h"
#include "tools/kestctl/messageguard.h"
#include "tools/kestctl/messagewrite.h"

namespace kest::tools
{
namespace
{

constexpr std::uint64_t usualTimeoutNs = 60 * nsPerSecond;
// for a user who wants no end
constexpr std::uint64_t longestTimeoutNs = 86'400 * nsPerSecond;

struct messageOptions {
    std::string device;
    std::string offset; ///< empty: 0
    std::string length; ///< empty: up to the end, at most what one message moves
    std::string socket; ///< empty: that of the configuration
    std::uint64_t timeoutNs = usualTimeoutNs; ///< longest wait for a reply
    std::string output; ///< of a read: file or "-"; empty: lines for people
    std::string input; ///< of a write: file or "-"; empty: `hex` is given
    std::string hex;
    /// Another type than the device table has; read: raw bytes to a terminal, bytes through a hub; write: although a
    /// driver has the device.
    bool force = false;
    bool yes = false;
    std::uint32_t position = 0; ///< of a location
};

constexpr const char* readStep = "read by message";

client::serviceConnection connect(const messageOptions& options)
{
    client::serviceConnection service(options.socket.empty() ? host::currentConfiguration().service.socket
                                                             : std::filesystem::path(options.socket),
                                      std::chrono::milliseconds(options.timeoutNs / nsPerMs));
    service.stopAt(interruptDescriptor());
    return service;
}

/// Requests name no device number: copy 0 serves all of them, which surprises anyone who expects the device's own.
void warnUnlessHardware()
{
    const auto& registry = host::currentConfiguration().registry;
    const auto mode = registry.find("tavo/ReadMode");
    if (mode != registry.end() && mode->second.rfind("HWareMode", 0) != 0) {
        // a warning, also with -q: the bytes are those of another place than the one that was named
        std::fputs(
            fmt::format("kestctl: the read mode is {}: messages are served from copy 0, whatever device they name\n",
                        escaped(mode->second))
                .c_str(),
            stderr);
    }
}

std::uint64_t offsetOf(const messageOptions& options)
{
    return options.offset.empty() ? 0 : parseSize(options.offset, "offset", 0xFFFFFFFF);
}

byteRange rangeOf(const seeprom& chip, const messageOptions& options)
{
    if (!options.length.empty()) {
        return chip.range(offsetOf(options), parseSize(options.length, "length", 0xFFFFFFFF));
    }
    byteRange range = chip.range(offsetOf(options), std::nullopt);
    range.length = std::min(range.length, client::maximumDataBytes);
    return range;
}

/// The device, as one whose hardware is served.
seeprom seepromNamed(const messageOptions& options)
{
    return {findDevice(options.device), accessOptions{.force = options.force}};
}

/// Refuses a device behind a hub unless forced, since the bytes may never have been read (exit code 3).
int runMessageRead(const context& shared, const messageOptions& options)
{
    const seeprom chip = seepromNamed(options);
    const device& which = chip.target();
    const byteRange range = rangeOf(chip, options);
    guardHubRead(which, options.force, readStep);
    warnUnlessHardware();
    const interruptWatch signals;
    client::serviceConnection service = connect(options);
    client::answer answer = service.readSeeprom(which.text, range.offset, range.length);
    requireServed(answer, which, readStep);
    requireWhole(answer, which, range, readStep);
    // in mixed mode without a copy the whole device is returned
    answer.data.resize(range.length);
    if (!options.output.empty()) {
        writeOutput(options.output, answer.data, options.force);
    }
    if (shared.json && (options.output != "-" || preferred().dryRun)) {
        jsonValue result{{"device", which.label},
                         {"text", which.text},
                         {"offset", range.offset},
                         {"length", answer.data.size()},
                         {"flags", answer.flags}};
        addDryRunField(result);
        if (options.output.empty()) {
            result.add("data", hexDigits(answer.data));
        } else {
            result.add("output", options.output);
        }
        standardOutput().json(result);
    } else if (options.output.empty()) {
        standardOutput().text(hexLines(range.offset, answer.data));
    } else {
        tellOutput(options.output, answer.data.size());
    }
    return exitDone;
}

/// Refuses what would make another part of the device, or asks.
void guardWrite(const messageOptions& options, const device& which, const byteRange& range, const byteVector& bytes)
{
    if (options.force) {
        return;
    }
    if (isExpected(which)) {
        client::serviceConnection service = connect(options);
        guardIdentity(service, which);
    }
    guardContents(which, range, bytes);
}

/// Asks before it writes. The service has no undo file and does not read back.
int runMessageWrite(const context& shared, const messageOptions& options)
{
    const seeprom chip = seepromNamed(options);
    const device& which = chip.target();
    if (options.input.empty() == options.hex.empty()) {
        throw wrongUse("give what to write: a file with --input, or bytes with --hex");
    }
    const byteVector bytes =
        options.input.empty() ? parseHex(options.hex, "--hex") : readInput(options.input, client::maximumDataBytes);
    const byteRange range = chip.range(offsetOf(options), bytes.size());
    const interruptWatch signals;
    warnUnlessHardware();
    refuseDoubtfulWrite(which, options.force);
    guardWrite(options, which, range, bytes);
    if (preferred().dryRun) {
        reportWould(shared,
                    {{"device", which.label}, {"text", which.text}, {"offset", range.offset}, {"length", range.length}},
                    fmt::format("{}: would write {} at offset {} by message", escaped(which.label),
                                countText(range.length, "byte"), range.offset));
        return exitDone;
    }
    confirm(fmt::format("{}: write {} at offset {} by message?", which.label, countText(range.length, "byte"),
                        range.offset),
            options.yes);
    client::serviceConnection service = connect(options);
    writeByMessage(service, which, range.offset, bytes);
    if (shared.json) {
        standardOutput().json({{"device", which.label},
                               {"text", which.text},
                               {"offset", range.offset},
                               {"length", range.length},
                               {"flags", client::flagServed | client::flagWritten}});
    } else {
        standardOutput().text(fmt::format("{}: wrote {} by message; not verified\n", escaped(which.label),
                                          countText(range.length, "byte")));
    }
    return exitDone;
}

/// Shows the device text of a device number.
int runMessageLocation(const context& shared, const messageOptions& options)
{
    const auto number = static_cast<std::uint32_t>(parseNumber(options.device, "device number", 0xFFFFFFFF));
    client::serviceConnection service = connect(options);
    const client::answer answer = service.location(number, options.position);
    device asked;
    asked.label = options.device;
    requireServed(answer, asked, "look up by message");
    const std::string text(answer.data.begin(), answer.data.end());
    if (shared.json) {
        standardOutput().json({{"number", number}, {"position", options.position}, {"text", text}});
    } else {
        standardOutput().text(escaped(text) + "\n");
    }
    return exitDone;
}

command addMessageVerb(command area, context& shared, const char* name, const char* help,
                       const std::shared_ptr<messageOptions>& options,
                       int (*run)(const context&, const messageOptions&))
{
    command verb = addVerb(area, name, help);
    verb.text("--socket", options->socket, "the service's socket (default: from the configuration)", "PATH");
    verb.whenGiven([&shared, options, run] {
        shared.timesItself = true;
        shared.action = [&shared, options, run] {
            // it bounds the wait for each reply: what the service has begun goes on all the same
            const std::uint64_t wantedNs = shared.timeoutNs.value_or(usualTimeoutNs);
            options->timeoutNs = wantedNs != 0 ? wantedNs : longestTimeoutNs;
            return run(shared, *options);
        };
    });
    return verb;
}

void addRead(command area, context& shared)
{
    const auto options = std::make_shared<messageOptions>();
    command verb = addMessageVerb(area, shared, "read", "read a SEEPROM by message", options, runMessageRead);
    verb.text("DEVICE", options->device, "name, number or device text").required();
    verb.text("--offset", options->offset, "first byte, counted from 0 (default 0)", "N");
    verb.text("--length", options->length, "how many bytes (default: up to the end, at most 65536)", "N");
    verb.text("-o,--output", options->output, "save the raw bytes in FILE, - for standard output", "FILE");
    addDryRun(verb);
    verb.flag("--force", options->force, forcedType + "; write raw bytes even to a terminal; read even through a hub");
}

void addWrite(command area, context& shared)
{
    const auto options = std::make_shared<messageOptions>();
    command verb = addMessageVerb(area, shared, "write", "write a SEEPROM by message", options, runMessageWrite);
    verb.text("DEVICE", options->device, "name, number or device text").required();
    verb.text("-i,--input", options->input, "bytes to write from FILE, - for standard input", "FILE");
    verb.text("--hex", options->hex, "bytes to write as hexadecimal digits", "DIGITS");
    verb.text("--offset", options->offset, "first byte, counted from 0 (default 0)", "N");
    verb.flag("-y,--yes", options->yes, "do not ask; required without a terminal");
    addDryRun(verb);
    verb.flag("--force", options->force, forcedType + "; write even if a kernel driver has the device");
}

void addLocation(command area, context& shared)
{
    const auto options = std::make_shared<messageOptions>();
    command verb = addMessageVerb(area, shared, "location", "show the device text of a device number", options,
                                  runMessageLocation);
    verb.text("NUMBER", options->device, "device number").required();
    verb.number("--position", options->position, "which of the number's places (default 0)");
}

} // namespace

void addMessage(command program, context& shared)
{
    const command area = addArea(program, "message", "requests through the message service, kestd");
    addRead(area, shared);
    addWrite(area, shared);
    addLocation(area, shared);
}

} // namespace kest::tools
