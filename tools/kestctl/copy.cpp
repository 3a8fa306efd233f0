#include "tools/kestctl/copy.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>
#include <optional>

#include "platform/host/vpd/copies.h"
#include "tools/common/device.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/fieldchanges.h"
#include "tools/common/files.h"
#include "tools/common/heldread.h"
#include "tools/common/json.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/common/seeprom.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/copychoice.h"
#include "tools/kestctl/copyverify.h"

namespace kest::tools
{
namespace
{

struct copyOptions {
    std::string which; ///< name or number of the device table, or any device number
    std::string file; ///< for import and export; "-" is standard input or output
    bool yes = false; ///< an existing copy may be replaced or removed
    /// Raw bytes even to a terminal, even of a damaged copy; a copy of any file, whatever its size.
    bool force = false;
};

struct captureOptions {
    std::string device;
    std::uint32_t speedKhz = 0;
    std::uint32_t votes = 1;
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
    bool yes = false;
};

/// A copy that is damaged is there, too.
bool exists(std::uint32_t number)
{
    host::copyInfo found;
    const int error = host::checkCopy(number, found);
    if (error != ENOENT) {
        throwCopy(error, number, "look at");
    }
    return error == 0;
}

/// What the copy that is there becomes in fields. Nothing when none can be read.
std::optional<fieldChanges> changesOf(std::uint32_t number, const byteVector& fresh)
{
    byteVector old;
    return host::readCopy(number, old) == 0 ? fieldChangesOf(old, fresh) : std::nullopt;
}

/// What becomes a copy.
struct newCopy {
    std::uint32_t number = 0;
    byteVector bytes;
    host::copyFacts facts;
    std::vector<std::uint32_t> wavered = {};
    std::uint64_t outvoted = 0;
};

/// What replace() would do.
int tellReplace(const context& shared, const newCopy& fresh)
{
    const bool there = exists(fresh.number);
    const std::optional<fieldChanges> changes = there ? changesOf(fresh.number, fresh.bytes) : std::nullopt;
    if (shared.json) {
        jsonValue result{{"number", fresh.number}, {"size", fresh.bytes.size()}, {"replaces", there}};
        addDryRunField(result);
        result.add("wavered", jsonNumbers(fresh.wavered));
        result.add("outvoted", fresh.outvoted);
        result.add("fields", fieldChangesJson(changes));
        standardOutput().json(result);
    } else {
        standardOutput().text(fmt::format("{}: would hold {}{}\n", escaped(copyLabel(fresh.number)),
                                          countText(fresh.bytes.size(), "byte"),
                                          there ? ", in place of what is there" : "") +
                              fieldLines(changes, "  "));
    }
    return exitDone;
}

int replace(const context& shared, const newCopy& fresh, bool yes)
{
    const std::string label = copyLabel(fresh.number);
    if (preferred().dryRun) {
        return tellReplace(shared, fresh);
    }
    if (exists(fresh.number)) {
        confirm(fmt::format("{}: replace it?", label), yes);
    }
    const std::optional<fieldChanges> changes = changesOf(fresh.number, fresh.bytes);
    throwCopy(host::replaceCopy(fresh.number, fresh.bytes, fresh.facts), fresh.number, "write");
    if (shared.json) {
        host::copyInfo made;
        throwCopy(host::checkCopy(fresh.number, made), fresh.number, "look at");
        jsonValue result = copyJson(made);
        result.add("wavered", jsonNumbers(fresh.wavered));
        result.add("outvoted", fresh.outvoted);
        result.add("fields", fieldChangesJson(changes));
        standardOutput().json(result);
    } else {
        standardOutput().text(fmt::format("{}: holds {} now\n", escaped(label), countText(fresh.bytes.size(), "byte")) +
                              fieldLines(changes, "  "));
    }
    return exitDone;
}

/// Size of the device that a number's copy belongs to; 0 when it is not known.
std::uint32_t capacityOf(std::uint32_t number)
{
    const std::optional<device> owner = ownerOf(number);
    return owner ? owner->end().type->bytes : 0;
}

/// Refuses a copy of another size than its device: it was made from something else, or cut.
void requireSize(std::uint32_t number, std::size_t bytes, const std::string& file)
{
    const std::uint32_t capacity = capacityOf(number);
    if (capacity != 0 && bytes != capacity) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} holds {}, the device {}", file, countText(bytes, "byte"), capacity),
                      .tryThis = "--force makes a copy of it all the same",
                      .device = copyLabel(number)};
    }
}

std::string listLine(const std::string& number, const std::string& name, const std::string& size,
                     const std::string& captured, const char* state)
{
    return fmt::format("{:>10} {:18} {:>10}  {:24} {}\n", number, name, size, captured, state);
}

int runCopyList(const context& shared)
{
    std::vector<host::copyInfo> copies;
    if (const int error = host::listCopies(copies); error != 0) {
        throw systemFailure(error, "list", "persisted copies");
    }
    jsonList rows;
    std::string text = listLine("NUMBER", "NAME", "SIZE", "CAPTURED", "STATE");
    for (const host::copyInfo& copy : copies) {
        rows.push_back(copyJson(copy));
        text += listLine(std::to_string(copy.number), escaped(ownerName(copy.number)),
                         copy.sizeBytes != 0 ? sizeText(copy.sizeBytes) : "-",
                         copy.facts.capturedMs ? timeText(*copy.facts.capturedMs) : "-", stateWord(copy.state));
    }
    if (shared.json) {
        standardOutput().json({{"copies", rows}});
    } else if (copies.empty()) {
        standardOutput().text("no persisted copies; 'kestctl copy capture DEVICE' makes one\n");
    } else {
        standardOutput().text(text);
    }
    return exitDone;
}

/// A file with check sums would become the contents of another one.
void refuseCopyFile(const byteVector& bytes, const std::string& file)
{
    host::copyHeader header;
    if (host::kindOfCopy(bytes, header) != host::copyKind::raw) {
        throw wrongUse(file + " is the file of a copy, with check sums, and no raw bytes",
                       "'kestctl copy export' writes raw bytes; --force takes it as it is");
    }
}

/// Makes a copy from a file's bytes. If the table has a device of that number, the sizes must match.
int runCopyImport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = copyNumber(options.which);
    const byteVector bytes = readInput(options.file, host::largestCopyBytes);
    if (bytes.empty()) {
        throw wrongUse(options.file + " is empty");
    }
    if (!options.force) {
        refuseCopyFile(bytes, options.file);
        requireSize(number, bytes.size(), options.file);
    }
    // nobody knows when a file's bytes were read
    return replace(shared, {.number = number, .bytes = bytes, .facts = {.deviceBytes = capacityOf(number)}},
                   options.yes);
}

int runCopyExport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = copyNumber(options.which);
    byteVector bytes;
    int error = host::readCopy(number, bytes);
    const bool damaged = error == EBADMSG;
    if (damaged && options.force) {
        error = host::salvageCopy(number, bytes);
    }
    throwCopy(error, number, "read");
    writeOutput(options.file, bytes, options.force);
    if (shared.json && (options.file != "-" || preferred().dryRun)) {
        jsonValue result{{"number", number}, {"size", bytes.size()}, {"output", options.file}, {"salvaged", damaged}};
        addDryRunField(result);
        standardOutput().json(result);
    } else {
        tellOutput(options.file, bytes.size());
    }
    return exitDone;
}

int runCopyRemove(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = copyNumber(options.which);
    const bool there = exists(number);
    if (preferred().dryRun) {
        throwCopy(there ? 0 : ENOENT, number, "remove");
        reportWould(shared, {{"number", number}, {"removed", false}},
                    escaped(copyLabel(number)) + ": would be removed");
        return exitDone;
    }
    if (there) {
        confirm(fmt::format("{}: remove it?", copyLabel(number)), options.yes);
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
    const std::uint32_t number = copyNumber(options.device);
    seeprom chip(findDevice(options.device), {.speedKhz = options.speedKhz, .votes = std::max(options.votes, 1U)});
    const byteVector bytes = readHeld(chip, chip.range(0, std::nullopt), "capture",
                                      {.use = operationUse::read, .doing = "copy capture", .waitNs = options.waitNs});
    const auto deviceBytes = static_cast<std::uint32_t>(bytes.size());
    return replace(shared,
                   {.number = number,
                    .bytes = bytes,
                    .facts = {.deviceBytes = deviceBytes, .capturedMs = nowMs()},
                    .wavered = chip.wavered(),
                    .outvoted = chip.outvoted()},
                   options.yes);
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
    addDryRun(verb);
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
    addWait(verb, options->waitNs);
    verb.flag("-y,--yes", options->yes, "do not ask before a copy is replaced");
    addDryRun(verb);
    runs(verb, shared, options, runCopyCapture);
}

} // namespace

void addCopy(command program, context& shared)
{
    const command area = addArea(program, "copy", "persisted copies of SEEPROMs, for file and mixed mode");
    runs(addVerb(area, "list", "show the copies"), shared, runCopyList);
    addCapture(area, shared);
    addCopyVerify(area, shared);
    addCopyVerb(area, shared, "import", "make a copy from a file", "file, - for standard input",
                "import even if the file is larger or smaller than the device, or a copy's", runCopyImport);
    addCopyVerb(area, shared, "export", "save a copy in a file", "file, - for standard output",
                "write what a damaged copy holds, and raw bytes even to a terminal", runCopyExport);
    addCopyVerb(area, shared, "remove", "remove a copy", nullptr, nullptr, runCopyRemove);
}

} // namespace kest::tools
