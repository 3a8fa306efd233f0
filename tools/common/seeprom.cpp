#include "tools/common/seeprom.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <string_view>

#include "kest/seeprom.h"
#include "tools/common/buffer.h"
#include "tools/common/device.h"
#include "tools/common/entryfailure.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/progress.h"
#include "tools/common/recoverywatch.h"
#include "tools/common/vote.h"
#include "tools/common/wear.h"

namespace kest::tools
{
namespace
{

/// Transfers are cut into pieces of this many bytes, so that long ones show progress. A multiple of every page size.
constexpr std::uint32_t pieceBytes = 4096;

/// Page size for a device whose type has none.
constexpr std::uint32_t pageBytesUnknown = 16;

constexpr int mostHubReads = 5;

constexpr std::size_t mostOffsetsTold = 16;

} // namespace

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
    m_device.speedKhz = options.speedKhz != 0 ? options.speedKhz : libraryKhz;
    refuseUnservedChain(m_device);
    if (m_device.end().type->type != KEST_DEV_172) {
        requireKind(m_device, {deviceKind::seeprom}, "seeprom");
    }
    m_options.mode = settledMode(m_device, options.mode);
    if (touchesHardware()) {
        refuseOtherType(m_device, options.force);
    }
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
        throw failed({.reason = reasonShort, .words = {range.offset, range.length, length}}, step,
                     fmt::format("{} of {} bytes came from offset {}", length, range.length, range.offset), "");
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
        throwIfInterrupted(m_device.label, step);
        const auto done = static_cast<std::uint32_t>(bytes.size());
        readPiece({range.offset + done, std::min(piece, range.length - done)}, step, bytes);
        shown.update(bytes.size());
    }
    return bytes;
}

byteVector seeprom::readPieceAgreed(const byteRange& piece, const std::string& step)
{
    std::optional<byteVector> last;
    for (int count = 0; count < mostHubReads; ++count) {
        const recoveryWatch watch;
        byteVector now = readOnce(piece, step);
        if (watch.recovered()) {
            last.reset();
            continue;
        }
        if (last == now) {
            return now;
        }
        last = std::move(now);
    }
    throw failed({.reason = reasonUnsettled, .words = {piece.offset, mostHubReads}}, step,
                 fmt::format("{} reads through the hub at offset {} did not settle", mostHubReads, piece.offset),
                 "'kestctl trace' shows what the hub reported");
}

byteVector seeprom::readAgreed(const byteRange& range, const std::string& step)
{
    if (!m_device.behindHub() || !touchesHardware()) {
        return readOnce(range, step);
    }
    byteVector bytes;
    // piece by piece: the trace buffer has room for the trace of one piece
    while (bytes.size() < range.length) {
        const auto done = static_cast<std::uint32_t>(bytes.size());
        const byteVector piece =
            readPieceAgreed({range.offset + done, std::min(pieceBytes, range.length - done)}, step);
        bytes.insert(bytes.end(), piece.begin(), piece.end());
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
    std::optional<std::uint32_t> firstOpen;
    for (std::uint32_t at = 0; at < range.length; ++at) {
        const byteVote found = vote(reads, at);
        bytes[at] = found.byte;
        if (!found.unanimous) {
            wavered.push_back(range.offset + at);
        }
        if (!found.majority && !firstOpen) {
            firstOpen = range.offset + at;
        }
    }
    if (firstOpen) {
        tellWavered(wavered, "");
        throw failed(
            {.reason = reasonNoMajority, .words = {*firstOpen, m_options.votes}}, step,
            fmt::format("no majority at offset {} (0x{:X}) in {} reads", *firstOpen, *firstOpen, m_options.votes),
            "more reads with --voted, or a lower --speed");
    }
    m_outvoted += wavered.size();
    tellWavered(wavered, fmt::format("{} {} outvoted: ", countText(wavered.size(), "byte"),
                                     wavered.size() == 1 ? "was" : "were"));
    return bytes;
}

/// A failure of the tools' own, with its error entry.
failure seeprom::failed(const toolEntry& entry, const std::string& step, std::string what, std::string tryThis) const
{
    failure why{.what = std::move(what), .tryThis = std::move(tryThis), .device = m_device.label, .step = step};
    toolEntry whole = entry;
    whole.text = m_device.text;
    logFailure(why, whole);
    return why;
}

/// @param head  what goes before it
void seeprom::tellWavered(const std::vector<std::uint32_t>& offsets, const std::string& head)
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
    std::fputs(
        fmt::format("kestctl: {}: {}the reads differed at offsets{}\n", escaped(m_device.label), head, list).c_str(),
        stderr);
}

void seeprom::noteWavering(std::uint32_t offset, const byteVector& one, const byteVector& other)
{
    tellWavered(differing(offset, one, other), "");
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
    if (touchesHardware()) {
        countWriteOrTell(m_device, range.offset, std::min(length, range.length));
    }
    throwEntry(entry, m_device, "write");
    if (length != range.length) {
        throw failed({.reason = reasonShort, .words = {range.offset, range.length, length}}, "write",
                     fmt::format("{} of {} bytes were taken at offset {}", length, range.length, range.offset), "");
    }
}

/// Bytes that are written between two looks for signals. Groups end where pages do.
std::uint32_t seeprom::groupBytes() const
{
    const std::uint32_t page = m_device.end().type->pageBytes;
    // without an offset each group would be a transfer of its own; a copy is changed at once
    return page == 0 || !touchesHardware() ? pieceBytes : std::min(pieceBytes, page * pagesAtOnce);
}

std::uint32_t seeprom::write(std::uint32_t offset, std::span<const unsigned char> bytes)
{
    const auto total = static_cast<std::uint32_t>(bytes.size());
    const std::uint32_t group = groupBytes();
    progress shown("write " + m_device.label, total);
    std::uint32_t done = 0;
    while (done < total && interruptSignal() == 0) {
        const std::uint32_t at = offset + done;
        const std::uint32_t end = std::min(offset + total, at / group * group + group);
        writePiece({at, end - at}, bytes.data() + done);
        done += end - at;
        shown.update(done);
    }
    return done;
}

} // namespace kest::tools
