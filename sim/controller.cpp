#include "sim/controller.h"

#include "base/clock.h"
#include "sim/transaction.h"

#include <algorithm>

namespace kest::sim
{

namespace
{

// An SMBus call begins with a command of one byte, except that a byte may be received without one.
constexpr std::size_t commandBytes = 1;

bool isSmbusCall(std::span<const segment> segments, std::size_t mostBytes)
{
    if (std::ranges::any_of(segments, &segment::joined)) {
        return false;
    }
    const segment& first = segments.front();
    if (segments.size() == 1) {
        return first.way == direction::write ? first.bytes.size() <= commandBytes + mostBytes : first.bytes.size() <= 1;
    }
    const segment& second = segments[1];
    return segments.size() == 2 && first.way == direction::write && first.bytes.size() == commandBytes &&
           second.way == direction::read && second.address == first.address && !second.bytes.empty() &&
           second.bytes.size() <= mostBytes;
}

/// When the adapter gives the transaction up, on the bus's clock.
std::uint64_t deadlineOf(const adapterKind& kind, std::uint64_t now)
{
    return kind.timeoutMs == 0 ? latestTime : now + kind.timeoutMs * nsPerMs;
}

transferResult runOnWire(const adapterKind& kind, busChips& chips, busState& state, wire& lines,
                         std::span<segment> segments, std::uint64_t deadline, const partKept& keep)
{
    if (!kind.stopBetween) {
        return transaction{chips, state, lines, segments, kind, deadline}.run();
    }
    transferResult result;
    for (std::size_t begin = 0, end = 0; begin < segments.size() && result.end == outcome::done; begin = end) {
        if (state.driven.holdsSda()) {
            // the STOP before this part did not take place
            return {.end = outcome::sdaHeld, .segment = begin};
        }
        if (state.page.pending && !keep()) {
            return {.end = outcome::gone, .segment = begin};
        }
        for (end = begin + 1; joins(segments, end); ++end) {}
        result = transaction{chips, state, lines, segments.subspan(begin, end - begin), kind, deadline}.run();
        result.segment += result.end == outcome::done ? 0 : begin;
    }
    return result;
}

} // namespace

bool takes(const adapterKind& kind, std::span<const segment> segments)
{
    if (segments.empty()) {
        return true;
    }
    const auto isTooLong = [&kind](const segment& part) { return part.bytes.size() > kind.messageBytes; };
    if ((kind.messages != 0 && segments.size() > kind.messages) ||
        (kind.messageBytes != 0 && std::ranges::any_of(segments, isTooLong)) ||
        (kind.noEmptyMessages &&
         std::ranges::any_of(segments, [](const segment& part) { return part.bytes.empty(); }))) {
        return false;
    }
    switch (kind.smbus) {
    case smbusCalls::none:
        break;
    case smbusCalls::words:
        return isSmbusCall(segments, smbusWordBytes);
    case smbusCalls::blocks:
        return isSmbusCall(segments, smbusBlockBytes);
    }
    return true;
}

transferResult runTransaction(const adapterKind& kind, busChips& chips, busState& state, wire& lines,
                              std::span<segment> segments, const partKept& keep)
{
    const std::uint64_t deadline = deadlineOf(kind, lines.clock.now);
    transferResult result = runOnWire(kind, chips, state, lines, segments, deadline, keep);
    if (kind.absentTimesOut && result.end == outcome::addressNotAcknowledged) {
        // It waits for an end that never comes, as long as it waits for anything.
        result.end = outcome::timedOut;
        lines.clock.now = kind.timeoutMs == 0 ? lines.clock.now : std::max(lines.clock.now, deadline);
    }
    if (result.end == outcome::timedOut) {
        // nor does it tell how far it came
        result.segment = result.bytesMoved = 0;
    }
    return result;
}

} // namespace kest::sim
