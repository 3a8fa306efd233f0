#include "tools/kestctl/seepromchoice.h"

#include <algorithm>
#include <fmt/core.h>
#include <limits>

#include "tools/common/device.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/number.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

constexpr std::uint64_t most32Bits = std::numeric_limits<std::uint32_t>::max();

} // namespace

void addChoice(command verb, seepromOptions& options)
{
    verb.text("--offset", options.offset, "first byte, counted from 0 (default 0)", "N");
    verb.text("--length", options.length, "how many bytes (default: all)", "N");
    addAccess(verb, options, "hardware");
}

void addAccess(command verb, seepromOptions& options, const std::string& usualMode)
{
    verb.text("--mode", options.mode,
              "hardware, file (the persisted copy), mixed (the copy if there is one) or registry (what the "
              "registry says); default: " +
                  usualMode,
              "MODE");
    addSpeed(verb, options.speedKhz, usualSpeed);
    addVotes(verb, options.votes);
    addWait(verb, options.waitNs);
}

void addForce(command verb, seepromOptions& options, const std::string& more)
{
    verb.flag("--force", options.force, forcedType + (more.empty() ? "" : "; " + more));
}

accessOptions accessOf(const seepromOptions& options, accessMode mode)
{
    return {.mode = options.mode.empty() ? mode : parseMode(options.mode),
            .speedKhz = options.speedKhz,
            .writeCycleMs = options.writeCycleMs,
            .votes = std::max(options.votes, 1U),
            .force = options.force};
}

seeprom openSeeprom(const std::string& name, const seepromOptions& options)
{
    return {findDevice(name), accessOf(options, accessMode::hardware)};
}

deviceOperation holdForReading(const seeprom& chip, const seeprom* other, const seepromOptions& options,
                               const std::string& doing)
{
    std::vector<device> used;
    for (const seeprom* each : {&chip, other}) {
        if (each != nullptr && each->touchesHardware()) {
            used.push_back(each->target());
        }
    }
    return {used, {.use = operationUse::read, .doing = doing, .waitNs = options.waitNs}};
}

std::uint64_t offsetOf(const seepromOptions& options)
{
    return options.offset.empty() ? 0 : parseSize(options.offset, "offset", most32Bits);
}

std::optional<std::uint64_t> lengthOf(const seepromOptions& options)
{
    return options.length.empty() ? std::nullopt : std::optional(parseSize(options.length, "length", most32Bits));
}

byteRange rangeOf(const seeprom& chip, const seepromOptions& options)
{
    return chip.range(offsetOf(options), lengthOf(options));
}

jsonValue rangeJson(const seeprom& chip, const byteRange& range)
{
    return {{"device", chip.target().label},
            {"text", chip.target().text},
            {"offset", range.offset},
            {"length", range.length}};
}

byteVector inputBytes(const std::string& file, const seeprom& chip, const seepromOptions& options)
{
    const std::uint64_t offset = offsetOf(options);
    const byteRange room = chip.range(offset, lengthOf(options));
    byteVector bytes = readInput(file, lengthOf(options) ? mostInputBytes : room.length);
    if (const auto length = lengthOf(options)) {
        if (bytes.size() < *length) {
            throw wrongUse(fmt::format("{} holds {} bytes, fewer than the length {}", file, bytes.size(), *length));
        }
        // fits: no more than were read
        bytes.resize(static_cast<std::size_t>(*length));
    }
    if (bytes.empty()) {
        throw wrongUse(fmt::format("{} is empty", file));
    }
    return bytes;
}

} // namespace kest::tools
