#include "platform/host/iic/reads.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include "base/clock.h"
#include "platform/host/iic/conversation.h"

namespace kest::host::iic
{
namespace
{

// Controllers' drivers give up a transfer after a time of their own, often 1 s, and the bus is held meanwhile.
constexpr std::uint64_t longestWireNs = 250 * nsPerMs;

/// Bytes that a read transaction delivered into its read segments.
std::size_t bytesRead(std::span<const segment> segments, const transferResult& result)
{
    std::size_t moved = 0;
    for (std::size_t index = 0; index < segments.size(); ++index) {
        if (segments[index].way != direction::read) {
            continue;
        }
        if (result.end == outcome::done || index < result.segment) {
            moved += segments[index].bytes.size();
        } else if (index == result.segment) {
            moved += result.bytesMoved;
        }
    }
    return moved;
}

/// A read, piece by piece. The memory that it needs it has before anything is sent.
class reading
{
public:
    reading(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data, transactionHistory& history,
            transferLimits& learnt);
    transferReport run();

private:
    int readPiece();
    int readHubPiece();
    int readOnce(std::span<std::uint8_t> wanted, std::uint32_t position, std::size_t& received);
    bool canBeLess(outcome end);
    void gather(std::span<std::uint8_t> wanted, offsetBytes& offset);

    conversation m_talk;
    const transferSettings& m_settings;
    std::span<std::uint8_t> m_data;
    transferLimits& m_learnt; ///< what the adapter is known to take
    transferLimits m_takes; ///< what is tried
    std::uint64_t m_clockHz;
    transferLimits m_limits; ///< of the kind of adapter
    std::vector<segment> m_segments; ///< of one transaction
    std::vector<std::uint8_t> m_piece; ///< what comes through a hub at once, with its status
    std::size_t m_moved = 0;
    const char* m_lacks = lacksNothing; ///< when the adapter refused
};

reading::reading(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                 transactionHistory& history, transferLimits& learnt)
    : m_talk(wires, settings, history), m_settings(settings), m_data(data), m_learnt(learnt), m_takes(learnt),
      m_clockHz(wires.clockHz(settings.pace)), m_limits(wires.limits())
{
    m_segments.reserve(m_limits.segments);
    m_piece.resize(throughHub(settings) ? std::min(m_limits.readBytes, data.size() + 1) : 0);
}

transferReport reading::run()
{
    if (const transferReport refused = checkTransfer(m_settings, m_limits, direction::read, m_data.size());
        refused.error != 0) {
        return refused;
    }
    while (m_moved < m_data.size()) {
        if (m_moved != 0 && m_talk.expired()) {
            return {.moved = m_moved, .error = ETIME};
        }
        const int error = throughHub(m_settings) ? readHubPiece() : readPiece();
        if (error != 0) {
            return {.moved = m_moved,
                    .error = error,
                    .silence = error == ENXIO ? silenceAbsent : silenceNone,
                    .lacks = m_lacks};
        }
    }
    return {.moved = m_moved};
}

/// Makes the segments of one transaction: an offset, when there is one, and as many messages as adapter and wire time
/// allow.
void reading::gather(std::span<std::uint8_t> wanted, offsetBytes& offset)
{
    m_segments.clear();
    if (m_settings.offsetLength == 0) {
        m_segments.push_back({.address = m_settings.target, .way = direction::read, .bytes = wanted});
        return;
    }
    const std::size_t most = std::max(m_takes.readBytes, leastBytes(m_settings, direction::read));
    const std::size_t segments = throughHub(m_settings) ? 2 : m_takes.segments;
    const std::uint64_t wireNs = m_takes.wireNs == 0 ? longestWireNs : std::min(m_takes.wireNs, longestWireNs);
    std::size_t left = std::min(wanted.size(), bytesInTime(wireNs, m_clockHz, m_settings, direction::read, most));
    m_segments.push_back({.address = m_settings.target, .way = direction::write, .bytes = offset.span()});
    while (left != 0 && m_segments.size() < segments) {
        const std::size_t length = std::min(left, most);
        m_segments.push_back({.address = m_settings.target, .way = direction::read, .bytes = wanted.first(length)});
        wanted = wanted.subspan(length);
        left -= length;
    }
}

/// Whether a transaction that failed can be made with less, and may be.
bool reading::canBeLess(outcome end)
{
    if (end == outcome::timedOut) {
        return !m_talk.expired() && takeShorter(m_takes, m_settings, m_segments, m_talk.lastedNs(), m_clockHz);
    }
    return end == outcome::tooLong && takeLess(m_takes, m_settings, m_segments);
}

/// Reads what one transaction brings of `wanted`; in smaller pieces where the adapter takes less than it was thought
/// to.
/// @return 0 or an errno
int reading::readOnce(std::span<std::uint8_t> wanted, std::uint32_t position, std::size_t& received)
{
    offsetBytes offset(position, m_settings.offsetLength);
    transferResult result{.end = outcome::tooLong};
    do {
        gather(wanted, offset);
        result = m_talk.sendWhenReady(m_segments, waiting::start);
    } while (canBeLess(result.end));
    if (result.end == outcome::done) {
        m_learnt = m_takes;
    }
    m_lacks = lackOf(result.end);
    received = bytesRead(m_segments, result);
    return m_talk.errorOf(result.end, wanted.size());
}

int reading::readPiece()
{
    std::size_t received = 0;
    const int error = readOnce(m_data.subspan(m_moved), positionPlus(m_settings, m_moved), received);
    m_moved += received;
    return error;
}

/// Reads one piece through a hub: a status byte and data. The status is delivered with the first piece and dropped from
/// later ones.
/// @return 0 or an errno
int reading::readHubPiece()
{
    const bool first = m_moved == 0;
    const std::size_t dropped = first ? 0 : 1;
    const auto wanted = std::span(m_piece).first(std::min(m_piece.size(), m_data.size() - m_moved + dropped));
    std::size_t received = 0;
    const int error = readOnce(wanted, positionPlus(m_settings, first ? 0 : m_moved - 1), received);
    if (first && received != 0) {
        m_data[0] = wanted[0];
    }
    if (received != 0 && wanted[0] != 0) {
        // what follows a status is no data then
        return ENODATA;
    }
    if (received > dropped) {
        std::ranges::copy(wanted.first(received).subspan(dropped),
                          m_data.begin() + static_cast<std::ptrdiff_t>(m_moved));
        m_moved += received - dropped;
    }
    return error;
}

} // namespace

transferReport readDevice(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                          transactionHistory& history, transferLimits& learnt)
{
    return reading(wires, settings, data, history, learnt).run();
}

} // namespace kest::host::iic
