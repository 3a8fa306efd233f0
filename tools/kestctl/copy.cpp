#include "tools/kestctl/copy.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>
#include <optional>

#include "platform/host/configuration/configuration.h"
#include "platform/host/vpd/copies.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/seeprom.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct copyOptions {
    std::string which; ///< name or number of the device table, or any device number
    std::string file; ///< for import and export; "-" is standard input or output
    bool yes = false; ///< an existing copy may be replaced or removed
    bool force = false; ///< raw bytes even to a terminal; a copy of another size than its device
};

struct captureOptions {
    std::string device;
    std::uint32_t speedKhz = 0;
    std::uint32_t votes = 1;
    bool yes = false;
};

/// The device that a number's copy belongs to; none when the table has no valid row for the number.
std::optional<device> ownerOf(std::uint32_t number)
{
    try {
        return findDevice(std::to_string(number));
    } catch (const failure&) {
        return std::nullopt;
    }
}

/// Name of the device that a copy belongs to; empty when the table has none.
std::string nameOf(std::uint32_t number)
{
    const auto& devices = host::currentConfiguration().devices;
    const auto found = std::ranges::find_if(devices, [number](const host::deviceEntry& entry) {
        device which;
        which.number = number;
        which.position = entry.position;
        return entry.number == number && copyIsItsOwn(which);
    });
    return found == devices.end() ? "" : found->name;
}

/// A copy needs no device. It is named by any device number, or by a name of the device table.
std::uint32_t numberOf(const std::string& which)
{
    if (!which.empty() && which[0] >= '0' && which[0] <= '9') {
        return static_cast<std::uint32_t>(parseNumber(which, "device number", 0xFFFFFFFF));
    }
    const device found = findDevice(which);
    // a device text has no number; a row of the table may have any number, even 0
    if (isDeviceText(which)) {
        throw failure{.code = exitWrongUse,
                      .what = "a copy belongs to a device number, and this device has none",
                      .tryThis = "give it a row in the device table, or name the copy by its number",
                      .device = which};
    }
    refuseForeignCopy(found);
    return found.number;
}

std::string labelOf(std::uint32_t number)
{
    const std::string name = nameOf(number);
    return name.empty() ? fmt::format("copy {}", number) : fmt::format("copy {} ({})", number, name);
}

/// Throws for the `errno` that a function of the copies returned.
void throwCopy(int error, std::uint32_t number, const std::string& step)
{
    if (error == 0) {
        return;
    }
    failure why = systemFailure(error, step, labelOf(number));
    if (error == ENOENT) {
        why.code = exitAbsent;
        why.what = "there is no such copy";
        why.tryThis = "'kestctl copy list' shows the copies";
    } else if (error == EFBIG) {
        why.what = fmt::format("more than {} bytes", host::largestCopyBytes);
    }
    throw why;
}

bool exists(std::uint32_t number)
{
    std::vector<std::uint8_t> bytes;
    const int error = host::readCopy(number, bytes);
    if (error != ENOENT) {
        throwCopy(error, number, "look at");
    }
    return error == 0;
}

int replace(const context& shared, std::uint32_t number, const byteVector& bytes, bool yes,
            const std::vector<std::uint32_t>& wavered)
{
    if (exists(number)) {
        confirm(fmt::format("{}: replace it?", labelOf(number)), yes);
    }
    throwCopy(host::replaceCopy(number, bytes), number, "write");
    if (shared.json) {
        standardOutput().json(
            {{"number", number}, {"name", nameOf(number)}, {"size", bytes.size()}, {"wavered", jsonNumbers(wavered)}});
    } else {
        standardOutput().text(
            fmt::format("{}: holds {} now\n", escaped(labelOf(number)), countText(bytes.size(), "byte")));
    }
    return exitDone;
}

/// Refuses a copy of another size than its device: it was made from something else, or cut.
void requireSize(std::uint32_t number, std::size_t bytes, const std::string& file)
{
    const std::optional<device> owner = ownerOf(number);
    const std::uint32_t capacity = owner ? owner->end().type->bytes : 0;
    if (capacity != 0 && bytes != capacity) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} holds {}, the device {}", file, countText(bytes, "byte"), capacity),
                      .tryThis = "--force makes a copy of it all the same",
                      .device = labelOf(number)};
    }
}

int runCopyList(const context& shared)
{
    std::vector<host::copyInfo> copies;
    if (const int error = host::listCopies(copies); error != 0) {
        throw systemFailure(error, "list", "persisted copies");
    }
    jsonList rows;
    std::string text;
    for (const host::copyInfo& copy : copies) {
        rows.push_back({{"number", copy.number},
                        {"name", nameOf(copy.number)},
                        {"size", copy.sizeBytes},
                        {"modified_ms", copy.modifiedMs}});
        text += fmt::format("{:>10} {:24} {:>12}  {}\n", copy.number, escaped(nameOf(copy.number)),
                            sizeText(copy.sizeBytes), timeText(copy.modifiedMs));
    }
    if (shared.json) {
        standardOutput().json({{"copies", rows}});
    } else if (copies.empty()) {
        standardOutput().text("no persisted copies; 'kestctl copy capture DEVICE' makes one\n");
    } else {
        standardOutput().text(fmt::format("{:>10} {:24} {:>12}  {}\n", "NUMBER", "NAME", "SIZE", "CHANGED") + text);
    }
    return exitDone;
}

/// Makes a copy from a file's bytes. If the table has a device of that number, the sizes must match.
int runCopyImport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    const byteVector bytes = readInput(options.file, host::largestCopyBytes);
    if (bytes.empty()) {
        throw wrongUse(options.file + " is empty");
    }
    if (!options.force) {
        requireSize(number, bytes.size(), options.file);
    }
    return replace(shared, number, bytes, options.yes, {});
}

int runCopyExport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    byteVector bytes;
    throwCopy(host::readCopy(number, bytes), number, "read");
    writeOutput(options.file, bytes, options.force);
    if (shared.json && options.file != "-") {
        standardOutput().json({{"number", number}, {"size", bytes.size()}, {"output", options.file}});
    }
    return exitDone;
}

int runCopyRemove(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    if (exists(number)) {
        confirm(fmt::format("{}: remove it?", labelOf(number)), options.yes);
    }
    throwCopy(host::removeCopy(number), number, "remove");
    if (shared.json) {
        standardOutput().json({{"number", number}, {"removed", true}});
    }
    return exitDone;
}

/// Makes a copy from the hardware, from bytes that are certain.
int runCopyCapture(const context& shared, const captureOptions& options)
{
    const std::uint32_t number = numberOf(options.device);
    seeprom chip(findDevice(options.device), {.speedKhz = options.speedKhz, .votes = std::max(options.votes, 1U)});
    const byteVector bytes = chip.read(chip.range(0, std::nullopt), "capture");
    return replace(shared, number, bytes, options.yes, chip.wavered());
}

void addCopyVerb(command area, context& shared, const char* name, const char* help, const char* fileHelp,
                 const char* forceHelp, int (*run)(const context&, const copyOptions&))
{
    const auto options = std::make_shared<copyOptions>();
    command verb = addVerb(area, name, help);
    verb.text("COPY", options->which, "device number, or name of the device table").required();
    if (fileHelp != nullptr) {
        verb.text("FILE", options->file, fileHelp).required();
    }
    verb.flag("-y,--yes", options->yes, "do not ask before a copy is replaced or removed");
    if (forceHelp != nullptr) {
        verb.flag("--force", options->force, forceHelp);
    }
    runs(verb, shared, options, run);
}

void addCapture(command area, context& shared)
{
    const auto options = std::make_shared<captureOptions>();
    command verb = addVerb(area, "capture", "make a copy from the device's hardware");
    verb.text("DEVICE", options->device, "name or number of the device table").required();
    addSpeed(verb, options->speedKhz, usualSpeed);
    addVotes(verb, options->votes);
    verb.flag("-y,--yes", options->yes, "do not ask before a copy is replaced");
    runs(verb, shared, options, runCopyCapture);
}

} // namespace

void addCopy(command program, context& shared)
{
    const command area = addArea(program, "copy", "persisted copies of SEEPROMs, for file and mixed mode");
    runs(addVerb(area, "list", "show the copies"), shared, runCopyList);
    addCapture(area, shared);
    addCopyVerb(area, shared, "import", "make a copy from a file", "file, - for standard input",
                "import even if the file is larger or smaller than the device", runCopyImport);
    addCopyVerb(area, shared, "export", "save a copy in a file", "file, - for standard output",
                "write raw bytes even to a terminal", runCopyExport);
    addCopyVerb(area, shared, "remove", "remove a copy", nullptr, nullptr, runCopyRemove);
}

} // namespace kest::tools
