#include "tools/common/undofile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <map>
#include <tuple>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"

#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/trustedfile.h"
#include "tools/common/undoname.h"
#include "tools/common/when.h"

namespace kest::tools
{
namespace
{

constexpr mode_t ownersAlone = 0600;
constexpr std::size_t mostBytes = 16UL << 20;
constexpr std::int64_t dayMs = std::int64_t{24} * 60 * 60 * 1000;

std::filesystem::path undoFolder() { return host::currentConfiguration().stateFolder / "undo"; }

/// The names in the folder. @return 0 or an errno; none when there is no folder
int listNames(std::vector<std::string>& names)
{
    std::error_code error;
    for (std::filesystem::directory_iterator entry(undoFolder(), error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    return error == std::errc::no_such_file_or_directory ? 0 : error.value();
}

bool isLater(const undoName& one, const undoName& other)
{
    return std::tie(one.number, one.time) > std::tie(other.number, other.time);
}

/// The names of the present form, by key; of each key the latest first.
std::map<std::string, std::vector<undoName>> byKey(const std::vector<std::string>& names)
{
    std::map<std::string, std::vector<undoName>> found;
    for (const std::string& name : names) {
        if (auto parsed = parseUndoName(name)) {
            found[parsed->key].push_back(std::move(*parsed));
        }
    }
    for (auto& [key, list] : found) {
        std::ranges::sort(list, isLater);
    }
    return found;
}

/// The names of files that may decide about numbers and what is kept. Without a look into the folder there are none: a
/// new file then counts as the first of its device, and its name is a new one all the same.
std::vector<std::string> trustedNames(int place)
{
    std::vector<std::string> names;
    static_cast<void>(listNames(names));
    std::erase_if(names, [place](const std::string& name) { return !isTrusted(place, name); });
    return names;
}

/// The names of a device, under all keys that it has had; the latest first.
std::vector<undoName> namesOf(const std::vector<std::string>& names, const device& which, accessMode place)
{
    std::vector<std::string> keys = formerUndoKeysOf(which, place);
    keys.push_back(undoKeyOf(which, place));
    std::vector<undoName> found;
    for (auto& [key, list] : byKey(names)) {
        if (std::ranges::find(keys, key) != keys.end()) {
            found.insert(found.end(), list.begin(), list.end());
        }
    }
    std::ranges::sort(found, isLater);
    return found;
}

/// Creates a file with a new name in the folder that is open at `place`. @return its descriptor, -1 with errno
int createUndo(int place, const device& which, const dumpContents& contents, std::string& path)
{
    const std::vector<undoName> present = namesOf(trustedNames(place), which, contents.mode);
    undoName name{.label = undoLabel(contents.name),
                  .key = undoKeyOf(which, contents.mode),
                  .number = present.empty() ? 1 : present.front().number + 1,
                  .time = undoTimeNow()};
    for (;; ++name.number) {
        const std::string fileName = undoFileName(name);
        path = undoFolder() / fileName;
        const int file = createFileIn(place, fileName.c_str(), O_WRONLY, ownersAlone).release();
        if (file >= 0 || errno != EEXIST) {
            return file;
        }
    }
}

/// Removes what the configuration does not keep. A file that can't be removed stays.
void removeOld(int place)
{
    const auto& settings = host::currentConfiguration();
    const std::int64_t now = nowMs();
    const auto isOld = [&](std::size_t rank, const std::string& fileName) {
        const std::int64_t age = now - undoTimeIn(fileName).value_or(now);
        return (settings.undoKeep != 0 && rank >= settings.undoKeep) ||
               (settings.undoDays != 0 && age > settings.undoDays * dayMs);
    };
    for (const auto& [key, list] : byKey(trustedNames(place))) {
        for (std::size_t rank = 1; rank < list.size(); ++rank) {
            if (const std::string fileName = undoFileName(list[rank]); isOld(rank, fileName)) {
                unlinkat(place, fileName.c_str(), 0);
            }
        }
    }
}

/// Throws that the undo file could not be saved. Nothing has been written: the device is as it was.
[[noreturn]] void throwUnsaved(int error, const std::string& step, const std::string& path,
                               const dumpContents& contents)
{
    failure why = systemFailure(error, step, path);
    logFailure(why, {.reason = reasonUndoUnsaved, .words = {static_cast<std::uint32_t>(error)}, .text = contents.text});
    throw why;
}

/// The contents of a file. Throws a `failure` when it holds none.
dumpContents contentsOf(const std::string& path, const trustedRead& read)
{
    if (read.error != 0) {
        throw systemFailure(read.error, "read", path);
    }
    return parseDump(path, std::string(read.bytes.begin(), read.bytes.end()));
}

/// @param place  descriptor of the open folder. @return nothing for a file of another device
std::optional<undoEntry> readEntry(int place, const std::string& fileName, const std::string& key)
{
    undoEntry entry{.path = undoFolder() / fileName, .timeMs = undoTimeIn(fileName), .contents = {}, .trouble = {}};
    // nobody knows whose an old one is that can't be read
    const bool named = parseUndoName(fileName).has_value();
    const trustedRead read = readTrusted(place, fileName, mostBytes);
    if (!read.distrust.empty()) {
        entry.trouble = fmt::format("{}: {}", entry.path, read.distrust);
        entry.distrusted = true;
        return named ? std::optional(std::move(entry)) : std::nullopt;
    }
    try {
        dumpContents contents = contentsOf(entry.path, read);
        device saved = parseDeviceText(contents.text);
        saved.number = contents.number;
        if (undoKeyOf(saved, contents.mode) != key) {
            return std::nullopt;
        }
        entry.contents = std::move(contents);
    } catch (const failure& why) {
        if (!named) {
            return std::nullopt;
        }
        entry.trouble = why.what;
    }
    return entry;
}

/// All names that can be a device's undo files, the latest first.
std::vector<std::string> namesInOrder(std::vector<std::string> names, const device& which, accessMode place)
{
    std::vector<std::string> order;
    std::ranges::transform(namesOf(names, which, place), std::back_inserter(order), undoFileName);
    // former names begin with a label and the time; those of one second are counted
    std::erase_if(names, [](const std::string& name) { return parseUndoName(name) || !name.ends_with(".json"); });
    std::ranges::sort(names, [](const std::string& one, const std::string& other) {
        return std::tuple(undoTimeIn(one), one.size(), one) > std::tuple(undoTimeIn(other), other.size(), other);
    });
    order.insert(order.end(), names.begin(), names.end());
    return order;
}

} // namespace

std::string saveUndo(const device& which, const dumpContents& contents)
{
    const std::filesystem::path folder = undoFolder();
    const int error = makeFolders(folder);
    // makes sure that root's files in another user's folder stay in it
    const fileDescriptor place = openFolder(folder);
    if (!place.valid()) {
        throwUnsaved(error != 0 ? error : errno, "save the undo file in", folder.string(), contents);
    }
    std::string path;
    const int file = createUndo(place.number(), which, contents, path);
    if (file < 0) {
        throwUnsaved(errno, "save the undo file", path, contents);
    }
    int why = writeAll(file, dumpText(contents));
    if (why == 0 && fsync(file) != 0) {
        why = errno;
    }
    if (why == 0) {
        why = syncFolder(folder);
    }
    close(file);
    if (why != 0) {
        unlinkat(place.number(), std::filesystem::path(path).filename().c_str(), 0);
        throwUnsaved(why, "save the undo file", path, contents);
    }
    return path;
}

void removeOldUndo()
{
    if (const fileDescriptor place = openFolder(undoFolder()); place.valid()) {
        removeOld(place.number());
    }
}

std::string restoreHint(const std::string& path)
{
    return fmt::format("'kestctl seeprom restore {}' puts the old bytes back", shellWord(path));
}

void dropUndo(const std::string& path) { unlink(path.c_str()); }

std::vector<undoEntry> undoFilesOf(const device& which, accessMode place, std::size_t most)
{
    std::vector<std::string> names;
    if (const int error = listNames(names); error != 0) {
        throw systemFailure(error, "list", undoFolder().string());
    }
    if (names.empty()) {
        return {};
    }
    const fileDescriptor folder = openFolder(undoFolder());
    if (!folder.valid()) {
        throw systemFailure(errno, "list", undoFolder().string());
    }
    const std::string key = undoKeyOf(which, place);
    std::vector<undoEntry> entries;
    std::size_t trusted = 0;
    for (const std::string& name : namesInOrder(std::move(names), which, place)) {
        if (trusted >= most) {
            break;
        }
        if (auto entry = readEntry(folder.number(), name, key)) {
            trusted += entry->distrusted ? 0 : 1;
            entries.push_back(std::move(*entry));
        }
    }
    return entries;
}

} // namespace kest::tools
