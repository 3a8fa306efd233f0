#include "tools/common/seeprom.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <string_view>

#include "kest/seeprom.h"
#include "platform/host/trace/collect.h"
#include "platform/trace.h"
#include "tools/common/buffer.h"
#include "tools/common/bus.h"
#include "tools/common/dumpfile.h"
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

/// Tells whether the library's trace of a hub read shows a recovery: data of a read that succeeds only on its repeat are not
/// handed over, and the buffer then holds zeros that no chip ever sent.
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
        const std::size_t from  = lines.rfind(fmt::format("{},{}", marker, number));
        return from == std::string::npos || lines.find("kest_checkAndHandle922HubErr,", from) != std::string::npos;
    }

private:
    static constexpr unsigned    bufferBytes = 8092;
    static constexpr const char* marker      = "kestctl hub read";
    static inline int            number      = 0;
};

struct modeWord {
    const char* word;
    accessMode  mode;
};
constexpr std::array modeWords{modeWord{"hardware", accessMode::hardware}, modeWord{"file", accessMode::file},
                               modeWord{"mixed", accessMode::mixed}, modeWord{"registry", accessMode::registry}};

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
    const auto* found = std::ranges::find_if(modeWords, [&](const modeWord& row) { return word == row.word; });
    if (found == modeWords.end())
        throw wrongUse(fmt::format("mode '{}': expected hardware, file, mixed or registry", word));
    return found->mode;
}

byteRange checkedRange(const device& which, std::uint64_t offset, std::optional<std::uint64_t> length)
{
    const std::uint64_t capacity = which.end().type->bytes;
    if (offset >= capacity)
        throw failure{.code   = exitWrongUse,
                      .what   = fmt::format("offset {} (0x{:X}) is past the end: the device holds {} bytes", offset,
                                            offset, capacity),
                      .device = which.label};
    if (length == 0U)
        throw failure{.code = exitWrongUse, .what = "length 0: there is nothing to transfer", .device = which.label};
    const std::uint64_t bytes = length.value_or(capacity - offset);
    if (bytes > capacity - offset)
        throw failure{.code    = exitWrongUse,
                      .what    = fmt::format("{} bytes at offset {} pass the end: the device holds {} bytes", bytes,
                                             offset, capacity),
                      .tryThis = fmt::format("at most {} bytes fit there", capacity - offset),
                      .device  = which.label};
    return {static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(bytes)};
}

seeprom::seeprom(device which, const accessOptions& options)
    : m_device(std::move(which)), m_options(options), m_attributes(hardwareAttributes(options.speedKhz))
{
    refuseUnservedChain(m_device);
    if (m_device.end().type->type != KEST_DEV_172)
        requireKind(m_device, {deviceKind::seeprom}, "seeprom");
    m_attributes[KEST_ATTR_READ_MODE] = static_cast<kest_attributeValue>(options.mode);
    if (options.writeCycleMs != 0)
        m_attributes[KEST_ATTR_WRITE_CYCLE] = options.writeCycleMs;
}

std::uint32_t seeprom::pageBytes() const
{
    const std::uint32_t bytes = m_device.end().type->pageBytes;
    return bytes != 0 ? bytes : pageBytesUnknown;
}

void seeprom::readPiece(const byteRange& range, const std::string& step, byteVector& bytes)
{
    unsigned int     length = range.length;
    unsigned char*   data   = nullptr;
    ErrlEntry* const entry =
        KEST_seepromRead(tavoAddress(m_device), nullptr, range.offset, &length, &data, m_attributes.data());
    const tavoBuffer buffer(data);
    throwEntry(entry, m_device, step);
    // mixed mode without a copy answers the whole device: the bytes asked for come first
    if (length < range.length || !buffer)
        throw failure{.what   = fmt::format("{} of {} bytes came from offset {}", length, range.length, range.offset),
                      .device = m_device.label,
                      .step   = step};
    bytes.insert(bytes.end(), data, data + range.length);
}

byteVector seeprom::readOnce(const byteRange& range, const std::string& step)
{
    const bool          inPieces = m_options.mode == accessMode::hardware;
    const std::uint32_t piece    = inPieces ? pieceBytes : range.length;
    progress            shown(step + " " + m_device.label, range.length);
    byteVector          bytes;
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
    if (!m_device.behindHub() || m_options.mode == accessMode::file)
        return readOnce(range, step);
    byteVector bytes;
    while (bytes.size() < range.length) { // piece by piece: each stays within what the trace buffer can witness
        const auto                done = static_cast<std::uint32_t>(bytes.size());
        const byteRange           piece{range.offset + done, std::min(pieceBytes, range.length - done)};
        std::optional<byteVector> last;
        bool                      agreed = false;
        for (int count = 0; count < mostHubReads && !agreed; ++count) {
            const recoveryWatch watch;
            byteVector          now = readOnce(piece, step);
            if (watch.recovered()) {
                last.reset();
                continue;
            }
            agreed = last == now;
            last   = std::move(now);
        }
        if (!agreed)
            throw failure{
                .what = fmt::format("{} reads through the hub at offset {} did not settle", mostHubReads, piece.offset),
                .tryThis = "'kestctl trace' shows what the hub reported",
                .device  = m_device.label,
                .step    = step};
        bytes.insert(bytes.end(), last->begin(), last->end());
    }
    return bytes;
}

byteVector seeprom::readVoted(const byteRange& range, const std::string& step)
{
    std::vector<byteVector> reads;
    for (unsigned count = 0; count < m_options.votes; ++count)
        reads.push_back(readAgreed(range, step));
    byteVector bytes(range.length);
    for (std::uint32_t at = 0; at < range.length; ++at) {
        std::map<unsigned char, unsigned> votes;
        for (const byteVector& one : reads)
            ++votes[one[at]];
        const auto winner = std::ranges::max_element(votes, {}, [](const auto& vote) { return vote.second; });
        if (votes.size() > 1)
            m_wavered.push_back(range.offset + at);
        if (winner->second * 2 <= m_options.votes)
            throw failure{.what    = fmt::format("no majority at offset {} (0x{:X}) in {} reads", range.offset + at,
                                                 range.offset + at, m_options.votes),
                          .tryThis = "more reads by --voted, or a lower --speed",
                          .device  = m_device.label,
                          .step    = step};
        bytes[at] = winner->first;
    }
    return bytes;
}

byteVector seeprom::read(const byteRange& range, const std::string& step)
{
    return m_options.votes > 1 ? readVoted(range, step) : readAgreed(range, step);
}

void seeprom::writePiece(const byteRange& range, const unsigned char* bytes)
{
    unsigned int     length = range.length;
    ErrlEntry* const entry =
        KEST_seepromWrite(tavoAddress(m_device), nullptr, range.offset, &length, bytes, m_attributes.data());
    throwEntry(entry, m_device, "write");
    if (length != range.length)
        throw failure{.what = fmt::format("{} of {} bytes were taken at offset {}", length, range.length, range.offset),
                      .device = m_device.label,
                      .step   = "write"};
}

void seeprom::write(std::uint32_t offset, std::span<const unsigned char> bytes)
{
    const auto    total = static_cast<std::uint32_t>(bytes.size());
    progress      shown("write " + m_device.label, total);
    std::uint32_t done = 0;
    while (done < total) {
        // pieces end where pages do
        const std::uint32_t end   = std::min(offset + total, lastByteOfPage(offset + done, pieceBytes));
        const byteRange     piece = {offset + done, end - (offset + done)};
        writePiece(piece, bytes.data() + done);
        done += piece.length;
        shown.update(done);
    }
}

std::vector<byteRange> differingPages(const byteRange& range, std::span<const unsigned char> wanted,
                                      std::span<const unsigned char> present, std::uint32_t pageBytes, bool all)
{
    std::vector<byteRange> ranges;
    const std::uint32_t    end = range.offset + range.length;
    for (std::uint32_t at = range.offset; at < end;) {
        const std::uint32_t next  = std::min(end, lastByteOfPage(at, pageBytes));
        const auto          first = at - range.offset;
        const auto          count = next - at;
        if (all || !std::ranges::equal(wanted.subspan(first, count), present.subspan(first, count))) {
            if (!ranges.empty() && ranges.back().offset + ranges.back().length == at)
                ranges.back().length += count;
            else
                ranges.push_back({at, count});
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
        const byteVector now   = chip.read(range, "read back");
        const auto       equal = std::ranges::mismatch(wanted, now).in1 - wanted.begin();
        return fmt::format("the first {} of {} bytes are certain (read back)", equal, range.length);
    } catch (const failure&) {
        return "how many bytes arrived is not known: reading back failed, too";
    }
}

void verifyWritten(seeprom& chip, const byteRange& range, std::span<const unsigned char> wanted)
{
    const byteVector now   = chip.read(range, "verify");
    const auto       equal = static_cast<std::uint32_t>(std::ranges::mismatch(wanted, now).in1 - wanted.begin());
    if (equal != range.length)
        throw failure{
            .code    = exitVerifyFailed,
            .what    = fmt::format("what was read back differs from offset {} (0x{:X}) on: wrote {:02x}, read {:02x}",
                                   range.offset + equal, range.offset + equal, wanted[equal], now[equal]),
            .tryThis = "the chip may be write-protected",
            .device  = chip.target().label,
            .step    = "verify"};
}

void writeRanges(seeprom& chip, const byteRange& whole, std::span<const unsigned char> bytes,
                 const std::vector<byteRange>& ranges, const std::string& undoFile)
{
    try {
        for (const byteRange& range : ranges)
            chip.write(range.offset, bytes.subspan(range.offset - whole.offset, range.length));
    } catch (failure& why) {
        why.what += "; " + whatIsCertain(chip, whole, bytes);
        if (!undoFile.empty())
            why.tryThis = fmt::format("'kestctl seeprom restore {}' puts the old bytes back", undoFile);
        throw;
    }
}

} // namespace

writeReport writeCarefully(seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                           const carefulWriteOptions& options)
{
    const byteRange     whole{offset, static_cast<std::uint32_t>(bytes.size())};
    const std::uint32_t pageBytes = chip.pageBytes();
    const byteVector    old       = chip.read(whole, "read the old bytes");
    const auto          ranges    = differingPages(whole, bytes, old, pageBytes, options.allPages);
    const device&       target    = chip.target();
    writeReport         report;
    for (const byteRange& range : ranges) {
        report.bytesWritten += range.length;
        report.pagesWritten += pagesIn(range, pageBytes);
    }
    report.pagesSkipped = pagesIn(whole, pageBytes) - report.pagesWritten;
    if (options.dryRun || ranges.empty()) {
        report.verified = ranges.empty();
        return report;
    }
    if (chip.mayTouchHardware()) {
        refuseDriversAddress(target, options.force);
        confirm(fmt::format("{}: write {} ({}) at {}?", target.label, countText(report.bytesWritten, "byte"),
                            countText(report.pagesWritten, "page"), addressText(target.end().address)),
                options.yes);
        report.undoFile = saveUndo(target, offset, old);
    }
    writeRanges(chip, whole, bytes, ranges, report.undoFile);
    if (options.verify) {
        verifyWritten(chip, whole, bytes);
        report.verified = true;
    }
    return report;
}

} // namespace kest::tools
