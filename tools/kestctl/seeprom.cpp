#include "tools/kestctl/seeprom.h"

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include "base/hex.h"
#include "tools/common/dumpfile.h"
#include "tools/common/failure.h"
#include "tools/common/fieldchanges.h"
#include "tools/common/files.h"
#include "tools/common/heldread.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/seepromchoice.h"
#include "tools/kestctl/seepromcompare.h"
#include "tools/kestctl/seepromdumpall.h"
#include "tools/kestctl/seepromprobe.h"
#include "tools/kestctl/seepromset.h"
#include "tools/kestctl/seepromshow.h"
#include "tools/kestctl/seepromundo.h"
#include "tools/kestctl/seepromwrite.h"

namespace kest::tools
{
namespace
{

struct readOptions {
    seepromOptions from;
    std::string output; ///< file or "-"; empty: lines for people
};

struct dumpOptions {
    seepromOptions from;
    std::string output; ///< empty: standard output
    std::string folder; ///< every SEEPROM goes there; empty: one device
};

/// What others are told while bytes are read.
operationRequest reading(const seepromOptions& options, const char* doing)
{
    return {.use = operationUse::read, .doing = doing, .waitNs = options.waitNs};
}

int runSeepromRead(const context& shared, const readOptions& options)
{
    seeprom chip = openSeeprom(options.from.device, options.from);
    const byteRange range = rangeOf(chip, options.from);
    const byteVector bytes = readHeld(chip, range, "read", reading(options.from, "seeprom read"));
    if (!options.output.empty()) {
        writeOutput(options.output, bytes, options.from.force);
    }
    if (shared.json && (options.output != "-" || preferred().dryRun)) {
        auto result = rangeJson(chip, range);
        addDryRunField(result);
        if (options.output.empty()) {
            result.add("data", hexDigits(bytes));
        } else {
            result.add("output", options.output);
        }
        result.add("wavered", jsonNumbers(chip.wavered()));
        result.add("outvoted", chip.outvoted());
        standardOutput().json(result);
    } else if (options.output.empty()) {
        standardOutput().text(hexLines(range.offset, bytes));
    } else {
        tellOutput(options.output, bytes.size());
    }
    return exitDone;
}

/// The dump that a file holds. Nothing when there is none in it.
std::optional<dumpContents> dumpIn(const std::string& file)
{
    std::error_code none;
    if (file == "-" || !std::filesystem::is_regular_file(file, none)) {
        return std::nullopt;
    }
    try {
        const byteVector text = readInput(file, mostInputBytes);
        return parseDump(file, std::string(text.begin(), text.end()));
    } catch (const failure&) {
        return std::nullopt;
    }
}

/// What has changed in fields since the dump that is replaced, when it is one of the same device.
std::optional<fieldChanges> changesSince(const std::optional<dumpContents>& old, const seeprom& chip,
                                         const byteRange& range, const byteVector& bytes)
{
    const bool isSame = old && old->text == chip.target().text && old->offset == 0 && range.offset == 0;
    return isSame ? fieldChangesOf(old->bytes, bytes) : std::nullopt;
}

/// Writes a dump file that `restore` takes.
int runOneDump(const context& shared, const dumpOptions& options)
{
    seeprom chip = openSeeprom(options.from.device, options.from);
    const byteRange range = rangeOf(chip, options.from);
    const byteVector bytes = readHeld(chip, range, "dump", reading(options.from, "seeprom dump"));
    const std::string text = dumpText(dumpOf(chip, range.offset, bytes));
    const std::optional<fieldChanges> changes = changesSince(dumpIn(options.output), chip, range, bytes);
    writeOutput(options.output, std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()), true);
    // the dump itself is JSON, too
    if (shared.json && (options.output != "-" || preferred().dryRun)) {
        auto result = rangeJson(chip, range);
        addDryRunField(result);
        result.add("output", options.output);
        result.add("wavered", jsonNumbers(chip.wavered()));
        result.add("outvoted", chip.outvoted());
        result.add("fields", fieldChangesJson(changes));
        standardOutput().json(result);
    } else {
        tellOutput(options.output, text.size());
        standardOutput().text(options.output != "-" ? fieldLines(changes) : "");
    }
    return exitDone;
}

int runSeepromDump(const context& shared, const dumpOptions& options)
{
    if (options.folder.empty() == options.from.device.empty()) {
        throw wrongUse("dump takes a DEVICE or --all DIRECTORY", "see 'kestctl seeprom dump --help'");
    }
    if (options.folder.empty()) {
        dumpOptions one = options;
        one.output = options.output.empty() ? "-" : options.output;
        return runOneDump(shared, one);
    }
    if (!options.output.empty() || !options.from.offset.empty() || !options.from.length.empty()) {
        throw wrongUse("--all takes whole devices, each into a file of its own",
                       "leave --output, --offset and --length out");
    }
    return dumpAll(shared, options.from, options.folder);
}

void addRead(command area, context& shared)
{
    const auto options = std::make_shared<readOptions>();
    command verb = addVerb(area, "read", "read bytes, and show them or save them in a file", typeCaution);
    verb.text("DEVICE", options->from.device, "name, number or device text").required();
    verb.text("-o,--output", options->output, "save the raw bytes in FILE, - for standard output", "FILE");
    addDryRun(verb);
    addForce(verb, options->from, "write raw bytes even to a terminal");
    addChoice(verb, options->from);
    runs(verb, shared, options, runSeepromRead);
}

void addDump(command area, context& shared)
{
    const auto options = std::make_shared<dumpOptions>();
    command verb = addVerb(area, "dump", "save bytes with their device in a dump file, as JSON text", typeCaution);
    verb.text("DEVICE", options->from.device, "name, number or device text");
    verb.text("--all", options->folder, "instead: every SEEPROM of the device table, in files there", "DIRECTORY");
    verb.text("-o,--output", options->output, "dump file, - for standard output (default)", "FILE");
    addDryRun(verb);
    addForce(verb, options->from);
    addChoice(verb, options->from);
    runs(verb, shared, options, runSeepromDump);
}

} // namespace

void addSeeprom(command program, context& shared)
{
    const command area = addArea(program, "seeprom", "read, write and compare serial EEPROMs");
    addRead(area, shared);
    addSeepromShow(area, shared);
    addSeepromWrite(area, shared);
    addSeepromCompare(area, shared);
    addDump(area, shared);
    addSeepromRestore(area, shared);
    addSeepromProbe(area, shared);
    addSeepromUndo(area, shared);
    addSeepromSet(area, shared);
    addSeepromMake(area, shared);
}

} // namespace kest::tools
