#include "platform/host/iic/exchange.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "base/clock.h"
#include "platform/host/iic/bus.h"
#include "platform/host/iic/transfer.h"
#include "platform/host/iic/watch.h"

namespace kest::host::iic
{
namespace
{

// as long as the start of a transfer waits for a silent device
constexpr std::uint64_t patienceNs = 50 * nsPerMs;
// between two attempts
constexpr std::uint64_t attemptPauseNs = nsPerMs / 5;
// as of a transfer's read: the bus is held meanwhile
constexpr std::uint64_t longestWireNs = 250 * nsPerMs;

exchangeEnd endOf(outcome end)
{
    switch (end) {
    case outcome::done:
        return exchangeEnd::done;
    case outcome::addressNotAcknowledged:
    case outcome::notAcknowledged:
        return exchangeEnd::silent;
    case outcome::dataNotAcknowledged:
        return exchangeEnd::refused;
    case outcome::tooLong:
    case outcome::timedOut:
        return exchangeEnd::tooLong;
    default:
        return exchangeEnd::failed;
    }
}

/// Whether the same transaction may end otherwise a little later. Some adapters report a missing acknowledge as a
/// time-out.
bool mayPass(outcome end, bool waits)
{
    return end == outcome::arbitrationLost || end == outcome::busBusy || end == outcome::interrupted ||
           (waits && (isSilence(end) || end == outcome::timedOut));
}

/// Sends the transaction until it ends otherwise than for a passing reason.
outcome sendOften(bus& wires, std::span<const segment> parts, const exchangeOrder& order)
{
    const transferPace pace{.speedKhz = order.speedKhz, .timeoutMs = 0};
    const std::uint64_t startedNs = wires.nowNs();
    outcome end = wires.transfer(parts, pace).end;
    while (repeats() && mayPass(end, order.waits) && wires.nowNs() - startedNs < patienceNs) {
        wires.pause(attemptPauseNs);
        end = wires.transfer(parts, pace).end;
    }
    return end;
}

std::vector<segment> partsOf(const exchangeOrder& order, std::span<std::uint8_t> offset, std::size_t messageBytes)
{
    std::vector<segment> parts;
    if (!offset.empty()) {
        parts.push_back({.address = order.address, .way = direction::write, .bytes = offset});
    }
    for (std::size_t at = 0; at < order.into.size(); at += messageBytes) {
        parts.push_back({.address = order.address,
                         .way = direction::read,
                         .bytes = order.into.subspan(at, std::min(messageBytes, order.into.size() - at))});
    }
    return parts;
}

} // namespace

exchangeResult exchange(bus& wires, const exchangeOrder& order, std::size_t& messageBytes)
{
    std::array<std::uint8_t, MERN_OFFSET_LENGTH_MAX> offset{};
    if (order.offset.size() > offset.size() || order.into.empty()) {
        return {.end = exchangeEnd::failed, .error = EINVAL};
    }
    std::ranges::copy(order.offset, offset.begin());
    const std::span<std::uint8_t> sent = std::span(offset).first(order.offset.size());
    const bool mayGoOn = sent.size() == 1 || sent.size() == 2;
    std::size_t takes = mayGoOn ? std::max<std::size_t>(messageBytes, 1) : order.into.size();
    outcome end = outcome::tooLong;
    for (bool again = true; again;) {
        const std::vector<segment> parts = partsOf(order, sent, takes);
        const bool fits = parts.size() <= wires.limits().segments;
        end = fits ? sendOften(wires, parts, order) : outcome::tooLong;
        again = fits && mayGoOn && end == outcome::tooLong && takes > 1;
        takes = again ? std::min(takes, order.into.size()) / 2 : takes;
        takes = std::max<std::size_t>(takes, 1);
    }
    messageBytes = mayGoOn && end == outcome::done ? takes : messageBytes;
    return {.end = endOf(end), .error = errnoOf(end)};
}

std::string exchangeTrouble(const bus& wires)
{
    const transferLimits limits = wires.limits();
    if (!limits.plain) {
        return "the adapter makes SMBus calls only";
    }
    return limits.repeatedStart ? "" : "the adapter sends a STOP where a repeated START belongs";
}

std::size_t longestExchange(const bus& wires, std::uint32_t speedKhz)
{
    const std::size_t most = wires.limits().readBytes;
    transferSettings settings;
    settings.offsetLength = MERN_OFFSET_LENGTH_MAX;
    return std::min(most, bytesInTime(longestWireNs, wires.clockHz({.speedKhz = speedKhz}), settings, direction::read,
                                      std::max<std::size_t>(most, 1)));
}

} // namespace kest::host::iic
