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
#include <set>
#include <system_error>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace kest::tools
{
namespace
{

using nlohmann::json;
using nlohmann::ordered_json;

constexpr const char* formatName = "kest-dump-2";
constexpr const char* oldFormatName = "kest-dump-1"; ///< has neither number nor mode, and its sum covers the data alone
constexpr std::size_t bytesPerLine = 32;

/// The text that a JSON value stands as in sums and files.
std::string textOf(const ordered_json& value, int indent)
{
    return value.dump(indent, ' ', true, ordered_json::error_handler_t::replace);
}

/// All of a dump but its sum.
ordered_json withoutSum(const dumpContents& contents)
{
    ordered_json lines = ordered_json::array();
    const std::span bytes(contents.bytes);
    for (std::size_t at = 0; at < bytes.size(); at += bytesPerLine) {
        lines.push_back(hexDigits(bytes.subspan(at, std::min(bytesPerLine, bytes.size() - at))));
    }
    return {{"format", formatName},
            {"device", contents.text},
            {"name", contents.name},
            {"number", contents.number},
            {"mode", modeWord(contents.mode)},
            {"offset", contents.offset},
            {"length", bytes.size()},
            {"data", lines}};
}

/// Of the contents as one line of JSON: every value counts, and how a file is laid out does not.
std::string sumOf(const dumpContents& contents)
{
    const std::string text = textOf(withoutSum(contents), -1);
    return fmt::format("{:08x}", crc32(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size())));
}

/// The JSON of a dump file, taken key by key; every complaint names file and key.
class dumpReader
{
public:
    dumpReader(const std::string& fileName, const std::string& text) : m_fileName(fileName)
    {
        std::set<std::string> keys;
        const auto noteKey = [&](int depth, json::parse_event_t event, const json& value) {
            if (event == json::parse_event_t::key && depth == 1 && !keys.insert(value.get<std::string>()).second) {
                throw wrong(value.get<std::string>(), "is there twice");
            }
            return true;
        };
        m_dump = json::parse(text, noteKey, false);
        if (!m_dump.is_object()) {
            throw wrongUse(m_fileName + ": not a dump file (no JSON object)", "'kestctl seeprom dump' makes one");
        }
    }

    std::string text(const char* key, const char* expected)
    {
        const json& value = take(key, expected);
        if (!value.is_string()) {
            throw wrong(key, std::string("expected ") + expected);
        }
        return value.get<std::string>();
    }

    std::uint32_t number(const char* key)
    {
        constexpr const char* expected = "a whole number of 32 bits";
        const json& value = take(key, expected);
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() > 0xFFFFFFFFU) {
            throw wrong(key, std::string("expected ") + expected);
        }
        return value.get<std::uint32_t>();
    }

    byteVector data()
    {
        constexpr const char* expected = "texts of hexadecimal digits";
        byteVector bytes;
        const json& lines = take("data", expected);
        if (!lines.is_array()) {
            throw wrong("data", std::string("expected ") + expected);
        }
        for (const json& line : lines) {
            if (!line.is_string()) {
                throw wrong("data", std::string("expected ") + expected);
            }
            const byteVector more = parseHex(line.get<std::string>(), m_fileName + ": key \"data\"");
            bytes.insert(bytes.end(), more.begin(), more.end());
        }
        return bytes;
    }

    /// Throws when a key is left that nobody took.
    void end() const
    {
        for (const auto& [key, value] : m_dump.items()) {
            if (!m_taken.contains(key)) {
                throw wrong(key, "is not known");
            }
        }
    }

    [[nodiscard]] failure wrong(const std::string& key, const std::string& complaint) const
    {
        return wrongUse(fmt::format("{}: key \"{}\": {}", m_fileName, key, complaint));
    }

private:
    const json& take(const char* key, const char* expected)
    {
        const auto found = m_dump.find(key);
        if (found == m_dump.end()) {
            throw wrong(key, std::string("expected ") + expected);
        }
        m_taken.insert(key);
        return *found;
    }

    const std::string& m_fileName;
    json m_dump;
    std::set<std::string> m_taken;
};

accessMode readPlace(dumpReader& dump)
{
    const std::string word = dump.text("mode", "\"hardware\" or \"file\"");
    for (const accessMode place : {accessMode::hardware, accessMode::file}) {
        if (word == modeWord(place)) {
            return place;
        }
    }
    throw dump.wrong("mode", "expected \"hardware\" or \"file\"");
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
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    int file = -1;
    for (int number = 0; file < 0; ++number) {
        const std::string again = number == 0 ? "" : fmt::format("-{}", number);
        const std::string name = fmt::format("{}-{:%Y%m%dT%H%M%SZ}{}.json", fileNameOf(label), fmt::gmtime(now), again);
        path = folder / name;
        file = createFileIn(place, name.c_str(), O_WRONLY, 0600).release();
        if (file < 0 && errno != EEXIST) {
            return -1;
        }
    }
    return file;
}

/// Nothing has been written then: the device is as it was.
[[noreturn]] void throwUnsaved(int error, const std::string& step, const std::string& path,
                               const dumpContents& contents)
{
    failure why = systemFailure(error, step, path);
    logFailure(why, {.reason = reasonUndoUnsaved, .words = {static_cast<std::uint32_t>(error)}, .text = contents.text});
    throw why;
}

} // namespace

std::uint32_t crc32(std::span<const unsigned char> bytes)
{
    std::uint32_t sum = 0xFFFFFFFF;
    for (const unsigned char byte : bytes) {
        sum ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            sum = sum >> 1 ^ ((sum & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    return ~sum;
}

dumpContents dumpOf(const seeprom& chip, std::uint32_t offset, const byteVector& bytes)
{
    return {.text = chip.target().text,
            .name = chip.target().label,
            .number = chip.target().number,
            .mode = chip.touchesHardware() ? accessMode::hardware : accessMode::file,
            .offset = offset,
            .bytes = bytes};
}

std::string dumpText(const dumpContents& contents)
{
    ordered_json dump = withoutSum(contents);
    dump["sum"] = sumOf(contents);
    return textOf(dump, 2) + "\n";
}

dumpContents parseDump(const std::string& fileName, const std::string& text)
{
    dumpReader dump(fileName, text);
    dumpContents contents;
    const std::string format = dump.text("format", "\"kest-dump-2\"");
    contents.proved = format == formatName;
    if (!contents.proved && format != oldFormatName) {
        throw dump.wrong("format", fmt::format("expected \"{}\"", formatName));
    }
    contents.text = dump.text("device", "a device text");
    contents.name = dump.text("name", "a text");
    if (contents.proved) {
        contents.number = dump.number("number");
        contents.mode = readPlace(dump);
    }
    contents.offset = dump.number("offset");
    contents.bytes = dump.data();
    const std::uint32_t length = dump.number("length");
    const std::string sum = dump.text("sum", "a check sum");
    dump.end();
    if (length != contents.bytes.size()) {
        throw dump.wrong("length", fmt::format("the data hold {} bytes", contents.bytes.size()));
    }
    if (sum != (contents.proved ? sumOf(contents) : fmt::format("{:08x}", crc32(contents.bytes)))) {
        throw wrongUse(fmt::format("{}: the check sum does not match the {}: the file was changed", fileName,
                                   contents.proved ? "contents" : "data"));
    }
    return contents;
}

std::string saveUndo(const dumpContents& contents)
{
    const std::filesystem::path folder = host::currentConfiguration().stateFolder / "undo";
    const int error = makeFolders(folder);
    // root's in another user's folder stay there
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
