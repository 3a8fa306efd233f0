#include "tools/kestctl/copyverify.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>
#include <optional>
#include <vector>

#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/fieldchanges.h"
#include "tools/common/heldread.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/seeprom.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/copychoice.h"

namespace kest::tools
{
namespace
{

struct verifyOptions {
    std::string which; ///< name or number of the device table
    std::uint32_t speedKhz = 0;
    std::uint32_t votes = 1;
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
};

/// What a comparison found. Bytes that only one of the two has differ.
struct copyComparison {
    std::size_t deviceBytes = 0;
    std::vector<byteRange> ranges;
    std::uint64_t differing = 0; ///< bytes of all ranges
    std::optional<fieldChanges> fields; ///< "old" is the copy's, "new" the device's
};

/// The ranges in which two byte strings differ.
std::vector<byteRange> differingRanges(const byteVector& one, const byteVector& other)
{
    std::vector<byteRange> ranges;
    const std::size_t both = std::min(one.size(), other.size());
    const std::size_t longer = std::max(one.size(), other.size());
    for (std::size_t at = 0; at < longer; ++at) {
        if (at < both && one[at] == other[at]) {
            continue;
        }
        const auto offset = static_cast<std::uint32_t>(at);
        if (ranges.empty() || ranges.back().offset + ranges.back().length != offset) {
            ranges.push_back({offset, 0});
        }
        ++ranges.back().length;
    }
    return ranges;
}

copyComparison compareWithDevice(const host::copyInfo& copy, seeprom& chip, std::uint64_t waitNs)
{
    byteVector held;
    throwCopy(host::readCopy(copy.number, held), copy.number, "verify");
    const byteVector present = readHeld(chip, chip.range(0, std::nullopt), "verify",
                                        {.use = operationUse::read, .doing = "copy verify", .waitNs = waitNs});
    copyComparison found{.deviceBytes = present.size(),
                         .ranges = differingRanges(present, held),
                         .fields = fieldChangesOf(held, present)};
    for (const byteRange& range : found.ranges) {
        found.differing += range.length;
    }
    return found;
}

/// "captured 2024-05-01T12:00:00.250Z"; or what else is to be known of the bytes before they are trusted.
std::string trustText(const host::copyInfo& copy)
{
    std::string text = copy.state == host::copyState::unproved ? "unproved (raw, without check sums)" : "proved";
    if (copy.facts.capturedMs) {
        text += ", captured " + timeText(*copy.facts.capturedMs);
    }
    return text;
}

void tellAlikeOrNot(const host::copyInfo& copy, const copyComparison& found)
{
    const std::string label = escaped(copyLabel(copy.number));
    if (found.ranges.empty()) {
        standardOutput().text(fmt::format("{}: equals the device, {}; {}\n", label,
                                          countText(found.deviceBytes, "byte"), trustText(copy)));
        return;
    }
    std::string text = fmt::format("{}: {} in {}; {}\n", label, countText(found.differing, "differing byte"),
                                   countText(found.ranges.size(), "range"), trustText(copy));
    if (copy.sizeBytes != found.deviceBytes) {
        text +=
            fmt::format("  the copy holds {}, the device {}\n", countText(copy.sizeBytes, "byte"), found.deviceBytes);
    }
    for (const byteRange& range : found.ranges) {
        text += fmt::format("  offset {} (0x{:X}): {}\n", range.offset, range.offset, countText(range.length, "byte"));
    }
    standardOutput().text(text + fieldLines(found.fields, "  "));
}

jsonValue rangesJson(const std::vector<byteRange>& ranges)
{
    jsonList rows;
    for (const byteRange& range : ranges) {
        rows.push_back({{"offset", range.offset}, {"length", range.length}});
    }
    return rows;
}

[[noreturn]] void throwDamage(const host::copyInfo& copy)
{
    throw failure{.what = "the copy is damaged: " + damageText(copy),
                  .tryThis = "'kestctl copy capture' or 'import' makes it anew",
                  .device = copyLabel(copy.number),
                  .step = "verify"};
}

/// Compares a copy with the device's hardware, with bytes that are certain.
int runCopyVerify(const context& shared, const verifyOptions& options)
{
    const std::uint32_t number = copyNumber(options.which);
    host::copyInfo copy;
    throwCopy(host::checkCopy(number, copy), number, "verify");
    if (copy.state == host::copyState::damaged) {
        // not worth a transfer
        if (!shared.json) {
            throwDamage(copy);
        }
        standardOutput().json(copyJson(copy));
        return exitFailed;
    }
    seeprom chip(findDevice(options.which), {.speedKhz = options.speedKhz, .votes = std::max(options.votes, 1U)});
    const copyComparison found = compareWithDevice(copy, chip, options.waitNs);
    if (shared.json) {
        jsonValue result = copyJson(copy);
        result.add({{"device", chip.target().text},
                    {"device_holds", found.deviceBytes},
                    {"equal", found.ranges.empty()},
                    {"differing", found.differing},
                    {"ranges", rangesJson(found.ranges)},
                    {"fields", fieldChangesJson(found.fields)},
                    {"wavered", jsonNumbers(chip.wavered())},
                    {"outvoted", chip.outvoted()}});
        standardOutput().json(result);
    } else {
        tellAlikeOrNot(copy, found);
    }
    return found.ranges.empty() ? exitDone : exitVerifyFailed;
}

} // namespace

void addCopyVerify(command area, context& shared)
{
    const auto options = std::make_shared<verifyOptions>();
    command verb = addVerb(area, "verify", "compare a copy with the device's hardware; exit code 5 if they differ");
    verb.text("COPY", options->which, "name or number of the device table").required();
    addSpeed(verb, options->speedKhz, usualSpeed);
    addVotes(verb, options->votes);
    addWait(verb, options->waitNs);
    runs(verb, shared, options, runCopyVerify);
}

} // namespace kest::tools
