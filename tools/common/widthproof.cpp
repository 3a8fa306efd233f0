#include "tools/common/widthproof.h"

#include <fmt/core.h>
#include <optional>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/firstundo.h"
#include "tools/common/hubproof.h"
#include "tools/common/interrupt.h"
#include "tools/common/offsetreads.h"
#include "tools/common/shortpart.h"
#include "tools/common/signalblock.h"

namespace kest::tools
{
namespace
{

// A read through a hub that fails leaves a status, and so may each read at another address. Taking them is a read, too.
constexpr unsigned mostStatusReads = 5;

std::optional<widthFinding> askHub(offsetReads& reads)
{
    const hubQuestion question{
        .readStatus = [&reads](std::span<const std::uint8_t> offset,
                               std::span<std::uint8_t> into) { return reads.readStatus(offset, into); },
        .clearStatus = [&reads] { return reads.clearStatus(); }};
    return proveByHub(question);
}

widthQuestion questionFor(offsetReads& reads, const device& which, const byteRange& written)
{
    return {.read = [&reads](std::span<const std::uint8_t> offset,
                             std::span<std::uint8_t> into) { return reads.read(offset, into); },
            .readOther = [&reads](std::uint8_t address,
                                  std::span<std::uint8_t> into) { return reads.readOther(address, into); },
            .address = which.end().address,
            .mostBytes = reads.mostBytes(),
            .mostReads = widthReads::most - reads.count() - (reads.behindHub() ? mostStatusReads : 0),
            .offset = written.offset,
            .length = written.length};
}

widthFinding proveByReads(offsetReads& reads, const device& which, const byteRange& written)
{
    const widthQuestion question = questionFor(reads, which, written);
    return widthEngine(question).run();
}

/// A read behind two offset bytes changes one byte of a part with one: where more differ than there were reads, the part
/// gives others without a change.
std::size_t differing(const firstContent& now, const firstContent& first)
{
    std::size_t bytes = 0;
    for (std::size_t at = 0; at < first.size(); ++at) {
        bytes += now.at(at) == first[at] ? 0 : 1;
    }
    return bytes;
}

/// Saves the bytes that a part with one offset byte held. @return how to restore them, or why they could not be saved
std::string keptFirst(const seeprom& chip, const firstContent& first)
{
    try {
        return firstUndo(chip, first).keep();
    } catch (const failure& why) {
        return why.what;
    }
}

/// Puts the bytes back that the proof itself changed.
void undoTouch(const device& which, std::uint32_t speedKhz, widthFinding& finding)
{
    const seeprom chip(which, {.mode = accessMode::hardware, .speedKhz = speedKhz, .force = true});
    const firstAgain now = readFirstAgain(chip);
    if (now.unlike || now.bytes == finding.first ||
        (now.bytes && differing(*now.bytes, finding.first) > finding.reads)) {
        return;
    }
    if (putBack(chip, finding.first)) {
        finding.seen += "; an offset byte of a read changed the part, which holds its old bytes again";
        return;
    }
    finding.seen +=
        "; whether a read behind two offset bytes changed a byte is not known: " + keptFirst(chip, finding.first);
    finding.verdict = isProved(finding) ? widthVerdict::notDecidable : finding.verdict;
    finding.first.clear();
}

} // namespace

unsigned offsetBytesOf(const deviceTypeInfo& type) { return type.bytes > widthReads::firstBytes ? 2 : 1; }

widthFinding proveWidth(const device& which, std::uint32_t speedKhz, const byteRange& written)
{
    offsetReads reads(which, speedKhz);
    widthFinding finding{.seen = reads.trouble()};
    if (!finding.seen.empty()) {
        finding.error = reads.error();
        return finding;
    }
    // a signal ends the wait for it
    auto hub = reads.holdHub();
    throwIfInterrupted(which.label, "width proof");
    if (hub && hub->error() != 0) {
        finding.seen = "the hub can't be had";
        finding.error = hub->error();
        return finding;
    }
    const signalBlock quiet;
    const auto byHub = reads.behindHub() ? askHub(reads) : std::nullopt;
    finding = byHub ? *byHub : proveByReads(reads, which, written);
    finding.reads = reads.count();
    if (finding.isTouched) {
        hub.reset();
        const interruptsHeld calm;
        undoTouch(which, speedKhz, finding);
    }
    finding.error = isProved(finding) ? 0 : reads.error();
    return finding;
}

bool isProved(const widthFinding& finding)
{
    return finding.verdict == widthVerdict::oneByte || finding.verdict == widthVerdict::twoBytes;
}

bool canBe(const widthFinding& finding, const deviceTypeInfo& type)
{
    const unsigned bytes = finding.verdict == widthVerdict::twoBytes ? 2 : 1;
    return isProved(finding) && type.kind == deviceKind::seeprom && finding.end != partEnd::nextAddress &&
           offsetBytesOf(type) == bytes;
}

std::vector<const deviceTypeInfo*> fittingTypes(const widthFinding& finding)
{
    std::vector<const deviceTypeInfo*> fitting;
    for (const deviceTypeInfo& type : deviceTypes()) {
        if (canBe(finding, type)) {
            fitting.push_back(&type);
        }
    }
    return fitting;
}

std::string fittingText(const widthFinding& finding)
{
    std::string text;
    for (const deviceTypeInfo* type : fittingTypes(finding)) {
        text += fmt::format("{}{} ({})", text.empty() ? "" : ", ", type->chip, type->code);
    }
    return text.empty() ? "no type of this program" : text;
}

const char* widthWord(const widthFinding& finding)
{
    switch (finding.verdict) {
    case widthVerdict::oneByte:
        return finding.end == partEnd::nextAddress ? "block_addressed" : "one_byte";
    case widthVerdict::twoBytes:
        return "two_bytes";
    case widthVerdict::flaky:
        return "flaky";
    case widthVerdict::uniform:
        return "uniform";
    case widthVerdict::notDecidable:
        break;
    }
    return "not_decidable";
}

std::string widthText(const widthFinding& finding)
{
    std::string text;
    switch (finding.verdict) {
    case widthVerdict::oneByte:
        text = finding.end == partEnd::nextAddress ? "one offset byte, and it goes on at the next address (24C04 to "
                                                     "24C16)"
               : finding.end == partEnd::at256     ? "one offset byte, 256 bytes"
                                                   : "one offset byte";
        break;
    case widthVerdict::twoBytes:
        text = "two offset bytes";
        break;
    case widthVerdict::flaky:
        text = "not known, the reads are flaky";
        break;
    default:
        text = "not decidable";
    }
    return text + ": " + finding.seen;
}

std::string widthLine(const device& which, const widthFinding& finding)
{
    return escaped(fmt::format("{}: offset width: {}", which.label, widthText(finding)));
}

jsonValue widthJson(const widthFinding& finding)
{
    jsonList fits;
    for (const deviceTypeInfo* type : fittingTypes(finding)) {
        fits.emplace_back(type->code);
    }
    jsonValue bytes;
    if (isProved(finding)) {
        bytes = finding.verdict == widthVerdict::oneByte ? 1 : 2;
    }
    return {{"verdict", widthWord(finding)},
            {"proved", isProved(finding)},
            {"offset_bytes", bytes},
            {"by", finding.byHub ? "hub" : "reads"},
            {"seen", finding.seen},
            {"reads", finding.reads},
            {"fits", fits}};
}

} // namespace kest::tools
