#include "tools/common/undofile.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"

#include "tools/common/entryfailure.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t longestNamePart = 48;
constexpr mode_t ownersAlone = 0600;

/// A name that is safe in a file name.
std::string fileNameOf(const std::string& label)
{
    std::string name = label.substr(0, longestNamePart);
    std::ranges::replace_if(
        name, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_'; }, '_');
    return name;
}

/// "20240501T120000Z".
std::string nowText()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts)};
}

/// Creates a file with a new name in the folder that is open at `place`. @return its descriptor, -1 with errno
int createUndo(int place, const std::filesystem::path& folder, const std::string& label, std::string& path)
{
    const std::string stem = fileNameOf(label) + "-" + nowText();
    for (int number = 0;; ++number) {
        const std::string name = (number == 0 ? stem : fmt::format("{}-{}", stem, number)) + ".json";
        path = folder / name;
        const int file = createFileIn(place, name.c_str(), O_WRONLY, ownersAlone).release();
        if (file >= 0 || errno != EEXIST) {
            return file;
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

} // namespace

std::string saveUndo(const dumpContents& contents)
{
    const std::filesystem::path folder = host::currentConfiguration().stateFolder / "undo";
    const int error = makeFolders(folder);
    // makes sure that root's files in another user's folder stay in it
    const fileDescriptor place = openFolder(folder);
    if (!place.valid()) {
        throwUnsaved(error != 0 ? error : errno, "save the undo file in", folder.string(), contents);
    }
    std::string path;
    const int file = createUndo(place.number(), folder, contents.name, path);
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

} // namespace kest::tools
