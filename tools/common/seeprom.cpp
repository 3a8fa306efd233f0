#include "tools/common/seeprom.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fmt/format.h>
#include <map>
#include <string_view>

#include "kest/seeprom.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/trace/collect.h"
#include "platform/host/vpd/copies.h"
#include "platform/trace.h"
#include "tools/common/buffer.h"
#include "tools/common/bus.h"
#include "tools/common/dumpfile.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/progress.h"

namespace kest::tools
{
namespace
{

/// Transfers are cut into pieces so that long ones show progress; a whole number of every type's pages.
constexpr std::uint32_t pieceBytes = 4096;

/// Page size to reckon with for a device whose type has none.
constexpr std::uint32_t pageBytesUnknown = 16;

constexpr int mostHubReads = 5;

/// Tells whether the library's trace of a hub read shows a recovery: data of a read that succeeds only on its repeat
/// are not handed over, and the buffer then holds zeros that no chip ever sent.
class recoveryWatch
{
public:
    recoveryWatch()
    {
        trace_wobu_descriptor buffer = nullptr;
        trace_wobu_init_buffer(&buffer, "kest", bufferBytes);
        trace_wobu_write_all(buffer, 0, " %s,%d", __LINE__, 0, marker, ++number);
    }
    [[nodiscard]] bool recovered() const
    {
        const std::string lines = host::collectTrace("kest", bufferBytes);
        const std::size_t from = lines.rfind(fmt::format("{},{}", marker, number));
        return from == std::string::npos || lines.find("kest_checkAndHandle922HubErr,", from) != std::string::npos;
    }

private:
    static constexpr unsigned bufferBytes = 8092;
    static constexpr const char* marker = "kestctl hub read";
    static inline int number = 0;
};

struct modeRow {
    const char* word;
    accessMode mode;
    std::string_view registry; ///< what the registry's value begins with; empty: it has none
};
constexpr std::array modes{
    modeRow{"hardware", accessMode::hardware, "HWareMode"}, modeRow{"file", accessMode::file, "FileMode"},
    modeRow{"mixed", accessMode::mixed, "MixedMode"}, modeRow{"registry", accessMode::registry, ""}};

constexpr std::size_t mostOffsetsTold = 16;

/// @return registry when the value is none of the library's modes
accessMode registryMode()
{
    const auto& registry = host::currentConfiguration().registry;
    const auto value = registry.find("tavo/ReadMode");
    const std::string text = value == registry.end() ? "" : value->second;
    const auto* row = std::ranges::find_if(
        modes, [&text](const modeRow& mode) { return !mode.registry.empty() && text.starts_with(mode.registry); });
    return row == modes.end() ? accessMode::registry : row->mode;
}

/// Whether there is a copy that the device can be served from. One that can't be looked at is the library's to complain
/// of.
bool hasCopy(const device& which)
{
    std::vector<std::uint8_t> none;
    std::uint64_t sizeBytes = 0;
    const int error = host::readCopyPart(which.number, 0, 0, none, sizeBytes);
    return copyIsItsOwn(which) && (error == 0 ? sizeBytes != 0 : error != ENOENT);
}

/// Offsets from `first` on at which byte strings of one length differ.
std::vector<std::uint32_t> differing(std::uint32_t first, const byteVector& one, const byteVector& other)
{
    std::vector<std::uint32_t> offsets;
    for (std::uint32_t at = 0; at < one.size(); ++at) {
        if (one[at] != other[at]) {
            offsets.push_back(first + at);
        }
    }
    return offsets;
}

std::uint32_t lastByteOfPage(std::uint32_t at, std::uint32_t pageBytes)
{
    return at / pageBytes * pageBytes + pageBytes;
}

std::uint32_t pagesIn(const byteRange& range, std::uint32_t pageBytes)
{
    return range.length == 0 ? 0 : (range.offset + range.length - 1) / pageBytes - range.offset / pageBytes + 1;
}

} // namespace

accessMode parseMode(const std::string& word)
{
    const auto* found = std::ranges::find_if(modes, [&](const modeRow& row) { return word == row.word; });
    if (found == modes.end()) {
        throw wrongUse(fmt::format("mode '{}': expected hardware, file, mixed or registry", word));
    }
    return found->mode;
}

const char* modeWord(accessMode mode) { return std::ranges::find(modes, mode, &modeRow::mode)->word; }

accessMode settledMode(const device& which, accessMode mode)
{
    const accessMode asked = mode == accessMode::registry ? registryMode() : mode;
    if (asked == accessMode::file) {
        refuseForeignCopy(which);
    }
    if (asked == accessMode::mixed) {
        return hasCopy(which) ? accessMode::file : accessMode::hardware;
    }
    return asked;
}

byteRange checkedRange(const device& which, std::uint64_t offset, std::optional<std::uint64_t> length)
{
    const std::uint64_t capacity = which.end().type->bytes;
    if (offset >= capacity) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("offset {} (0x{:X}) is past the end: the device holds {} bytes", offset,
                                          offset, capacity),
                      .device = which.label};
    }
    if (length == 0U) {
        throw failure{.code = exitWrongUse, .what = "length 0: there is nothing to transfer", .device = which.label};
    }
    const std::uint64_t bytes = length.value_or(capacity - offset);
    if (bytes > capacity - offset) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("{} bytes at offset {} pass the end: the device holds {} bytes", bytes,
                                          offset, capacity),
                      .tryThis = fmt::format("at most {} bytes fit there", capacity - offset),
                      .device = which.label};
    }
    return {static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(bytes)};
}

seeprom::seeprom(device which, const accessOptions& options)
    : m_device(std::move(which)), m_options(options), m_attributes(hardwareAttributes(options.speedKhz))
{
    refuseUnservedChain(m_device);
    if (m_device.end().type->type != KEST_DEV_172) {
        requireKind(m_device, {deviceKind::seeprom}, "seeprom");
    }
    m_options.mode = settledMode(m_device, options.mode);
    m_attributes[KEST_ATTR_READ_MODE] = static_cast<kest_attributeValue>(m_options.mode);
    if (options.writeCycleMs != 0) {
        m_attributes[KEST_ATTR_WRITE_CYCLE] = options.writeCycleMs;
    }
}

byteRange seeprom::range(std::uint64_t offset, std::optional<std::uint64_t> length) const
{
    const byteRange checked = checkedRange(m_device, offset, length);
    if (checked.offset != 0 && touchesHardware() && m_device.end().type->type == KEST_DEV_172) {
        throw failure{.code = exitWrongUse,
                      .what = fmt::format("offset {}: no offset goes out to a 172 device; a transfer begins where it "
                                          "stands",
                                          checked.offset),
                      .device = m_device.label};
    }
    return checked;
}

std::uint32_t seeprom::pageBytes() const
{
    const std::uint32_t bytes = m_device.end().type->pageBytes;
    return bytes != 0 ? bytes : pageBytesUnknown;
}

void seeprom::readPiece(const byteRange& range, const std::string& step, byteVector& bytes)
{
    unsigned int length = range.length;
    unsigned char* data = nullptr;
    ErrlEntry* const entry =
        KEST_seepromRead(tavoAddress(m_device), nullptr, range.offset, &length, &data, m_attributes.data());
    const tavoBuffer buffer(data);
    throwEntry(entry, m_device, step);
    if (length < range.length || !buffer) {
        throw failure{.what = fmt::format("{} of {} bytes came from offset {}", length, range.length, range.offset),
                      .device = m_device.label,
                      .step = step};
    }
    bytes.insert(bytes.end(), data, data + range.length);
}

byteVector seeprom::readOnce(const byteRange& range, const std::string& step)
{
    const std::uint32_t piece = touchesHardware() ? pieceBytes : range.length;
    progress shown(step + " " + m_device.label, range.length);
    byteVector bytes;
    bytes.reserve(range.length);
    while (bytes.size() < range.length) {
        const auto done = static_cast<std::uint32_t>(bytes.size());
        readPiece({range.offset + done, std::min(piece, range.length - done)}, step, bytes);
        shown.update(bytes.size());
    }
    return bytes;
}

byteVector seeprom::readAgreed(const byteRange& range, const std::string& step)
{
    if (!m_device.behindHub() || !touchesHardware()) {
        return readOnce(range, step);
    }
    byteVector bytes;
    // piece by piece: each stays within what the trace buffer can witness
    while (bytes.size() < range.length) {
        const auto done = static_cast<std::uint32_t>(bytes.size());
        const byteRange piece{range.offset + done, std::min(pieceBytes, range.length - done)};
        std::optional<byteVector> last;
        bool agreed = false;
        for (int count = 0; count < mostHubReads && !agreed; ++count) {
            const recoveryWatch watch;
            byteVector now = readOnce(piece, step);
            if (watch.recovered()) {
                last.reset();
                continue;
            }
            agreed = last == now;
            last = std::move(now);
        }
        if (!agreed) {
            throw failure{
                .what = fmt::format("{} reads through the hub at offset {} did not settle", mostHubReads, piece.offset),
                .tryThis = "'kestctl trace' shows what the hub reported",
                .device = m_device.label,
                .step = step};
        }
        bytes.insert(bytes.end(), last->begin(), last->end());
    }
    return bytes;
}

byteVector seeprom::readVoted(const byteRange& range, const std::string& step)
{
    std::vector<byteVector> reads;
    for (unsigned count = 0; count < m_options.votes; ++count) {
        reads.push_back(readAgreed(range, step));
    }
    byteVector bytes(range.length);
    std::vector<std::uint32_t> wavered;
    std::optional<std::uint32_t> open; ///< the first offset without a majority
    for (std::uint32_t at = 0; at < range.length; ++at) {
        std::map<unsigned char, unsigned> votes;
        for (const byteVector& one : reads) {
            ++votes[one[at]];
        }
        const auto winner = std::ranges::max_element(votes, {}, [](const auto& vote) { return vote.second; });
        if (votes.size() > 1) {
            wavered.push_back(range.offset + at);
        }
        if (winner->second * 2 <= m_options.votes && !open) {
            open = range.offset + at;
        }
        bytes[at] = winner->first;
    }
    tellWavered(wavered);
    if (open) {
        throw failure{.what =
                          fmt::format("no majority at offset {} (0x{:X}) in {} reads", *open, *open, m_options.votes),
                      .tryThis = "more reads by --voted, or a lower --speed",
                      .device = m_device.label,
                      .step = step};
    }
    return bytes;
}

void seeprom::tellWavered(const std::vector<std::uint32_t>& offsets)
{
    m_wavered.insert(m_wavered.end(), offsets.begin(), offsets.end());
    if (offsets.empty()) {
        return;
    }
    std::string list;
    for (const std::uint32_t offset : std::span(offsets).first(std::min(offsets.size(), mostOffsetsTold))) {
        list += fmt::format(" 0x{:X}", offset);
    }
    if (offsets.size() > mostOffsetsTold) {
        list += fmt::format(" and {} more", offsets.size() - mostOffsetsTold);
    }
    std::fputs(fmt::format("kestctl: {}: the reads differed at offsets{}\n", escaped(m_device.label), list).c_str(),
               stderr);
}

void seeprom::noteWavering(std::uint32_t offset, const byteVector& one, const byteVector& other)
{
    tellWavered(differing(offset, one, other));
}

byteVector seeprom::read(const byteRange& range, const std::string& step)
{
    return m_options.votes > 1 ? readVoted(range, step) : readAgreed(range, step);
}

void seeprom::writePiece(const byteRange& range, const unsigned char* bytes)
{
    unsigned int length = range.length;
    ErrlEntry* const entry =
        KEST_seepromWrite(tavoAddress(m_device), nullptr, range.offset, &length, bytes, m_attributes.data());
    throwEntry(entry, m_device, "write");
    if (length != range.length) {
        throw failure{.what = fmt::format("{} of {} bytes were taken at offset {}", length, range.length, range.offset),
                      .device = m_device.label,
                      .step = "write"};
    }
}

void seeprom::write(std::uint32_t offset, std::span<const unsigned char> bytes)
{
    const auto total = static_cast<std::uint32_t>(bytes.size());
    progress shown("write " + m_device.label, total);
    std::uint32_t done = 0;
    while (done < total) {
        // pieces end where pages do
        const std::uint32_t end = std::min(offset + total, lastByteOfPage(offset + done, pieceBytes));
        const byteRange piece = {offset + done, end - (offset + done)};
        writePiece(piece, bytes.data() + done);
        done += piece.length;
        shown.update(done);
    }
}

std::vector<byteRange> differingPages(const byteRange& range, std::span<const unsigned char> wanted,
                                      std::span<const unsigned char> present, std::uint32_t pageBytes, bool all)
{
    std::vector<byteRange> ranges;
    const std::uint32_t end = range.offset + range.length;
    for (std::uint32_t at = range.offset; at < end;) {
        const std::uint32_t next = std::min(end, lastByteOfPage(at, pageBytes));
        const auto first = at - range.offset;
        const auto count = next - at;
        if (all || !std::ranges::equal(wanted.subspan(first, count), present.subspan(first, count))) {
            if (!ranges.empty() && ranges.back().offset + ranges.back().length == at) {
                ranges.back().length += count;
            } else {
                ranges.push_back({at, count});
            }
        }
        at = next;
    }
    return ranges;
}

namespace
{

/// What is certain after a write that failed, by reading back: never what the failed write itself reported.
std::string whatIsCertain(seeprom& chip, const byteRange& range, std::span<const unsigned char> wanted)
{
    try {
        const byteVector now = chip.read(range, "read back");
        const auto equal = std::ranges::mismatch(wanted, now).in1 - wanted.begin();
        return fmt::format("the first {} of {} bytes are certain (read back)", equal, range.length);
    } catch (const failure&) {
        return "how many bytes arrived is not known: reading back failed, too";
    }
}

/// Reads back and compares. A read that differs is not believed alone: it may be the read that went wrong.
void verifyWritten(seeprom& chip, const byteRange& range, std::span<const unsigned char> wanted)
{
    const byteVector first = chip.read(range, "verify");
    if (std::ranges::equal(wanted, first)) {
        return;
    }
    const byteVector now = chip.read(range, "verify");
    chip.noteWavering(range.offset, first, now);
    const auto equal = static_cast<std::uint32_t>(std::ranges::mismatch(wanted, now).in1 - wanted.begin());
    if (equal == range.length) {
        return;
    }
    const std::uint32_t at = range.offset + equal;
    failure why{.code = exitVerifyFailed,
                .what = fmt::format("what was read back differs from offset {} (0x{:X}) on: wrote {:02x}, read {:02x}",
                                    at, at, wanted[equal], now[equal]),
                .tryThis = first == now ? "the chip may be write-protected"
                                        : "two reads differ, too: try --voted 5, or a lower --speed",
                .device = chip.target().label,
                .step = "verify"};
    logFailure(why,
               {.reason = reasonVerifyDiffers, .words = {at, wanted[equal], now[equal]}, .text = chip.target().text});
    throw why;
}

void writeRanges(seeprom& chip, const byteRange& whole, std::span<const unsigned char> bytes,
                 const std::vector<byteRange>& ranges, const std::string& undoFile)
{
    try {
        for (const byteRange& range : ranges) {
            chip.write(range.offset, bytes.subspan(range.offset - whole.offset, range.length));
        }
    } catch (failure& why) {
        why.what += "; " + whatIsCertain(chip, whole, bytes);
        if (!undoFile.empty()) {
            why.tryThis = fmt::format("'kestctl seeprom restore {}' puts the old bytes back", shellWord(undoFile));
        }
        throw;
    }
}

} // namespace

writeReport writeCarefully(seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                           const carefulWriteOptions& options)
{
    const byteRange whole{offset, static_cast<std::uint32_t>(bytes.size())};
    const std::uint32_t pageBytes = chip.pageBytes();
    const byteVector old = chip.read(whole, "read the old bytes");
    const auto ranges = differingPages(whole, bytes, old, pageBytes, options.allPages);
    const device& target = chip.target();
    writeReport report;
    for (const byteRange& range : ranges) {
        report.bytesWritten += range.length;
        report.pagesWritten += pagesIn(range, pageBytes);
    }
    report.pagesSkipped = pagesIn(whole, pageBytes) - report.pagesWritten;
    if (options.dryRun || ranges.empty()) {
        report.verified = ranges.empty();
        return report;
    }
    if (chip.touchesHardware()) {
        refuseDoubtfulWrite(target, options.force);
        confirm(fmt::format("{}: write {} ({}) at {}?", target.label, countText(report.bytesWritten, "byte"),
                            countText(report.pagesWritten, "page"), addressText(target.end().address)),
                options.yes);
    }
    report.undoFile = saveUndo(dumpOf(chip, offset, old));
    writeRanges(chip, whole, bytes, ranges, report.undoFile);
    if (options.verify) {
        verifyWritten(chip, whole, bytes);
        report.verified = true;
    }
    return report;
}

} // namespace kest::tools
