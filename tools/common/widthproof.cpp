#include "tools/common/widthproof.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <optional>

#include "tools/common/escape.h"
#include "tools/common/offsetreads.h"
#include "tools/common/signalblock.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t hubBytes = 16;
constexpr std::uint8_t hubDone = 0;
// a read with the wrong number of offset bytes
constexpr std::uint8_t hubMalformed = 1;

/// What a hub says of one number of offset bytes.
enum class hubAnswer : std::uint8_t {
    taken,
    refused,
    other, ///< another status, or silence
};

/// Asks a hub with one offset byte or two. A refusal stays in the hub until it is taken.
hubAnswer askHub(offsetReads& reads, std::span<const std::uint8_t> offset, std::span<std::uint8_t> into,
                 widthFinding& finding)
{
    ++finding.reads;
    const std::optional<std::uint8_t> status = reads.readStatus(offset, into);
    if (!status) {
        finding.seen = "the hub does not answer";
        return hubAnswer::other;
    }
    if (*status == hubMalformed) {
        ++finding.reads;
        return reads.clearStatus() ? hubAnswer::refused : hubAnswer::other;
    }
    if (*status != hubDone) {
        finding.seen = fmt::format("the hub reports status {}", *status);
    }
    return *status == hubDone ? hubAnswer::taken : hubAnswer::other;
}

/// Asks a hub, which knows its devices. @return false when the reads of the part itself must decide
bool proveByHub(offsetReads& reads, widthFinding& finding)
{
    std::array<std::uint8_t, hubBytes> bytes{};
    std::array<std::uint8_t, 2> offset{};
    const std::span<const std::uint8_t> both = offset;
    finding.byHub = true;
    hubAnswer one = askHub(reads, both.first(1), bytes, finding);
    if (one == hubAnswer::taken) {
        const auto before = bytes;
        one = askHub(reads, both.first(1), bytes, finding);
        // a part with one offset byte would take the second one for data, and holds that byte there
        offset[1] = bytes[0];
        if (one == hubAnswer::taken && bytes != before) {
            finding.verdict = widthVerdict::flaky;
            finding.seen = "two reads behind one offset byte differ";
            return true;
        }
    }
    if (one == hubAnswer::other) {
        return true;
    }
    const hubAnswer two = askHub(reads, both, bytes, finding);
    if (one == hubAnswer::refused && two == hubAnswer::refused) {
        // the first refusal was an earlier user's
        one = askHub(reads, both.first(1), bytes, finding);
    }
    if (two == hubAnswer::other || one == hubAnswer::other) {
        return true;
    }
    if (one == two) {
        finding.seen = "the hub refuses both widths";
        finding.byHub = one == hubAnswer::refused;
        return finding.byHub;
    }
    finding.verdict = one == hubAnswer::taken ? widthVerdict::oneByte : widthVerdict::twoBytes;
    finding.seen = "the hub takes this width and refuses the other one";
    return true;
}

widthFinding proveByReads(offsetReads& reads, const device& which, const byteRange& written)
{
    const widthQuestion question{
        .read = [&reads](std::span<const std::uint8_t> offset,
                         std::span<std::uint8_t> into) { return reads.read(offset, into); },
        .readOther = [&reads](std::uint8_t address,
                              std::span<std::uint8_t> into) { return reads.readOther(address, into); },
        .address = which.end().address,
        .mostBytes = reads.mostBytes(),
        .offset = written.offset,
        .length = written.length};
    return widthEngine(question).run();
}

} // namespace

unsigned offsetBytesOf(const deviceTypeInfo& type) { return type.bytes > widthReads::firstBytes ? 2 : 1; }

widthFinding proveWidth(const device& which, std::uint32_t speedKhz, const byteRange& written)
{
    const signalBlock quiet;
    offsetReads reads(which, speedKhz);
    widthFinding finding{.seen = reads.trouble()};
    if (!finding.seen.empty()) {
        finding.error = reads.error();
        return finding;
    }
    if (!reads.behindHub() || !proveByHub(reads, finding)) {
        finding = proveByReads(reads, which, written);
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
