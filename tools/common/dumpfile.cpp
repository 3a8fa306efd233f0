#include "tools/common/dumpfile.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <system_error>
#include <unistd.h>

#include "platform/host/files/files.h"
#include "platform/host/registry/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace kest::tools
{
namespace
{

constexpr const char* formatName   = "kest-dump-1";
constexpr std::size_t bytesPerLine = 32;

/// A value of the dump's JSON, or a failure that names the key.
template <typename Value>
Value valueOf(const nlohmann::json& dump, const std::string& fileName, const char* key, const char* expected)
{
    try {
        return dump.at(key).get<Value>();
    } catch (const nlohmann::json::exception&) {
        throw wrongUse(fmt::format("{}: key \"{}\": expected {}", fileName, key, expected));
    }
}

/// A name that is safe in a file name.
std::string fileNameOf(const std::string& label)
{
    std::string name = label.substr(0, 48);
    std::ranges::replace_if(
        name, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_'; }, '_');
    return name;
}

/// Creates a file that nobody has yet in the folder that is open at `place`. @return its descriptor, -1 with errno
int createUndo(int place, const std::filesystem::path& folder, const std::string& label, std::string& path)
{
    const auto now  = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    int        file = -1;
    for (int number = 0; file < 0; ++number) {
        const std::string again = number == 0 ? "" : fmt::format("-{}", number);
        const std::string name = fmt::format("{}-{:%Y%m%dT%H%M%SZ}{}.json", fileNameOf(label), fmt::gmtime(now), again);
        path                   = folder / name;
        file                   = host::createFileIn(place, name.c_str(), O_WRONLY, 0600).release();
        if (file < 0 && errno != EEXIST)
            return -1;
    }
    return file;
}

bool writeAll(int file, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return fsync(file) == 0;
}

void syncFolder(const std::filesystem::path& folder)
{
    const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle >= 0) {
        fsync(handle);
        close(handle);
    }
}

} // namespace

std::uint32_t crc32(std::span<const unsigned char> bytes)
{
    std::uint32_t sum = 0xFFFFFFFF;
    for (const unsigned char byte : bytes) {
        sum ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            sum = sum >> 1 ^ ((sum & 1) != 0 ? 0xEDB88320U : 0U);
    }
    return ~sum;
}

std::string dumpText(const dumpContents& contents)
{
    nlohmann::ordered_json lines = nlohmann::ordered_json::array();
    const std::span        bytes(contents.bytes);
    for (std::size_t at = 0; at < bytes.size(); at += bytesPerLine)
        lines.push_back(hexDigits(bytes.subspan(at, std::min(bytesPerLine, bytes.size() - at))));
    const nlohmann::ordered_json dump{{"format", formatName},   {"device", contents.text},
                                      {"name", contents.name},  {"offset", contents.offset},
                                      {"length", bytes.size()}, {"sum", fmt::format("{:08x}", crc32(bytes))},
                                      {"data", lines}};
    return dump.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

dumpContents parseDump(const std::string& fileName, const std::string& text)
{
    const nlohmann::json dump = nlohmann::json::parse(text, nullptr, false);
    if (!dump.is_object())
        throw wrongUse(fileName + ": not a dump file (no JSON object)", "'kestctl seeprom dump' makes one");
    if (valueOf<std::string>(dump, fileName, "format", "\"kest-dump-1\"") != formatName)
        throw wrongUse(fmt::format("{}: key \"format\": expected \"{}\"", fileName, formatName));
    dumpContents contents;
    contents.text   = valueOf<std::string>(dump, fileName, "device", "a device text");
    contents.name   = valueOf<std::string>(dump, fileName, "name", "a text");
    const auto from = valueOf<std::int64_t>(dump, fileName, "offset", "a number");
    if (from < 0 || from > 0xFFFFFFFFLL)
        throw wrongUse(fmt::format("{}: key \"offset\": expected a number of 32 bits", fileName));
    contents.offset = static_cast<std::uint32_t>(from);
    for (const auto& line : valueOf<std::vector<std::string>>(dump, fileName, "data", "texts of hexadecimal digits")) {
        const byteVector bytes = parseHex(line, fileName + ": data");
        contents.bytes.insert(contents.bytes.end(), bytes.begin(), bytes.end());
    }
    if (valueOf<std::int64_t>(dump, fileName, "length", "a number") != static_cast<std::int64_t>(contents.bytes.size()))
        throw wrongUse(fmt::format("{}: key \"length\": the data hold {} bytes", fileName, contents.bytes.size()));
    const std::string sum = fmt::format("{:08x}", crc32(contents.bytes));
    if (valueOf<std::string>(dump, fileName, "sum", "a check sum") != sum)
        throw wrongUse(fmt::format("{}: the check sum does not match the data: the file was changed", fileName));
    return contents;
}

std::string saveUndo(const device& which, std::uint32_t offset, const byteVector& bytes)
{
    const std::filesystem::path folder = host::currentConfiguration().stateFolder / "undo";
    const int                   error  = host::makeFolders(folder);
    const host::fileDescriptor  place  = host::openFolder(folder); // root's in another user's folder stay there
    if (!place.valid())
        throw systemFailure(error != 0 ? error : errno, "save the undo file in", folder.string());
    std::string path;
    const int   file = createUndo(place.number(), folder, which.label, path);
    if (file < 0)
        throw systemFailure(errno, "save the undo file", path);
    const bool written = writeAll(file, dumpText({which.text, which.label, offset, bytes}));
    const int  why     = errno;
    close(file);
    if (!written) {
        unlinkat(place.number(), std::filesystem::path(path).filename().c_str(), 0);
        throw systemFailure(why, "save the undo file", path);
    }
    syncFolder(folder);
    return path;
}

} // namespace kest::tools
