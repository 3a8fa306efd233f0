#include "tools/kestctl/copy.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>

#include "platform/host/configuration/configuration.h"
#include "platform/host/vpd/copies.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/when.h"

namespace kest::tools
{
namespace
{

/// The device whose copy a number's is; nothing when the table has none that can be understood.
std::optional<device> ownerOf(std::uint32_t number)
{
    try {
        return findDevice(std::to_string(number));
    } catch (const failure&) {
        return std::nullopt;
    }
}

/// Name of the device that a copy belongs to; empty when the table has none.
std::string nameOf(std::uint32_t number)
{
    const auto& devices = host::currentConfiguration().devices;
    const auto found = std::ranges::find_if(devices, [number](const host::deviceEntry& entry) {
        device which;
        which.number = number;
        which.position = entry.position;
        return entry.number == number && copyIsItsOwn(which);
    });
    return found == devices.end() ? "" : found->name;
}

/// A copy needs no device: any number names one, and a name of the device table.
std::uint32_t numberOf(const std::string& which)
{
    if (!which.empty() && which[0] >= '0' && which[0] <= '9') {
        return static_cast<std::uint32_t>(parseNumber(which, "device number", 0xFFFFFFFF));
    }
    const device found = findDevice(which);
    // a text; a row of the table may have any number, also 0
    if (which.find(',') != std::string::npos) {
        throw failure{.code = exitWrongUse,
                      .what = "a copy belongs to a device number, and this device has none",
                      .tryThis = "give it a row in the device table, or name the copy by its number",
                      .device = which};
    }
    refuseForeignCopy(found);
    return found.number;
}

std::string labelOf(std::uint32_t number)
{
    const std::string name = nameOf(number);
    return name.empty() ? fmt::format("copy {}", number) : fmt::format("copy {} ({})", number, name);
}

/// Throws for the `errno` that a function of the copies answered.
void throwCopy(int error, std::uint32_t number, const std::string& step)
{
    if (error == 0) {
        return;
    }
    failure why = systemFailure(error, step, labelOf(number));
    if (error == ENOENT) {
        why.code = exitAbsent;
        why.what = "there is no such copy";
        why.tryThis = "'kestctl copy list' shows which there are";
    } else if (error == EFBIG) {
        why.what = fmt::format("more than {} bytes", host::largestCopyBytes);
    }
    throw why;
}

bool exists(std::uint32_t number)
{
    std::vector<std::uint8_t> bytes;
    const int error = host::readCopy(number, bytes);
    if (error != ENOENT) {
        throwCopy(error, number, "look at");
    }
    return error == 0;
}

int replace(const context& shared, std::uint32_t number, const byteVector& bytes, bool yes,
            const std::vector<std::uint32_t>& wavered)
{
    if (exists(number)) {
        confirm(fmt::format("{}: replace it?", labelOf(number)), yes);
    }
    throwCopy(host::replaceCopy(number, bytes), number, "write");
    if (shared.json) {
        standardOutput().json(
            {{"number", number}, {"name", nameOf(number)}, {"size", bytes.size()}, {"wavered", wavered}});
    } else {
        standardOutput().text(
            fmt::format("{}: holds {} now\n", escaped(labelOf(number)), countText(bytes.size(), "byte")));
    }
    return exitDone;
}

/// A copy of another size than its device was made from something else, or cut.
void requireSize(std::uint32_t number, std::size_t bytes, const std::string& file)
{
    const std::optional<device> owner = ownerOf(number);
    const std::uint32_t capacity = owner ? owner->end().type->bytes : 0;
    if (capacity != 0 && bytes != capacity) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} holds {}, the device {}", file, countText(bytes, "byte"), capacity),
                      .tryThis = "--force makes a copy of it all the same",
                      .device = labelOf(number)};
    }
}

} // namespace

int runCopyList(const context& shared, const copyListOptions& /*options*/)
{
    std::vector<host::copyInfo> copies;
    if (const int error = host::listCopies(copies); error != 0) {
        throw systemFailure(error, "list", "persisted copies");
    }
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    std::string text;
    for (const host::copyInfo& copy : copies) {
        rows.push_back({{"number", copy.number},
                        {"name", nameOf(copy.number)},
                        {"size", copy.sizeBytes},
                        {"modified_ms", copy.modifiedMs}});
        text += fmt::format("{:>10} {:24} {:>12}  {}\n", copy.number, escaped(nameOf(copy.number)),
                            sizeText(copy.sizeBytes), timeText(copy.modifiedMs));
    }
    if (shared.json) {
        standardOutput().json({{"copies", rows}});
    } else if (copies.empty()) {
        standardOutput().text("no persisted copies; 'kestctl copy capture DEVICE' makes one\n");
    } else {
        standardOutput().text(fmt::format("{:>10} {:24} {:>12}  {}\n", "NUMBER", "NAME", "SIZE", "CHANGED") + text);
    }
    return exitDone;
}

int runCopyImport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    const byteVector bytes = readInput(options.file, host::largestCopyBytes);
    if (bytes.empty()) {
        throw wrongUse(options.file + " is empty");
    }
    if (!options.force) {
        requireSize(number, bytes.size(), options.file);
    }
    return replace(shared, number, bytes, options.yes, {});
}

int runCopyExport(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    byteVector bytes;
    throwCopy(host::readCopy(number, bytes), number, "read");
    writeOutput(options.file, bytes, options.force);
    if (shared.json && options.file != "-") {
        standardOutput().json({{"number", number}, {"size", bytes.size()}, {"output", options.file}});
    }
    return exitDone;
}

int runCopyRemove(const context& shared, const copyOptions& options)
{
    const std::uint32_t number = numberOf(options.which);
    if (exists(number)) {
        confirm(fmt::format("{}: remove it?", labelOf(number)), options.yes);
    }
    throwCopy(host::removeCopy(number), number, "remove");
    if (shared.json) {
        standardOutput().json({{"number", number}, {"removed", true}});
    }
    return exitDone;
}

int runCopyCapture(const context& shared, const copyCaptureOptions& options)
{
    const std::uint32_t number = numberOf(options.from.device);
    seeprom chip(findDevice(options.from.device),
                 {.speedKhz = options.from.speedKhz, .votes = std::max(options.from.votes, 1U)});
    const byteVector bytes = chip.read(chip.range(0, std::nullopt), "capture");
    return replace(shared, number, bytes, options.yes, chip.wavered());
}

} // namespace kest::tools
