#include "tools/kestctl/seepromundo.h"

#include <fmt/core.h>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/carefulwrite.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/json.h"
#include "tools/common/operation.h"
#include "tools/common/output.h"
#include "tools/common/undofile.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/seepromchoice.h"
#include "tools/kestctl/seepromwrite.h"

namespace kest::tools
{
namespace
{

struct undoOptions {
    seepromOptions to;
    carefulWriteOptions care;
    bool list = false;
};

accessMode placeOf(const seeprom& chip) { return chip.touchesHardware() ? accessMode::hardware : accessMode::file; }

std::string timeOf(const undoEntry& entry) { return entry.timeMs ? timeText(*entry.timeMs) : "-"; }

jsonValue asJson(const undoEntry& entry)
{
    jsonValue row{{"file", entry.path}, {"time", entry.timeMs ? jsonValue(timeText(*entry.timeMs)) : nullptr}};
    if (entry.trouble.empty()) {
        row.add({{"offset", entry.contents.offset},
                 {"length", entry.contents.bytes.size()},
                 {"mode", modeWord(entry.contents.mode)}});
    } else {
        row.add("trouble", entry.trouble);
    }
    return row;
}

int listUndo(const context& shared, const seeprom& chip)
{
    const std::vector<undoEntry> entries = undoFilesOf(chip.target(), placeOf(chip));
    jsonList rows;
    std::string text;
    for (const undoEntry& entry : entries) {
        rows.push_back(asJson(entry));
        text += entry.trouble.empty() ? fmt::format("{:24} {:>7} {:>7}  {}\n", timeOf(entry), entry.contents.offset,
                                                    entry.contents.bytes.size(), escaped(shellWord(entry.path)))
                                      : fmt::format("{:24} can't be used: {}\n", timeOf(entry), escaped(entry.trouble));
    }
    if (shared.json) {
        standardOutput().json({{"device", chip.target().label}, {"text", chip.target().text}, {"undo_files", rows}});
    } else if (entries.empty()) {
        standardOutput().text(fmt::format("{}: no undo files\n", escaped(chip.target().label)));
    } else {
        standardOutput().text(fmt::format("{:24} {:>7} {:>7}  {}\n", "SAVED", "OFFSET", "LENGTH", "FILE") + text);
    }
    return exitDone;
}

/// Leaves out the files that anybody could have put there, and says so.
void passOverDistrusted(const seeprom& chip, std::vector<undoEntry>& entries)
{
    std::erase_if(entries, [&chip](const undoEntry& entry) {
        if (entry.distrusted) {
            note(fmt::format("{}: undo passes over {}", chip.target().label, entry.trouble));
        }
        return entry.distrusted;
    });
}

/// Throws a `failure` when there is none that can be used. An older one in its place would bring back what nobody
/// expects.
undoEntry latestUndo(const seeprom& chip)
{
    std::vector<undoEntry> entries = undoFilesOf(chip.target(), placeOf(chip), 1);
    passOverDistrusted(chip, entries);
    failure why{.what = "there is no undo file of it", .device = chip.target().label, .step = "undo"};
    if (entries.empty()) {
        throw why;
    }
    if (!entries.front().trouble.empty()) {
        why.what = "the latest undo file can't be used: " + entries.front().trouble;
        why.tryThis = fmt::format("'kestctl seeprom undo {} --list' shows the others, 'kestctl seeprom restore' takes "
                                  "one",
                                  shellWord(chip.target().label));
        throw why;
    }
    return entries.front();
}

/// Takes the latest undo file of the device. Nobody else writes to it meanwhile, so no later file appears.
int runSeepromUndo(const context& shared, const undoOptions& options)
{
    seeprom chip = openSeeprom(options.to.device, options.to);
    if (options.list) {
        return listUndo(shared, chip);
    }
    carefulWriteOptions care = careOf(options.care, options.to, "seeprom undo");
    care.contentsKnown = true;
    std::optional<deviceOperation> operation;
    if (chip.touchesHardware()) {
        operation.emplace(chip.target(),
                          operationRequest{.use = operationUse::write, .doing = care.doing, .waitNs = care.waitNs});
        care.held = true;
    }
    const undoEntry latest = latestUndo(chip);
    if (!shared.json) {
        standardOutput().text(fmt::format("{}: undoes the write of {}: {}\n", escaped(chip.target().label),
                                          timeOf(latest), escaped(latest.path)));
        standardOutput().flush();
    }
    return writeBack(shared, chip, latest.path, latest.contents, care);
}

} // namespace

void addSeepromUndo(command area, context& shared)
{
    const auto options = std::make_shared<undoOptions>();
    command verb = addVerb(area, "undo", "write the device's latest undo file back",
                           "What it replaces goes to an undo file, too: a second undo takes the first one\n"
                           "back. 'kestctl seeprom restore FILE' takes any of the files that --list shows.");
    verb.text("DEVICE", options->to.device, "name, number or device text").required();
    verb.flag("--list", options->list, "show all undo files of the device, the latest first");
    addAccess(verb, options->to, "hardware");
    addCare(verb, options->care, options->to);
    runs(verb, shared, options, runSeepromUndo);
}

} // namespace kest::tools
