#include "platform/host/vpd/copies.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "base/filelock.h"
#include "base/files.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/vpd/copyfile.h"

namespace kest::host
{

namespace
{

constexpr const char* lockName = ".lock";

/// A root is names of letters, digits, '_' and '-' with single slashes between them: it never leads out of the state
/// folder.
bool wellFormed(std::string_view root)
{
    constexpr std::size_t longestRoot = 255;
    const auto known = [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '_' || letter == '-' || letter == '/';
    };
    return !root.empty() && root.size() <= longestRoot && std::ranges::all_of(root, known) && root.front() != '/' &&
           root.back() != '/' && root.find("//") == root.npos;
}

std::filesystem::path rootFolder(std::string_view root) { return currentConfiguration().stateFolder / root; }

/// The file of a copy, as a text: a path would be taken apart for each read.
std::string fileOf(std::uint32_t number, std::string_view root)
{
    const std::string& state = currentConfiguration().stateFolder.native();
    const std::string name = std::to_string(number);
    std::string file;
    file.reserve(state.size() + root.size() + name.size() + 2);
    file.append(state).append(1, '/').append(root).append(1, '/').append(name);
    return file;
}

/// @return whether a file name is a copy's: a device number as std::to_string() writes it
bool parseNumber(const std::string& name, std::uint32_t& number)
{
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), number);
    return parsed.ec == std::errc() && name == std::to_string(number);
}

/// Does `change` while no one else changes a copy under the root.
template <typename Change>
int exclusively(std::string_view root, Change change)
{
    const fileLock lock(rootFolder(root) / lockName);
    return lock.error() == 0 ? change() : lock.error();
}

/// Asked before the lock is taken, so that a copy that is not there makes no folder. @return 0 or an `errno` value
int findCopy(std::uint32_t number, std::string_view root)
{
    if (!wellFormed(root)) {
        return EINVAL;
    }
    return access(fileOf(number, root).c_str(), F_OK) == 0 ? 0 : errno;
}

/// Describes the copy of a file that was found at its place.
void inspect(const copyFile& file, int error, copyInfo& found)
{
    if (error == 0) {
        error = file.check(found.damaged);
    }
    found.facts = file.facts();
    found.sizeBytes = file.sizeBytes();
    if (error == EBADMSG || !found.damaged.empty()) {
        found.state = copyState::damaged;
    } else if (error == 0 && file.sizeBytes() == 0) {
        // no copy is made without bytes: they were lost
        found.state = copyState::damaged;
    } else if (error == 0) {
        found.state = file.hasSums() ? copyState::proved : copyState::unproved;
    }
    for (std::uint32_t& block : found.damaged) {
        block *= copyBlockBytes;
    }
}

/// Changes a whole file in memory. @return 0 or an `errno` value
int changeFile(std::vector<std::uint8_t>& file, const copyHeader& header, std::uint32_t offset,
               std::span<const std::uint8_t> bytes, copyFinding& found)
{
    if (found.proved) {
        const auto damaged = changeCopyFile(file, copyLayout(header.heldBytes), offset, bytes);
        found.damagedAt = damaged ? *damaged * copyBlockBytes : damageOutsideBlocks;
        return damaged ? EBADMSG : 0;
    }
    std::ranges::copy(bytes, file.begin() + offset);
    copyHeader none;
    return kindOfCopy(file, none) == copyKind::raw ? 0 : EILSEQ;
}

/// The work of changeCopy(), which holds the lock.
int changeLocked(const std::filesystem::path& path, std::uint32_t offset, std::span<const std::uint8_t> bytes,
                 copyFinding& found)
{
    std::vector<std::uint8_t> file;
    if (const int error = readFile(path, largestCopyFileBytes, file); error != 0) {
        return error == EINVAL ? ESPIPE : error;
    }
    copyHeader header;
    const copyKind kind = kindOfCopy(file, header);
    if (const int error = copyError(kind, file.size()); error != 0) {
        return error;
    }
    found.proved = kind == copyKind::withSums;
    found.sizeBytes = found.proved ? header.heldBytes : file.size();
    if (offset > found.sizeBytes || bytes.size() > found.sizeBytes - offset) {
        return ERANGE;
    }
    if (bytes.empty()) {
        return 0;
    }
    const int error = changeFile(file, header, offset, bytes, found);
    return error == 0 ? replaceFile(path, file) : error;
}

} // namespace

std::filesystem::path copyPath(std::uint32_t number, std::string_view root) { return fileOf(number, root); }

int listCopies(std::vector<copyInfo>& copies, std::string_view root)
{
    copies.clear();
    if (!wellFormed(root)) {
        return EINVAL;
    }
    std::error_code error;
    std::filesystem::directory_iterator entry(rootFolder(root), error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        copyInfo copy;
        if (parseNumber(entry->path().filename().string(), copy.number) && checkCopy(copy.number, copy, root) == 0) {
            copies.push_back(std::move(copy));
        }
    }
    std::ranges::sort(copies, {}, &copyInfo::number);
    return error == std::errc::no_such_file_or_directory ? 0 : error.value();
}

int checkCopy(std::uint32_t number, copyInfo& found, std::string_view root)
{
    found = {.number = number};
    if (!wellFormed(root)) {
        return EINVAL;
    }
    const std::string path = fileOf(number, root);
    struct stat facts {
    };
    if (stat(path.c_str(), &facts) != 0) {
        return errno;
    }
    if (!S_ISREG(facts.st_mode)) {
        return S_ISDIR(facts.st_mode) ? EISDIR : ESPIPE;
    }
    found.modifiedMs = std::int64_t{facts.st_mtim.tv_sec} * 1000 + facts.st_mtim.tv_nsec / 1'000'000;
    copyFile file;
    inspect(file, file.open(path.c_str()), found);
    return 0;
}

int readCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root)
{
    copyFinding found;
    return readCopyPart(number, 0, largestCopyBytes, bytes, found, root);
}

int readCopyPart(std::uint32_t number, std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
                 copyFinding& found, std::string_view root)
{
    found = {};
    if (!wellFormed(root)) {
        return EINVAL;
    }
    copyFile file;
    if (const int error = file.open(fileOf(number, root).c_str()); error != 0) {
        return error;
    }
    found.sizeBytes = file.sizeBytes();
    found.proved = file.hasSums();
    std::uint32_t damagedBlock = damageOutsideBlocks / copyBlockBytes;
    const int error = file.read(offset, most, bytes, damagedBlock);
    found.damagedAt =
        damagedBlock < largestCopyBytes / copyBlockBytes ? damagedBlock * copyBlockBytes : found.damagedAt;
    return error;
}

int salvageCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root)
{
    if (!wellFormed(root)) {
        return EINVAL;
    }
    std::vector<std::uint8_t> file;
    if (const int error = readFile(copyPath(number, root), largestCopyFileBytes, file); error != 0) {
        return error == EINVAL ? ESPIPE : error;
    }
    const auto held = unprovedBytesOf(file);
    bytes.assign(held.begin(), held.end());
    return 0;
}

int replaceCopy(std::uint32_t number, std::span<const std::uint8_t> bytes, const copyFacts& facts,
                std::string_view root)
{
    if (!wellFormed(root) || bytes.empty()) {
        return EINVAL;
    }
    if (bytes.size() > largestCopyBytes) {
        return EFBIG;
    }
    if (const int error = makeFolders(rootFolder(root)); error != 0) {
        return error;
    }
    const std::vector<std::uint8_t> file = copyFileOf(bytes, facts);
    return exclusively(root, [&] { return replaceFile(copyPath(number, root), file); });
}

int changeCopy(std::uint32_t number, std::uint32_t offset, std::span<const std::uint8_t> bytes, copyFinding& found,
               std::string_view root)
{
    found = {};
    if (const int error = findCopy(number, root); error != 0) {
        return error;
    }
    return exclusively(root, [&] { return changeLocked(copyPath(number, root), offset, bytes, found); });
}

int removeCopy(std::uint32_t number, std::string_view root)
{
    if (const int error = findCopy(number, root); error != 0) {
        return error;
    }
    return exclusively(root, [&] {
        if (unlink(copyPath(number, root).c_str()) != 0) {
            return errno;
        }
        return syncFolder(rootFolder(root));
    });
}

} // namespace kest::host
