#include "tools/kestctl/seepromset.h"

#include <algorithm>
#include <filesystem>
#include <fmt/core.h>
#include <optional>
#include <string>
#include <vector>

#include "contents/edit.h"
#include "contents/fieldname.h"
#include "tools/common/carefulwrite.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/fieldchanges.h"
#include "tools/common/files.h"
#include "tools/common/number.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/partcontents.h"
#include "tools/common/preferences.h"
#include "tools/common/watchedreads.h"
#include "tools/common/widthguard.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/bytedifferences.h"
#include "tools/kestctl/seepromchoice.h"
#include "tools/kestctl/seepromwrite.h"

namespace kest::tools
{
namespace
{

using contents::fieldSetting;

struct setOptions {
    seepromOptions to; ///< device, or the file to read when there is an output
    std::vector<std::string> fields;
    std::string output; ///< file or "-"; empty: the device is written
    carefulWriteOptions care;
};

struct makeOptions {
    std::string format;
    std::vector<std::string> fields;
    std::string size; ///< empty: as many bytes as the content has
    std::string output;
    bool force = false; ///< also over a file that is there
};

constexpr std::uint64_t mostImageBytes = 1U << 20;

std::vector<fieldSetting> settingsIn(const std::vector<std::string>& texts)
{
    std::vector<fieldSetting> settings;
    for (const std::string& text : texts) {
        const std::size_t equals = text.find('=');
        if (equals == text.npos || equals == 0) {
            throw wrongUse(fmt::format("'{}': expected FIELD=VALUE", text));
        }
        settings.push_back({text.substr(0, equals), text.substr(equals + 1)});
    }
    return settings;
}

/// Throws for a refusal. @param object  device or file, for messages
byteVector bytesOf(contents::editResult result, const std::string& object, const char* step)
{
    if (!result.refusal.empty()) {
        throw failure{.code = result.wrongUse ? exitWrongUse : exitRefused,
                      .what = result.refusal,
                      .tryThis = result.tryThis,
                      .device = object,
                      .step = step};
    }
    return std::move(result.bytes);
}

/// The format of an image whose fields can be set.
const contents::format& editableFormat(const byteVector& image, const std::string& object)
{
    const contents::format* const found = recognisedFormat(image);
    if (found != nullptr && contents::isEditable(found->name)) {
        return *found;
    }
    throw failure{.code = exitRefused,
                  .what = found == nullptr ? "its contents have no known format"
                                           : fmt::format("fields of the format {} can't be set", found->name),
                  .tryThis = "formats with fields to set: " + contents::joinedNames(contents::editableFormats()),
                  .device = object,
                  .step = "set"};
}

/// Bytes by which contents can grow at most: an entry has code, length and value. A value can be longer than its text.
std::uint32_t mostGrowth(const std::vector<fieldSetting>& settings)
{
    constexpr std::size_t longestForm = 19; ///< of a date and time; numbers and addresses are shorter
    std::size_t bytes = 0;
    for (const fieldSetting& each : settings) {
        bytes += 2 + std::max(each.value.size(), longestForm);
    }
    return static_cast<std::uint32_t>(std::min<std::size_t>(bytes, mostImageBytes));
}

/// What changes: fields, then the lines of bytes.
std::string changeText(const byteVector& old, const byteVector& now)
{
    const comparison both{.range = {0, static_cast<std::uint32_t>(old.size())}, .present = old, .other = now};
    return fieldLines(fieldChangesOf(old, now)) + diffLines(both, differences(both));
}

/// Reads the contents of a part and the room in which they can grow. The number of offset bytes is proved before, since
/// a read in the wrong width can change a part.
byteVector readPart(seeprom& chip, const setOptions& options, const std::vector<fieldSetting>& settings)
{
    const byteRange all = chip.range(0, std::nullopt);
    widthGuard width(chip, all,
                     {.yes = options.care.yes, .dryRun = preferred().dryRun, .unproved = options.care.widthUnproved});
    return readWatched(chip, width, [&](watchedReads reads) {
        partContents part(servedBytes(chip), reads.reader("set"));
        const std::uint32_t room = std::min(part.capacity(), endOfContents(part) + mostGrowth(settings));
        const byteVector& bytes = part.upTo(room);
        return byteVector(bytes.begin(), bytes.begin() + room);
    });
}

/// Edits what the part holds, shows the difference, and writes it with care. Nobody else writes to it meanwhile.
int setInDevice(const context& shared, const setOptions& options, const std::vector<fieldSetting>& settings)
{
    seeprom chip = openSeeprom(options.to.device, options.to);
    carefulWriteOptions care = careOf(options.care, options.to, "seeprom set");
    std::optional<deviceOperation> operation;
    if (chip.touchesHardware()) {
        operation.emplace(chip.target(),
                          operationRequest{.use = operationUse::write, .doing = care.doing, .waitNs = care.waitNs});
        care.held = true;
    }
    const std::string& name = chip.target().label;
    const byteVector old = readPart(chip, options, settings);
    const contents::format& as = editableFormat(old, name);
    const byteVector now = bytesOf(contents::setFields(as.name, old, settings), name, "set");
    if (!shared.json) {
        standardOutput().text(changeText(old, now));
        standardOutput().flush();
    }
    return writeAndTell(shared, chip, 0, now, care, {{"fields", fieldChangesJson(fieldChangesOf(old, now))}});
}

/// Throws when there is a file of that name already.
void refuseOverwriting(const std::string& file, bool force)
{
    std::error_code none;
    if (!force && file != "-" && std::filesystem::is_regular_file(file, none)) {
        throw failure{.code = exitRefused,
                      .what = "there is such a file already, which is not overwritten",
                      .tryThis = "--force overwrites it",
                      .device = file,
                      .step = "write"};
    }
}

/// Edits a file's bytes and saves them in another file.
int setInFile(const context& shared, const setOptions& options, const std::vector<fieldSetting>& settings)
{
    const std::string& name = options.to.device;
    refuseOverwriting(options.output, options.to.force);
    const byteVector old = readInput(name, mostImageBytes);
    const contents::format& as = editableFormat(old, name);
    const byteVector now = bytesOf(contents::setFields(as.name, old, settings), name, "set");
    writeOutput(options.output, now, options.to.force);
    if (options.output == "-" && !preferred().dryRun) {
        return exitDone;
    }
    if (shared.json) {
        standardOutput().json({{"file", name},
                               {"output", options.output},
                               {"dry_run", preferred().dryRun},
                               {"fields", fieldChangesJson(fieldChangesOf(old, now))}});
    } else {
        standardOutput().text(changeText(old, now));
        tellOutput(options.output, now.size());
    }
    return exitDone;
}

int runSeepromSet(const context& shared, const setOptions& options)
{
    const std::vector<fieldSetting> settings = settingsIn(options.fields);
    return options.output.empty() ? setInDevice(shared, options, settings) : setInFile(shared, options, settings);
}

int runSeepromMake(const context& shared, const makeOptions& options)
{
    const contents::format& as = formatNamed(options.format);
    const std::string name(as.name);
    refuseOverwriting(options.output, options.force);
    const std::uint64_t size = options.size.empty() ? 0 : parseSize(options.size, "--size", mostImageBytes);
    const byteVector image =
        bytesOf(contents::makeImage(name, static_cast<std::size_t>(size), settingsIn(options.fields)), name, "make");
    writeOutput(options.output, image, options.force);
    if (preferred().dryRun) {
        reportWould(shared, {{"format", name}, {"output", options.output}, {"length", image.size()}},
                    fmt::format("{}: would be {} of the format {}",
                                options.output == "-" ? "standard output" : escaped(options.output),
                                countText(image.size(), "byte"), name));
    } else if (shared.json && options.output != "-") {
        standardOutput().json({{"format", name}, {"output", options.output}, {"length", image.size()}});
    } else if (options.output != "-") {
        standardOutput().text(
            fmt::format("{}: {} of the format {}\n", escaped(options.output), countText(image.size(), "byte"), name));
    }
    return exitDone;
}

/// What can be set, for the help.
std::string fieldHelp()
{
    std::string text = "An empty VALUE removes the field. Fields that can be set:\n";
    for (const std::string& format : contents::editableFormats()) {
        std::string line = "  " + format + ":";
        for (const std::string& field : contents::settableFields(format)) {
            constexpr std::size_t width = 78;
            if (line.size() + 1 + field.size() > width) {
                text += line + "\n";
                line = "   ";
            }
            line += " " + field;
        }
        text += line + "\n";
    }
    return text + "A TlvInfo field can also be named by its code: 0x23.";
}

} // namespace

void addSeepromSet(command area, context& shared)
{
    const auto options = std::make_shared<setOptions>();
    command verb =
        addVerb(area, "set", "change fields of the contents: mends checksums, writes as 'write' does", fieldHelp());
    verb.text("DEVICE", options->to.device, "name, number or device text; with --output a file, - for standard input")
        .required();
    verb.texts("FIELD", options->fields, "FIELD=VALUE: what to set", "").required();
    verb.text("-o,--output", options->output, "change a file's bytes, and save them in FILE, - for standard output",
              "FILE");
    addAccess(verb, options->to, "hardware");
    addCare(verb, options->care, options->to);
    runs(verb, shared, options, runSeepromSet);
}

void addSeepromMake(command area, context& shared)
{
    const auto options = std::make_shared<makeOptions>();
    command verb = addVerb(area, "make", "make an image of a format from fields", fieldHelp());
    verb.text("FORMAT", options->format, "tlvinfo or fru").required();
    verb.texts("FIELD", options->fields, "FIELD=VALUE: what the image holds", "");
    verb.text("--size", options->size, "bytes of the image, filled with FF (default: as many as the content has)", "N");
    verb.text("-o,--output", options->output, "save the image in FILE, - for standard output", "FILE").required();
    addDryRun(verb);
    verb.flag("--force", options->force, "overwrite the file; write raw bytes even to a terminal");
    runs(verb, shared, options, runSeepromMake);
}

} // namespace kest::tools
