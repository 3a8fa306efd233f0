#include "platform/host/vpd/copies.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/filelock.h"
#include "base/files.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"

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

std::filesystem::path fileOf(std::string_view root, std::uint32_t number)
{
    // a path is taken apart only once
    std::string file = currentConfiguration().stateFolder.native();
    file += '/';
    file += root;
    file += '/';
    file += std::to_string(number);
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
    return access(fileOf(root, number).c_str(), F_OK) == 0 ? 0 : errno;
}

} // namespace

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
        struct stat facts {
        };
        if (parseNumber(entry->path().filename().string(), copy.number) && stat(entry->path().c_str(), &facts) == 0 &&
            S_ISREG(facts.st_mode)) {
            copy.sizeBytes = static_cast<std::uint64_t>(facts.st_size);
            copy.modifiedMs = std::int64_t{facts.st_mtim.tv_sec} * 1000 + facts.st_mtim.tv_nsec / 1'000'000;
            copies.push_back(copy);
        }
    }
    std::ranges::sort(copies, {}, &copyInfo::number);
    return error == std::errc::no_such_file_or_directory ? 0 : error.value();
}

int readCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root)
{
    std::uint64_t sizeBytes = 0;
    return readCopyPart(number, 0, largestCopyBytes, bytes, sizeBytes, root);
}

int readCopyPart(std::uint32_t number, std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
                 std::uint64_t& sizeBytes, std::string_view root)
{
    sizeBytes = 0;
    if (!wellFormed(root)) {
        return EINVAL;
    }
    const int error = readFilePart(fileOf(root, number), largestCopyBytes, offset, most, bytes, sizeBytes);
    return error == EINVAL ? ESPIPE : error;
}

int replaceCopy(std::uint32_t number, std::span<const std::uint8_t> bytes, std::string_view root)
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
    return exclusively(root, [&] { return replaceFile(fileOf(root, number), bytes); });
}

int changeCopy(std::uint32_t number, std::uint32_t offset, std::span<const std::uint8_t> bytes,
               std::uint64_t& sizeBytes, std::string_view root)
{
    sizeBytes = 0;
    if (const int error = findCopy(number, root); error != 0) {
        return error;
    }
    return exclusively(root, [&] {
        std::vector<std::uint8_t> copy;
        const int error = readCopy(number, copy, root);
        sizeBytes = copy.size();
        if (error != 0) {
            return error;
        }
        if (offset > copy.size() || bytes.size() > copy.size() - offset) {
            return ERANGE;
        }
        if (bytes.empty()) {
            return 0;
        }
        std::ranges::copy(bytes, copy.begin() + offset);
        return replaceFile(fileOf(root, number), copy);
    });
}

int removeCopy(std::uint32_t number, std::string_view root)
{
    if (const int error = findCopy(number, root); error != 0) {
        return error;
    }
    return exclusively(root, [&] {
        if (unlink(fileOf(root, number).c_str()) != 0) {
            return errno;
        }
        return syncFolder(rootFolder(root));
    });
}

} // namespace kest::host
