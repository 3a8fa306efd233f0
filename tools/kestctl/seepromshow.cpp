#include "tools/kestctl/seepromshow.h"

#include <cerrno>
#include <fmt/core.h>
#include <utility>

#include "contents/reader.h"
#include "platform/host/vpd/copyformat.h"
#include "tools/common/dumpfile.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/heldread.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/contentformat.h"
#include "tools/kestctl/contentjson.h"
#include "tools/kestctl/contenttext.h"
#include "tools/kestctl/deviceorfile.h"
#include "tools/kestctl/seepromchoice.h"

namespace kest::tools
{
namespace
{

struct showOptions {
    seepromOptions from;
    std::string format; ///< empty: the one that is recognised
    contentTextOptions text;
};

/// The bytes that are shown, and where they come from.
struct shownBytes {
    std::string label{};
    byteVector bytes{};
    std::uint32_t offset = 0; ///< of the first of them
    jsonValue json{}; ///< an object
};

/// Whether the check sums of a copy's file prove every byte of the device.
bool provesAll(std::span<const std::uint8_t> file, const host::copyLayout& layout)
{
    for (std::uint32_t block = 0; block < layout.blocks(); ++block) {
        const std::size_t at = layout.dataOffset() + std::size_t{block} * host::copyBlockBytes;
        if (!host::provesBlock(file.subspan(layout.sumOffset(block), host::copyLayout::sumBytes),
                               file.subspan(at, layout.blockBytes(block)))) {
            return false;
        }
    }
    return true;
}

/// The device's bytes in a file of a persisted copy; any other file as it is.
byteVector bytesOfFile(const std::string& name, byteVector file)
{
    host::copyHeader header;
    const host::copyKind kind = host::kindOfCopy(file, header);
    if (kind == host::copyKind::raw) {
        return file;
    }
    const host::copyLayout layout(header.heldBytes);
    int error = host::copyError(kind, file.size());
    if (error == 0 && !provesAll(file, layout)) {
        error = EBADMSG;
    }
    if (error != 0) {
        failure why = systemFailure(error, "show", name);
        why.tryThis = "'kestctl copy export --force' writes the bytes that a damaged copy holds";
        throw why;
    }
    const auto bytes = std::span<const std::uint8_t>(file).subspan(layout.dataOffset(), layout.heldBytes());
    return {bytes.begin(), bytes.end()};
}

/// The part of a file that --offset and --length choose.
byteVector chosenPart(const std::string& name, const byteVector& bytes, const seepromOptions& options)
{
    const std::uint64_t offset = offsetOf(options);
    if (offset >= bytes.size()) {
        throw wrongUse(fmt::format("{} has {} bytes: there are none at offset {}", name, bytes.size(), offset));
    }
    const std::uint64_t room = bytes.size() - offset;
    const std::uint64_t length = lengthOf(options).value_or(room);
    if (length > room || length == 0) {
        throw wrongUse(fmt::format("{} has {} bytes from offset {} on: {} can't be shown", name, room, offset, length));
    }
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {first, first + static_cast<std::ptrdiff_t>(length)};
}

shownBytes fromFile(const seepromOptions& options)
{
    const std::string& name = options.device;
    requireFile(name, "show");
    const byteVector bytes = bytesOfFile(name, readInput(name, host::largestCopyFileBytes));
    shownBytes shown{.label = name,
                     .bytes = chosenPart(name, bytes, options),
                     .offset = static_cast<std::uint32_t>(offsetOf(options))};
    shown.json = {{"file", name}, {"offset", shown.offset}, {"length", shown.bytes.size()}};
    return shown;
}

shownBytes fromDevice(const seepromOptions& options)
{
    seeprom chip = openSeeprom(options.device, options);
    const byteRange range = rangeOf(chip, options);
    const operationRequest reading{.use = operationUse::read, .doing = "seeprom show", .waitNs = options.waitNs};
    byteVector bytes = readHeld(chip, range, "show", reading);
    return {.label = chip.target().label,
            .bytes = std::move(bytes),
            .offset = range.offset,
            .json = rangeJson(chip, range)};
}

int runSeepromShow(const context& shared, const showOptions& options)
{
    shownBytes shown = namesDevice(options.from.device) ? fromDevice(options.from) : fromFile(options.from);
    try {
        const contents::format& as = formatOf(shown.bytes, options.format);
        const contents::reading what = contents::readAs(as, shown.bytes);
        if (shared.json) {
            addContentJson(shown.json, what);
            standardOutput().json(shown.json);
        } else {
            const std::string from = shown.offset == 0 ? "" : fmt::format(" from offset {}", shown.offset);
            standardOutput().text(
                fmt::format("{}: {}, {} bytes{}\n", escaped(shown.label), as.title, shown.bytes.size(), from));
            standardOutput().text(contentText(what, options.text));
        }
        return contents::isWhole(what) ? exitDone : exitVerifyFailed;
    } catch (failure& why) {
        why.device = shown.label;
        why.step = "show";
        throw;
    }
}

} // namespace

void addSeepromShow(command area, context& shared)
{
    const auto options = std::make_shared<showOptions>();
    command verb =
        addVerb(area, "show", "say what the bytes mean, field by field; exit code 5 if they are damaged", typeCaution);
    verb.text("DEVICE", options->from.device,
              "name, number or device text; or a file with its bytes or a persisted copy, - for standard input")
        .required();
    verb.text("--as", options->format, "read the bytes as this format: " + formatNames() + " (default: find out)",
              "FORMAT");
    verb.flag("--offsets", options->text.offsets,
              "show where each field lies, counted from the first byte that is shown");
    verb.flag("--names", options->text.names, "show the fields' names, as JSON has them, instead of labels");
    addForce(verb, options->from);
    addChoice(verb, options->from);
    runs(verb, shared, options, runSeepromShow);
}

} // namespace kest::tools
