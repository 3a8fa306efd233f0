#include "tools/kestctl/seepromwrite.h"

#include <cstdio>
#include <fmt/core.h>
#include <span>

#include "tools/common/carefulwrite.h"
#include "tools/common/device.h"
#include "tools/common/dumpfile.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/common/wear.h"
#include "tools/common/widthproof.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/defaults.h"
#include "tools/kestctl/seepromchoice.h"

namespace kest::tools
{
namespace
{

struct writeOptions {
    seepromOptions to;
    std::string input; ///< file or "-"; empty: `hex` is given
    std::string hex;
    carefulWriteOptions care;
};

struct restoreOptions {
    std::string file;
    seepromOptions to; ///< device: empty for the one that the file names
    carefulWriteOptions care;
};

/// The device and mode that a dump came from, unless the options name others.
seeprom openDumped(const dumpContents& contents, const seepromOptions& options)
{
    device which = options.device.empty() ? parseDeviceText(contents.text) : findDevice(options.device);
    if (options.device.empty()) {
        which.number = contents.number;
    }
    return {which, accessOf(options, contents.mode)};
}

/// The bytes given with --hex. All of them are written, so a length given beside them must match.
byteVector hexBytes(const writeOptions& options)
{
    byteVector bytes = parseHex(options.hex, "--hex");
    const auto length = lengthOf(options.to);
    if (length && *length != bytes.size()) {
        throw wrongUse(fmt::format("--length {}: --hex gives {}", *length, countText(bytes.size(), "byte")));
    }
    return bytes;
}

void tellIdentity(const seeprom& chip, identity found)
{
    const char* text = found == identity::asExpected   ? "the part is the expected one"
                       : found == identity::blank      ? "the part is blank"
                       : found == identity::unexpected ? "the part is not the expected one; forced"
                                                       : nullptr;
    if (text != nullptr) {
        standardOutput().text(fmt::format("{}: {}\n", escaped(chip.target().label), text));
    }
}

/// Says how often pages have been written, and warns of too many.
void tellWear(const context& shared, const seeprom& chip)
{
    const wearReport wear = wearOf(chip.target());
    const std::string name = escaped(chip.target().label);
    if (!shared.json && wear.known) {
        standardOutput().text(fmt::format("wear: {}\n", wearText(wear.counts)));
    }
    if (const std::string warning = wearWarning(wear.counts); !warning.empty()) {
        std::fputs(fmt::format("kestctl: {}: {}\n", name, warning).c_str(), stderr);
    }
}

void tellContents(const seeprom& chip, const contentsFinding& found, const carefulWriteOptions& care)
{
    if (!found.doubt.empty()) {
        standardOutput().text(fmt::format("{}: {}; {}\n", escaped(chip.target().label), escaped(found.doubt),
                                          care.dryRun ? "a write asks, or needs --force" : "confirmed"));
    }
}

void tellLines(const seeprom& chip, std::size_t length, const writeReport& report, const carefulWriteOptions& care)
{
    tellIdentity(chip, report.part);
    const std::string name = escaped(chip.target().label) + (chip.touchesHardware() ? "" : " (persisted copy)");
    if (report.pagesWritten == 0) {
        standardOutput().text(fmt::format("{}: holds {} already, nothing to write\n", name,
                                          length == 1 ? "this byte" : fmt::format("these {} bytes", length)));
    } else if (care.dryRun) {
        standardOutput().text(
            fmt::format("{}: would write {} in {}; unchanged: {}\n", name, countText(report.bytesWritten, "byte"),
                        countText(report.pagesWritten, "page"), countText(report.pagesSkipped, "page")));
    } else {
        standardOutput().text(
            fmt::format("{}: wrote {} in {}; unchanged: {}; {}\n", name, countText(report.bytesWritten, "byte"),
                        countText(report.pagesWritten, "page"), countText(report.pagesSkipped, "page"),
                        report.verified ? "read back and compared" : "not verified"));
        if (!report.undoFile.empty() && !preferred().quiet) {
            standardOutput().text(
                fmt::format("undo: kestctl seeprom restore {}\n", escaped(shellWord(report.undoFile))));
        }
    }
    if (report.width && report.pagesWritten != 0) {
        standardOutput().text(fmt::format("{}\n", widthLine(chip.target(), *report.width)));
    }
    tellContents(chip, report.contents, care);
}

/// A write that is done.
struct doneWrite {
    byteRange range;
    const writeReport& report;
    const std::vector<jsonField>& more; ///< fields of the JSON
};

int tellWrite(const context& shared, const seeprom& chip, const doneWrite& done, const carefulWriteOptions& care)
{
    const writeReport& report = done.report;
    if (shared.json) {
        auto result = rangeJson(chip, done.range);
        result.add({{"dry_run", care.dryRun},
                    {"bytes_written", report.bytesWritten},
                    {"pages_written", report.pagesWritten},
                    {"pages_skipped", report.pagesSkipped},
                    {"verified", report.verified},
                    {"mode", modeWord(chip.touchesHardware() ? accessMode::hardware : accessMode::file)},
                    {"identity", identityWord(report.part)},
                    {"contents", contentsJson(report.contents)},
                    {"width", report.width ? widthJson(*report.width) : jsonValue()},
                    {"undo_file", report.undoFile},
                    {"wavered", jsonNumbers(chip.wavered())},
                    {"outvoted", chip.outvoted()}});
        if (chip.touchesHardware()) {
            addWearFields(result, wearOf(chip.target()));
        }
        for (const jsonField& each : done.more) {
            result.add(each.name, each.value);
        }
        standardOutput().json(result);
    } else {
        tellLines(chip, done.range.length, report, care);
    }
    if (chip.touchesHardware() && report.pagesWritten != 0 && !care.dryRun) {
        tellWear(shared, chip);
    }
    return exitDone;
}

int runSeepromWrite(const context& shared, const writeOptions& options)
{
    seeprom chip = openSeeprom(options.to.device, options.to);
    const std::uint64_t offset = offsetOf(options.to);
    if (options.input.empty() == options.hex.empty()) {
        throw wrongUse("give what to write: a file with --input, or bytes with --hex");
    }
    const byteVector bytes = options.input.empty() ? hexBytes(options) : inputBytes(options.input, chip, options.to);
    const byteRange range = chip.range(offset, bytes.size());
    return writeAndTell(shared, chip, range.offset, bytes, careOf(options.care, options.to, "seeprom write"));
}

int runSeepromRestore(const context& shared, const restoreOptions& options)
{
    const auto raw = readInput(options.file, mostInputBytes);
    const dumpContents contents =
        parseDump(options.file, std::string(reinterpret_cast<const char*>(raw.data()), raw.size()));
    if (!contents.proved) {
        std::fputs(fmt::format("kestctl: {}: an older dump: its sum covers the data alone, device and offset are not "
                               "proved\n",
                               escaped(options.file))
                       .c_str(),
                   stderr);
    }
    seeprom chip = openDumped(contents, options.to);
    return writeBack(shared, chip, options.file, contents, careOf(options.care, options.to, "seeprom restore"));
}

} // namespace

int writeAndTell(const context& shared, seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                 const carefulWriteOptions& care, const std::vector<jsonField>& more)
{
    const interruptWatch watch;
    const writeReport report = writeCarefully(chip, offset, bytes, care);
    const int code =
        tellWrite(shared, chip,
                  {.range = {offset, static_cast<std::uint32_t>(bytes.size())}, .report = report, .more = more}, care);
    standardOutput().flush();
    return code;
}

carefulWriteOptions careOf(const carefulWriteOptions& given, const seepromOptions& to, const std::string& doing)
{
    carefulWriteOptions care = given;
    care.dryRun = preferred().dryRun;
    care.force = to.force;
    care.waitNs = to.waitNs;
    care.doing = doing;
    return care;
}

int writeBack(const context& shared, seeprom& chip, const std::string& file, const dumpContents& contents,
              const carefulWriteOptions& care)
{
    if (const device saved = parseDeviceText(contents.text); saved.end().type != chip.target().end().type) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} was saved from a {}, this is a {}", file, saved.end().type->chip,
                                          chip.target().end().type->chip),
                      .tryThis = fmt::format("name the device as it was then, {}", contents.text),
                      .device = chip.target().label};
    }
    const byteRange range = chip.range(contents.offset, contents.bytes.size());
    return writeAndTell(shared, chip, range.offset, contents.bytes, care);
}

void addCare(command verb, carefulWriteOptions& care, seepromOptions& to)
{
    verb.flag("-y,--yes", care.yes, "do not ask; required without a terminal");
    addDryRun(verb);
    addForce(verb, to,
             "write even if a kernel driver has the device, the part is not the expected one, or its contents would be "
             "damaged or lost");
    verb.flag("--all-pages", care.allPages, "also write pages that already hold the data");
    verb.flag("--width-unproved", care.widthUnproved,
              "write also when the part's number of offset bytes can't be proved");
    elseByDefault({verb.clearingFlag("--no-verify", care.verify, "do not read back and compare"),
                   verb.flag("--verify", care.verify, "read back and compare").hidden()},
                  [&care](const host::commandDefaults& defaults) { care.verify = defaults.verify; });
}

void addSeepromWrite(command area, context& shared)
{
    const auto options = std::make_shared<writeOptions>();
    command verb = addVerb(area, "write", "write bytes: asks, keeps the old ones in an undo file, reads back",
                           "Pages that already hold the data are skipped. A failed write reports how many\n"
                           "bytes are certain.");
    verb.text("DEVICE", options->to.device, "name, number or device text").required();
    verb.text("-i,--input", options->input, "bytes to write from FILE, - for standard input", "FILE");
    verb.text("--hex", options->hex, "bytes to write as hexadecimal digits", "DIGITS");
    addChoice(verb, options->to);
    addMilliseconds(verb, "--write-cycle", options->to.writeCycleMs,
                    "longest write cycle of a page, in ms, or with a unit: 20ms (default 15)", 1000);
    addCare(verb, options->care, options->to);
    runs(verb, shared, options, runSeepromWrite);
}

void addSeepromRestore(command area, context& shared)
{
    const auto options = std::make_shared<restoreOptions>();
    command verb = addVerb(area, "restore", "write a dump or undo file back");
    verb.text("FILE", options->file, "dump or undo file, - for standard input").required();
    verb.text("--device", options->to.device, "write to this device of the same type, not to the one in the file",
              "DEVICE");
    addAccess(verb, options->to, "where the bytes were saved from");
    addCare(verb, options->care, options->to);
    runs(verb, shared, options, runSeepromRestore);
}

} // namespace kest::tools
