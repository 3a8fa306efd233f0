#include "tools/kestctl/seeprom.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/common/dumpfile.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/number.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

constexpr std::uint64_t most32Bits = 0xFFFFFFFF;
constexpr std::size_t mostDumpText = 16UL << 20;

accessOptions accessOf(const seepromOptions& options, accessMode mode)
{
    return {.mode = options.mode.empty() ? mode : parseMode(options.mode),
            .speedKhz = options.speedKhz,
            .writeCycleMs = options.writeCycleMs,
            .votes = std::max(options.votes, 1U)};
}

seeprom openSeeprom(const std::string& name, const seepromOptions& options)
{
    return {findDevice(name), accessOf(options, accessMode::hardware)};
}

/// Where a dump came from, unless the options name another device or mode.
seeprom openDumped(const dumpContents& contents, const seepromOptions& options)
{
    device which = options.device.empty() ? parseDeviceText(contents.text) : findDevice(options.device);
    if (options.device.empty()) {
        which.number = contents.number;
    }
    return {which, accessOf(options, contents.mode)};
}

std::uint64_t offsetOf(const seepromOptions& options)
{
    return options.offset.empty() ? 0 : parseSize(options.offset, "offset", most32Bits);
}

std::optional<std::uint64_t> lengthOf(const seepromOptions& options)
{
    return options.length.empty() ? std::nullopt : std::optional(parseSize(options.length, "length", most32Bits));
}

byteRange rangeOf(const seeprom& chip, const seepromOptions& options)
{
    return chip.range(offsetOf(options), lengthOf(options));
}

nlohmann::ordered_json rangeJson(const seeprom& chip, const byteRange& range)
{
    return {{"device", chip.target().label},
            {"text", chip.target().text},
            {"offset", range.offset},
            {"length", range.length}};
}

/// The first `length` bytes of a file; all of it when no length was given.
byteVector inputBytes(const std::string& file, const seeprom& chip, const seepromOptions& options)
{
    const std::uint64_t offset = offsetOf(options);
    const byteRange room = chip.range(offset, lengthOf(options));
    byteVector bytes = readInput(file, lengthOf(options) ? mostDumpText : room.length);
    if (const auto length = lengthOf(options)) {
        if (bytes.size() < *length) {
            throw wrongUse(fmt::format("{} holds {} bytes, fewer than the length {}", file, bytes.size(), *length));
        }
        // fits: no more than were read
        bytes.resize(static_cast<std::size_t>(*length));
    }
    if (bytes.empty()) {
        throw wrongUse(fmt::format("{} is empty", file));
    }
    return bytes;
}

/// The bytes given by --hex: all of them, so that a length beside them must be theirs.
byteVector hexBytes(const seepromWriteOptions& options)
{
    byteVector bytes = parseHex(options.hex, "--hex");
    const auto length = lengthOf(options.to);
    if (length && *length != bytes.size()) {
        throw wrongUse(fmt::format("--length {}: --hex gives {}", *length, countText(bytes.size(), "byte")));
    }
    return bytes;
}

int tellWrite(const context& shared, const seeprom& chip, std::uint32_t offset, std::size_t length,
              const writeReport& report, const carefulWriteOptions& care)
{
    if (shared.json) {
        auto result = rangeJson(chip, {offset, static_cast<std::uint32_t>(length)});
        result.update({{"dry_run", care.dryRun},
                       {"bytes_written", report.bytesWritten},
                       {"pages_written", report.pagesWritten},
                       {"pages_skipped", report.pagesSkipped},
                       {"verified", report.verified},
                       {"mode", modeWord(chip.touchesHardware() ? accessMode::hardware : accessMode::file)},
                       {"undo_file", report.undoFile},
                       {"wavered", chip.wavered()}});
        standardOutput().json(result);
        return exitDone;
    }
    const std::string name = escaped(chip.target().label) + (chip.touchesHardware() ? "" : " (persisted copy)");
    if (report.pagesWritten == 0) {
        standardOutput().text(fmt::format("{}: holds {} already, nothing to write\n", name,
                                          length == 1 ? "this byte" : fmt::format("these {} bytes", length)));
    } else if (care.dryRun) {
        standardOutput().text(
            fmt::format("{}: would write {} in {}; unchanged: {}\n", name, countText(report.bytesWritten, "byte"),
                        countText(report.pagesWritten, "page"), countText(report.pagesSkipped, "page")));
    } else {
        standardOutput().text(
            fmt::format("{}: wrote {} in {}; unchanged: {}; {}\n", name, countText(report.bytesWritten, "byte"),
                        countText(report.pagesWritten, "page"), countText(report.pagesSkipped, "page"),
                        report.verified ? "read back and compared" : "not verified"));
        if (!report.undoFile.empty()) {
            standardOutput().text(
                fmt::format("undo: kestctl seeprom restore {}\n", escaped(shellWord(report.undoFile))));
        }
    }
    return exitDone;
}

/// Offsets at which two byte strings of the same length differ.
std::vector<std::uint32_t> differences(const byteVector& one, const byteVector& other)
{
    std::vector<std::uint32_t> offsets;
    for (std::size_t at = 0; at < one.size(); ++at) {
        if (one[at] != other[at]) {
            offsets.push_back(static_cast<std::uint32_t>(at));
        }
    }
    return offsets;
}

/// What the device is compared with: bytes, and the name they go by.
struct comparison {
    byteRange range;
    byteVector present;
    byteVector other;
};

bool namesDevice(const std::string& other)
{
    std::error_code none;
    if (other.find(',') != std::string::npos) {
        if (!other.starts_with("sim:") && std::filesystem::exists(other, none)) {
            throw wrongUse(fmt::format("'{}': a name with a comma is taken as a device text, not as a file's", other),
                           fmt::format("give the file by '- < {}'", shellWord(other)));
        }
        return true;
    }
    try {
        return !findDevice(other).text.empty();
    } catch (const failure&) {
        return false;
    }
}

comparison compare(seeprom& chip, const seepromCompareOptions& options, bool devicesToo)
{
    comparison both;
    if (devicesToo && options.other != "-" && namesDevice(options.other)) {
        seeprom second = openSeeprom(options.other, options.with);
        both.range = rangeOf(chip, options.with);
        both.range.length = std::min(both.range.length, second.range(both.range.offset, std::nullopt).length);
        both.other = second.read(both.range, "read");
    } else {
        both.other = inputBytes(options.other, chip, options.with);
        both.range = chip.range(offsetOf(options.with), both.other.size());
    }
    both.present = chip.read(both.range, "read");
    return both;
}

int tellComparison(const context& shared, const seeprom& chip, const comparison& both,
                   const std::vector<std::uint32_t>& offsets)
{
    if (shared.json) {
        auto result = rangeJson(chip, both.range);
        nlohmann::ordered_json rows = nlohmann::ordered_json::array();
        for (const std::uint32_t at : offsets) {
            rows.push_back(
                {{"offset", both.range.offset + at}, {"device", both.present[at]}, {"other", both.other[at]}});
        }
        result.update({{"equal", offsets.empty()},
                       {"differing", offsets.size()},
                       {"differences", rows},
                       {"wavered", chip.wavered()}});
        standardOutput().json(result);
    }
    return offsets.empty() ? exitDone : exitVerifyFailed;
}

/// Lines of 16 bytes that differ, the device's marked "-", the other's "+".
std::string diffLines(const comparison& both, const std::vector<std::uint32_t>& offsets)
{
    constexpr std::uint32_t width = 16;
    std::string text;
    std::uint32_t next = 0;
    for (const std::uint32_t at : offsets) {
        if (at < next) {
            continue;
        }
        const std::uint32_t start = at / width * width;
        const std::size_t count = std::min<std::size_t>(width, both.present.size() - start);
        text += "- " + hexLines(both.range.offset + start, std::span(both.present).subspan(start, count));
        text += "+ " + hexLines(both.range.offset + start, std::span(both.other).subspan(start, count));
        next = start + width;
    }
    return text;
}

} // namespace

int runSeepromRead(const context& shared, const seepromReadOptions& options)
{
    seeprom chip = openSeeprom(options.from.device, options.from);
    const byteRange range = rangeOf(chip, options.from);
    const byteVector bytes = chip.read(range, "read");
    if (!options.output.empty()) {
        writeOutput(options.output, bytes, options.force);
    }
    if (shared.json && options.output != "-") {
        auto result = rangeJson(chip, range);
        if (options.output.empty()) {
            result["data"] = hexDigits(bytes);
        } else {
            result["output"] = options.output;
        }
        result["wavered"] = chip.wavered();
        standardOutput().json(result);
    } else if (options.output.empty()) {
        standardOutput().text(hexLines(range.offset, bytes));
    }
    return exitDone;
}

int runSeepromWrite(const context& shared, const seepromWriteOptions& options)
{
    seeprom chip = openSeeprom(options.to.device, options.to);
    const std::uint64_t offset = offsetOf(options.to);
    if (options.input.empty() == options.hex.empty()) {
        throw wrongUse("give what to write: a file by --input, or bytes by --hex");
    }
    const byteVector bytes = options.input.empty() ? hexBytes(options) : inputBytes(options.input, chip, options.to);
    const byteRange range = chip.range(offset, bytes.size());
    const writeReport report = writeCarefully(chip, range.offset, bytes, options.care);
    return tellWrite(shared, chip, range.offset, bytes.size(), report, options.care);
}

int runSeepromVerify(const context& shared, const seepromCompareOptions& options)
{
    seeprom chip = openSeeprom(options.with.device, options.with);
    const comparison both = compare(chip, options, false);
    const auto offsets = differences(both.present, both.other);
    if (!shared.json) {
        const std::string name = escaped(chip.target().label);
        if (offsets.empty()) {
            standardOutput().text(fmt::format("{}: equal, {}\n", name, countText(both.range.length, "byte")));
        } else {
            standardOutput().text(fmt::format("{}: {} of {} bytes differ, the first at offset {} (0x{:X})\n", name,
                                              offsets.size(), both.range.length, both.range.offset + offsets.front(),
                                              both.range.offset + offsets.front()));
        }
    }
    return tellComparison(shared, chip, both, offsets);
}

int runSeepromDiff(const context& shared, const seepromCompareOptions& options)
{
    seeprom chip = openSeeprom(options.with.device, options.with);
    const comparison both = compare(chip, options, true);
    const auto offsets = differences(both.present, both.other);
    if (!shared.json) {
        standardOutput().text(diffLines(both, offsets));
    }
    return tellComparison(shared, chip, both, offsets);
}

int runSeepromDump(const context& shared, const seepromDumpOptions& options)
{
    seeprom chip = openSeeprom(options.from.device, options.from);
    const byteRange range = rangeOf(chip, options.from);
    const byteVector bytes = chip.read(range, "dump");
    const std::string text = dumpText(dumpOf(chip, range.offset, bytes));
    writeOutput(options.output, std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()), true);
    // the dump itself is JSON, too
    if (shared.json && options.output != "-") {
        auto result = rangeJson(chip, range);
        result["output"] = options.output;
        result["wavered"] = chip.wavered();
        standardOutput().json(result);
    }
    return exitDone;
}

int runSeepromRestore(const context& shared, const seepromRestoreOptions& options)
{
    const auto raw = readInput(options.file, mostDumpText);
    const dumpContents contents =
        parseDump(options.file, std::string(reinterpret_cast<const char*>(raw.data()), raw.size()));
    if (!contents.proved) {
        std::fputs(fmt::format("kestctl: {}: an older dump: its sum covers the data alone, device and offset are not "
                               "proved\n",
                               escaped(options.file))
                       .c_str(),
                   stderr);
    }
    seeprom chip = openDumped(contents, options.to);
    if (const device saved = parseDeviceText(contents.text); saved.end().type != chip.target().end().type) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} was saved from a {}, this is a {}", options.file, saved.end().type->chip,
                                          chip.target().end().type->chip),
                      .device = chip.target().label};
    }
    const byteRange range = chip.range(contents.offset, contents.bytes.size());
    const writeReport report = writeCarefully(chip, range.offset, contents.bytes, options.care);
    return tellWrite(shared, chip, range.offset, contents.bytes.size(), report, options.care);
}

} // namespace kest::tools
