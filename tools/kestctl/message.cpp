#include "tools/kestctl/message.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/host/registry/configuration.h"
#include "tools/client/client.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{
namespace
{

/// The exit code for a return code of the library, by its reason.
exitCode exitForReturnCode(std::uint32_t returnCode)
{
    switch (returnCode & 0xFFFF) {
    case 0x1306: // no persisted copy
    case 0x1311: // nothing answers, or no such bus
    case 0x131A: // nothing answers behind the hub
        return exitAbsent;
    case 0x1302: // chain not valid
    case 0x1315: // text not understood
    case 0x1318: // no such node
        return exitWrongUse;
    default:
        return exitFailed;
    }
}

exitCode exitCodeOf(const client::answer& answer)
{
    switch (answer.what) {
    case client::outcome::done:
        return exitDone;
    case client::outcome::refused:
        return answer.returnCode == client::codeForbidden ? exitRefused : exitFailed;
    case client::outcome::wrongUse:
        return exitWrongUse;
    case client::outcome::failed:
        return exitForReturnCode(answer.returnCode);
    default:
        return exitFailed;
    }
}

/// Throws for an answer that is none.
void throwAnswer(const client::answer& answer, const std::string& device, const std::string& step)
{
    if (answer)
        return;
    failure why{.code = exitCodeOf(answer), .what = answer.message, .device = device, .step = step};
    why.logId      = answer.logId;
    why.returnCode = answer.returnCode;
    if (answer.what == client::outcome::unreachable)
        why.tryThis = "start kestd, or name its socket by --socket";
    else if (answer.logId != 0)
        why.tryThis = fmt::format("'kestctl errors show 0x{:08X}' has the details", answer.logId);
    throw why;
}

client::Connection connect(const messageOptions& options)
{
    const auto seconds = parseSeconds(options.timeout, "timeout");
    return client::Connection(options.socket.empty() ? host::currentConfiguration().service.socket
                                                     : std::filesystem::path(options.socket),
                              std::chrono::milliseconds(seconds / 1000000));
}

/// Requests name no device number: copy 0 serves all of them, which surprises whoever expects the device's own.
void warnUnlessHardware()
{
    const auto& registry = host::currentConfiguration().registry;
    const auto  mode     = registry.find("tavo/ReadMode");
    if (mode != registry.end() && mode->second.rfind("HWareMode", 0) != 0)
        std::fputs(
            fmt::format("kestctl: the read mode is {}: messages are served from copy 0, whatever device they name\n",
                        escaped(mode->second))
                .c_str(),
            stderr);
}

std::uint64_t offsetOf(const messageOptions& options)
{
    return options.offset.empty() ? 0 : parseSize(options.offset, "offset", 0xFFFFFFFF);
}

byteRange rangeOf(const device& which, const messageOptions& options)
{
    if (!options.length.empty())
        return checkedRange(which, offsetOf(options), parseSize(options.length, "length", 0xFFFFFFFF));
    byteRange range = checkedRange(which, offsetOf(options), std::nullopt);
    range.length    = std::min(range.length, client::maximumDataBytes);
    return range;
}

device seepromNamed(const std::string& name) { return seeprom(findDevice(name), accessOptions{}).target(); }

} // namespace

int runMessageRead(const context& shared, const messageOptions& options)
{
    const device    which = seepromNamed(options.device);
    const byteRange range = rangeOf(which, options);
    warnUnlessHardware();
    client::Connection service = connect(options);
    client::answer     answer  = service.readSeeprom(which.text, range.offset, range.length);
    throwAnswer(answer, which.label, "read by message");
    if (answer.data.size() < range.length)
        std::fputs(fmt::format("kestctl: {}: {} of {} bytes came: the copy ends there\n", escaped(which.label),
                               answer.data.size(), range.length)
                       .c_str(),
                   stderr);
    // mixed mode without a copy answers the whole device
    answer.data.resize(std::min<std::size_t>(answer.data.size(), range.length));
    if (!options.output.empty())
        writeOutput(options.output, answer.data, options.force);
    if (shared.json && options.output != "-") {
        nlohmann::ordered_json result{{"device", which.label},
                                      {"text", which.text},
                                      {"offset", range.offset},
                                      {"length", answer.data.size()},
                                      {"flags", answer.flags}};
        if (options.output.empty())
            result["data"] = hexDigits(answer.data);
        else
            result["output"] = options.output;
        standardOutput().json(result);
    } else if (options.output.empty()) {
        standardOutput().text(hexLines(range.offset, answer.data));
    }
    return exitDone;
}

int runMessageWrite(const context& shared, const messageOptions& options)
{
    const device which = seepromNamed(options.device);
    if (options.input.empty() == options.hex.empty())
        throw wrongUse("give what to write: a file by --input, or bytes by --hex");
    const byteVector bytes =
        options.input.empty() ? parseHex(options.hex, "--hex") : readInput(options.input, client::maximumDataBytes);
    const byteRange range = checkedRange(which, offsetOf(options), bytes.size());
    warnUnlessHardware();
    confirm(fmt::format("{}: write {} bytes at offset {} by message?", which.label, range.length, range.offset),
            options.yes);
    client::Connection   service = connect(options);
    const client::answer answer  = service.writeSeeprom(which.text, range.offset, bytes);
    throwAnswer(answer, which.label, "write by message");
    if (shared.json)
        standardOutput().json({{"device", which.label},
                               {"text", which.text},
                               {"offset", range.offset},
                               {"length", range.length},
                               {"flags", answer.flags}});
    else
        standardOutput().text(
            fmt::format("{}: wrote {} bytes by message; not verified\n", escaped(which.label), range.length));
    return exitDone;
}

int runMessageLocation(const context& shared, const messageOptions& options)
{
    const auto           number  = static_cast<std::uint32_t>(parseNumber(options.device, "device number", 0xFFFFFFFF));
    client::Connection   service = connect(options);
    const client::answer answer  = service.location(number, options.position);
    throwAnswer(answer, options.device, "look up by message");
    const std::string text(answer.data.begin(), answer.data.end());
    if (shared.json)
        standardOutput().json({{"number", number}, {"position", options.position}, {"text", text}});
    else
        standardOutput().text(escaped(text) + "\n");
    return exitDone;
}

} // namespace kest::tools
