#include "tools/kestctl/seepromcompare.h"

#include <algorithm>
#include <fmt/core.h>
#include <optional>
#include <vector>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/fieldchanges.h"
#include "tools/common/files.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/bytedifferences.h"
#include "tools/kestctl/deviceorfile.h"
#include "tools/kestctl/seepromchoice.h"

namespace kest::tools
{
namespace
{

struct compareOptions {
    seepromOptions with;
    std::string other; ///< file or "-"; for diff also a device
};

comparison compare(seeprom& chip, const compareOptions& options, bool devicesToo)
{
    comparison both;
    if (devicesToo && namesDevice(options.other)) {
        seeprom second = openSeeprom(options.other, options.with);
        both.range = rangeOf(chip, options.with);
        both.range.length = std::min(both.range.length, second.range(both.range.offset, std::nullopt).length);
        const deviceOperation held = holdForReading(chip, &second, options.with, "seeprom diff");
        both.other = second.read(both.range, "read");
        both.present = chip.read(both.range, "read");
        throwIfInterrupted(chip.target().label, "read");
        return both;
    }
    if (devicesToo) {
        requireFile(options.other, "diff");
    }
    both.other = inputBytes(options.other, chip, options.with);
    both.range = chip.range(offsetOf(options.with), both.other.size());
    const deviceOperation held =
        holdForReading(chip, nullptr, options.with, devicesToo ? "seeprom diff" : "seeprom verify");
    both.present = chip.read(both.range, "read");
    throwIfInterrupted(chip.target().label, "read");
    return both;
}

/// What the bytes mean that differ, when they begin where contents do. Of "now" is what the device is compared with.
std::optional<fieldChanges> changesOf(const comparison& both)
{
    return both.range.offset == 0 ? fieldChangesOf(both.present, both.other) : std::nullopt;
}

int tellComparison(const context& shared, const seeprom& chip, const comparison& both,
                   const std::vector<std::uint32_t>& offsets)
{
    if (shared.json) {
        auto result = rangeJson(chip, both.range);
        jsonList rows;
        for (const std::uint32_t at : offsets) {
            rows.push_back(
                {{"offset", both.range.offset + at}, {"device", both.present[at]}, {"other", both.other[at]}});
        }
        result.add({{"equal", offsets.empty()},
                    {"differing", offsets.size()},
                    {"differences", rows},
                    {"fields", fieldChangesJson(changesOf(both))},
                    {"wavered", jsonNumbers(chip.wavered())},
                    {"outvoted", chip.outvoted()}});
        standardOutput().json(result);
    }
    return offsets.empty() ? exitDone : exitVerifyFailed;
}

int runSeepromVerify(const context& shared, const compareOptions& options)
{
    seeprom chip = openSeeprom(options.with.device, options.with);
    const comparison both = compare(chip, options, false);
    const auto offsets = differences(both);
    if (!shared.json) {
        const std::string name = escaped(chip.target().label);
        if (offsets.empty()) {
            standardOutput().text(fmt::format("{}: equal, {}\n", name, countText(both.range.length, "byte")));
        } else {
            standardOutput().text(fmt::format("{}: {} of {} bytes differ, the first at offset {} (0x{:X})\n", name,
                                              offsets.size(), both.range.length, both.range.offset + offsets.front(),
                                              both.range.offset + offsets.front()) +
                                  fieldLines(changesOf(both), "  "));
        }
    }
    return tellComparison(shared, chip, both, offsets);
}

/// Shows the lines that differ, then the fields.
int runSeepromDiff(const context& shared, const compareOptions& options)
{
    seeprom chip = openSeeprom(options.with.device, options.with);
    const comparison both = compare(chip, options, true);
    const auto offsets = differences(both);
    if (!shared.json) {
        standardOutput().text(diffLines(both, offsets) + fieldLines(changesOf(both)));
    }
    return tellComparison(shared, chip, both, offsets);
}

void addCompare(command area, context& shared, const char* name, const char* help, const char* otherHelp,
                int (*run)(const context&, const compareOptions&))
{
    const auto options = std::make_shared<compareOptions>();
    command verb = addVerb(area, name, help, typeCaution);
    verb.text("DEVICE", options->with.device, "name, number or device text").required();
    verb.text("OTHER", options->other, otherHelp).required();
    addForce(verb, options->with);
    addChoice(verb, options->with);
    runs(verb, shared, options, run);
}

} // namespace

void addSeepromCompare(command area, context& shared)
{
    addCompare(area, shared, "verify", "compare with a file; exit code 5 if they differ", "file, - for standard input",
               runSeepromVerify);
    addCompare(area, shared, "diff", "show differences from a file or another device; exit code 5 if there are any",
               "file, - for standard input, or a device", runSeepromDiff);
}

} // namespace kest::tools
