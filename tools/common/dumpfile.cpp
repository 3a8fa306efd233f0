#include "tools/common/dumpfile.h"

#include <algorithm>
#include <fmt/core.h>
#include <span>

#include "base/crc32.h"
#include "base/hex.h"
#include "tools/common/dumpreader.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/json.h"

namespace kest::tools
{
namespace
{

constexpr const char* formatName = "kest-dump-2";
/// The previous format. It has neither number nor mode, and its sum covers only the data.
constexpr const char* oldFormatName = "kest-dump-1";
constexpr std::size_t bytesPerLine = 32;

/// A dump without its sum.
jsonValue withoutSum(const dumpContents& contents)
{
    jsonList lines;
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

std::string sumText(std::span<const unsigned char> bytes) { return fmt::format("{:08x}", crc32(bytes)); }

/// The sum of the contents as one line of JSON: every value counts, the layout of a file does not.
std::string sumOf(const dumpContents& contents)
{
    const std::string text = withoutSum(contents).dump(-1);
    return sumText(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

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

} // namespace

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
    jsonValue dump = withoutSum(contents);
    dump.add("sum", sumOf(contents));
    return dump.dump(2) + "\n";
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
    if (sum != (contents.proved ? sumOf(contents) : sumText(contents.bytes))) {
        throw wrongUse(fmt::format("{}: the check sum does not match the {}: the file was changed", fileName,
                                   contents.proved ? "contents" : "data"));
    }
    return contents;
}

} // namespace kest::tools
