#include "platform/host/iic/transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

namespace kest::host::iic
{
namespace
{

constexpr std::uint64_t nsPerMs         = 1'000'000;
constexpr std::uint64_t shortestCycleMs = 50;  // a device may be waited for that long whatever its block promises
constexpr std::uint64_t cyclesToWait    = 4;   // of what the block promises
constexpr std::uint64_t longestStartMs  = 50;  // for a target that does not answer at the start
constexpr std::size_t   hubBytes        = 256; // what a hub takes after its address
constexpr std::size_t   mostOffsetBytes = 4;
constexpr std::uint64_t closelyAskedNs  = 10 * nsPerMs;
constexpr std::uint64_t shortestBusyPauseNs =
    nsPerMs / 20; // before a lost arbitration is tried again; doubles each time
constexpr std::uint64_t longestBusyPauseNs = 10 * nsPerMs;
constexpr unsigned int  doubtfulSends      = 3; // transactions refused although the address alone is answered

bool throughHub(const transferSettings& settings) { return settings.offsetLength >= 3; }

/// The part of a position that counts up: one byte of offset for lengths 1 and 3, two for 2 and 4. The rest names port and device of a hub.
std::uint32_t countingMask(const transferSettings& settings)
{
    return settings.offsetLength % 2 == 1 ? 0xFFU : 0xFFFFU;
}

std::uint32_t positionPlus(const transferSettings& settings, std::size_t moved)
{
    const std::uint32_t mask = countingMask(settings);
    return (settings.position & ~mask) | static_cast<std::uint32_t>((settings.position + moved) & mask);
}

bool positionFits(const transferSettings& settings)
{
    return settings.offsetLength == 0 || throughHub(settings) || settings.position <= countingMask(settings);
}

/// The bytes of an offset, most significant first.
struct offsetBytes {
    offsetBytes(std::uint32_t position, std::size_t count) : length(count)
    {
        for (std::size_t index = 0; index < count; ++index) {
            bytes.at(index) = static_cast<std::uint8_t>(position >> (8 * (count - 1 - index)));
        }
    }
    std::span<std::uint8_t> span() { return std::span(bytes).first(length); }

    std::array<std::uint8_t, mostOffsetBytes> bytes{};
    std::size_t                               length;
};

bool isSilence(outcome end) { return end == outcome::addressNotAcknowledged || end == outcome::notAcknowledged; }

/// One transfer: its clock, its target, and the questions that a busy target is asked.
class conversation
{
public:
    conversation(bus& wires, const transferSettings& settings, transactionHistory& history)
        : m_wires(wires), m_settings(settings), m_history(history), m_startedNs(wires.nowNs()), m_nowNs(m_startedNs)
    {
    }

    /// Sends a transaction. While its target does not answer it is asked again, for `windowNs`.
    transferResult sendWhenReady(std::span<const segment> segments, std::uint64_t windowNs);
    /// Asks the target alone until it answers, for `windowNs`. A bus may have no such question: notSupported.
    outcome askUntilAnswered(std::uint64_t windowNs);

    [[nodiscard]] std::uint64_t startWindowNs() const
    {
        return std::min<std::uint64_t>(longestStartMs, m_settings.busyWaitMs) * nsPerMs;
    }
    [[nodiscard]] std::uint64_t cycleWindowNs() const
    {
        return std::max<std::uint64_t>(shortestCycleMs, cyclesToWait * m_settings.writeCycleMs) * nsPerMs;
    }
    [[nodiscard]] bool expired() const
    {
        return m_settings.pace.timeoutMs != 0 && m_nowNs - m_startedNs >= m_settings.pace.timeoutMs * nsPerMs;
    }
    /// What a transaction's end means at the start of a transfer.
    [[nodiscard]] int startError(outcome end) const { return isSilence(end) && expired() ? ETIME : errnoOf(end); }

private:
    template <typename Act>
    outcome        withinBusyWait(Act act);
    transferResult send(std::span<const segment> segments);
    outcome        ask();
    void           pauseSince(std::uint64_t startedNs, std::uint64_t windowNs);
    void           pause(std::uint64_t nanoseconds);

    bus&                    m_wires;
    const transferSettings& m_settings;
    transactionHistory&     m_history;
    std::uint64_t           m_startedNs;
    std::uint64_t           m_nowNs; ///< as of the last transaction or pause
};

/// Repeats what lost the arbitration or met a busy bus, for as long as a busy bus is waited for.
template <typename Act>
outcome conversation::withinBusyWait(Act act)
{
    const std::uint64_t startedNs = m_nowNs;
    const std::uint64_t windowNs  = m_settings.busyWaitMs * nsPerMs;
    outcome             end       = act();
    std::uint64_t       pauseNs   = shortestBusyPauseNs;
    while ((end == outcome::arbitrationLost || end == outcome::busBusy || end == outcome::interrupted) &&
           m_nowNs - startedNs < windowNs && !expired()) {
        pause(pauseNs);
        pauseNs = std::min(2 * pauseNs, longestBusyPauseNs);
        end     = act();
    }
    return end;
}

transferResult conversation::send(std::span<const segment> segments)
{
    transferResult result;
    withinBusyWait([&] {
        result  = m_wires.transfer(segments, m_settings.pace);
        m_nowNs = result.nowNs;
        m_history.note(m_nowNs, segments, result.end);
        return result.end;
    });
    return result;
}

/// Between two questions to a target that has been silent since `startedNs`. A page's write cycle is asked for closely, since the next page
/// waits for its end; whoever is silent for longer is asked ever less often.
void conversation::pauseSince(std::uint64_t startedNs, std::uint64_t windowNs)
{
    const std::uint64_t silentNs = m_nowNs - startedNs;
    const std::uint64_t rareNs   = silentNs > closelyAskedNs ? silentNs / 16 : 0;
    pause(std::min(m_wires.questionPauseNs() + rareNs, windowNs - std::min(silentNs, windowNs)));
}

void conversation::pause(std::uint64_t nanoseconds)
{
    if (nanoseconds != 0) {
        m_wires.pause(nanoseconds);
        m_nowNs = m_wires.nowNs();
    }
}

outcome conversation::ask()
{
    const probeMethod method = throughHub(m_settings) ? probeMethod::addressOnly : probeMethod::safe;
    const segment     alone{.address = m_settings.target, .way = direction::write, .bytes = {}};
    return withinBusyWait([&] {
        const transferResult result = m_wires.probe(m_settings.target, method, m_settings.pace);
        m_nowNs                     = result.nowNs;
        m_history.note(m_nowNs, {&alone, 1}, result.end);
        return result.end;
    });
}

transferResult conversation::sendWhenReady(std::span<const segment> segments, std::uint64_t windowNs)
{
    const std::uint64_t startedNs = m_nowNs;
    unsigned int        refused   = 1; // sent although the target answers
    transferResult      result    = send(segments);
    while (isSilence(result.end) && result.segment == 0) {
        // Where an adapter does not tell a refused address from refused data, the address alone does: it must not be answered.
        const bool    doubtful = result.end == outcome::notAcknowledged;
        const outcome answer   = doubtful ? ask() : outcome::done;
        if (answer == outcome::done && doubtful && ++refused > doubtfulSends) {
            result.end = outcome::dataNotAcknowledged;
        } else if (m_nowNs - startedNs >= windowNs || expired()) {
            break;
        } else if (answer == outcome::done || answer == outcome::notSupported) {
            if (!doubtful || answer == outcome::notSupported) {
                pauseSince(startedNs, windowNs);
            }
            result = send(segments);
        } else if (isSilence(answer)) {
            pauseSince(startedNs, windowNs);
        } else {
            result.end = answer;
        }
    }
    return result;
}

outcome conversation::askUntilAnswered(std::uint64_t windowNs)
{
    const std::uint64_t startedNs = m_nowNs;
    outcome             end       = ask();
    while (isSilence(end) && m_nowNs - startedNs < windowNs && !expired()) {
        pauseSince(startedNs, windowNs);
        end = ask();
    }
    return end;
}

/// Bytes that a read transaction delivered into its read segments.
std::size_t bytesRead(std::span<const segment> segments, const transferResult& result)
{
    std::size_t moved = 0;
    for (std::size_t index = 0; index < segments.size(); ++index) {
        if (segments[index].way == direction::read && (result.end == outcome::done || index < result.segment)) {
            moved += segments[index].bytes.size();
        } else if (segments[index].way == direction::read && index == result.segment) {
            moved += result.bytesMoved;
        }
    }
    return moved;
}

/// Reads what fits into one transaction, after an offset when there is one, and lets the device count on.
transferResult readRun(conversation& talk, const transferSettings& settings, const transferLimits& limits,
                       std::span<std::uint8_t> data, std::uint32_t position, std::size_t& moved)
{
    offsetBytes          offset(position, settings.offsetLength);
    std::vector<segment> segments;
    if (settings.offsetLength != 0) {
        segments.push_back({.address = settings.target, .way = direction::write, .bytes = offset.span()});
    }
    while (!data.empty() && segments.size() < limits.segments) {
        const std::size_t length = std::min(data.size(), limits.readBytes);
        segments.push_back({.address = settings.target, .way = direction::read, .bytes = data.first(length)});
        data = data.subspan(length);
    }
    const transferResult result = talk.sendWhenReady(segments, talk.startWindowNs());
    moved += bytesRead(segments, result);
    return result;
}

/// Reads one piece through a hub: a status byte and data. The status is delivered with the first piece and dropped from later ones.
/// @return 0 or an errno
int readHubPiece(conversation& talk, const transferSettings& settings, const transferLimits& limits,
                 std::span<std::uint8_t> data, std::size_t& moved)
{
    const bool                first = moved == 0;
    std::vector<std::uint8_t> piece(std::min(limits.readBytes, data.size() - moved + (first ? 0 : 1)));
    const transferLimits      once{.writeBytes = limits.writeBytes, .readBytes = limits.readBytes, .segments = 2};
    std::size_t               received = 0;
    const std::uint32_t       position = positionPlus(settings, first ? 0 : moved - 1);
    const transferResult      result   = readRun(talk, settings, once, piece, position, received);
    const bool                refused  = received != 0 && piece[0] != 0;
    if (first && received != 0) {
        data[0] = piece[0];
    }
    if (refused) {
        return ENODATA; // what follows a status is no data then
    }
    const std::size_t dropped = first ? 0 : 1;
    if (received > dropped) {
        std::copy_n(piece.begin() + static_cast<std::ptrdiff_t>(dropped), received - dropped,
                    data.begin() + static_cast<std::ptrdiff_t>(moved));
        moved += received - dropped;
    }
    return talk.startError(result.end);
}

/// Whether a transfer can be made as asked, before anything is sent. @return 0, EINVAL or ENOSYS
int checkTransfer(const transferSettings& settings, const transferLimits& limits, bool read, std::size_t length)
{
    const std::size_t   fits  = read ? limits.readBytes : limits.writeBytes; // into one message
    const std::uint32_t start = settings.position & countingMask(settings);
    int                 error = 0;
    if (settings.offsetLength == 0) {
        error = length > fits ? EINVAL : 0;
    } else if (!positionFits(settings) || (!read && length > std::size_t{countingMask(settings)} + 1 - start)) {
        error = EINVAL;
    } else if (limits.writeBytes < settings.offsetLength + (read ? 0U : 1U)) {
        error = ENOSYS;
    }
    return error;
}

/// The next message of a write: an offset, and the data up to the end of its page.
std::vector<std::uint8_t> pageMessage(const transferSettings& settings, const transferLimits& limits,
                                      std::span<const std::uint8_t> data, std::size_t sent)
{
    const std::size_t most   = throughHub(settings) ? std::min(limits.writeBytes, hubBytes) : limits.writeBytes;
    std::size_t       length = std::min(most - settings.offsetLength, data.size() - sent);
    if (settings.offsetLength != 0 && settings.pageSize != 0) {
        length = std::min<std::size_t>(length, settings.pageSize - (settings.position + sent) % settings.pageSize);
    }
    offsetBytes               offset(positionPlus(settings, sent), settings.offsetLength);
    std::vector<std::uint8_t> message(offset.span().begin(), offset.span().end());
    const auto                part = data.subspan(sent, length);
    message.insert(message.end(), part.begin(), part.end());
    return message;
}

} // namespace

transferReport readDevice(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                          transactionHistory& history)
{
    conversation   talk(wires, settings, history);
    transferReport report{.error = checkTransfer(settings, wires.limits(), true, data.size())};
    while (report.error == 0 && report.moved < data.size()) {
        const transferLimits limits = wires.limits();
        if (report.moved != 0 && talk.expired()) {
            report.error = ETIME;
        } else if (throughHub(settings)) {
            report.error = readHubPiece(talk, settings, limits, data, report.moved);
        } else {
            const std::uint32_t position = positionPlus(settings, report.moved);
            report.error                 = talk.startError(
                                readRun(talk, settings, limits, data.subspan(report.moved), position, report.moved).end);
        }
        if (report.error == ENOSYS && wires.limits() != limits) {
            report.error = 0; // the adapter takes less than it was thought to: smaller pieces
        }
    }
    report.silence = report.error == ENXIO ? "absent" : "";
    return report;
}

transferReport writeDevice(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                           transactionHistory& history)
{
    conversation   talk(wires, settings, history);
    transferReport report{.error = checkTransfer(settings, wires.limits(), false, data.size())};
    std::size_t    sent =
        0; // bytes acknowledged; they count as moved when the write cycle after them has not failed to end
    while (report.error == 0 && sent < data.size()) {
        const transferLimits      limits  = wires.limits();
        std::vector<std::uint8_t> message = pageMessage(settings, limits, data, sent);
        const segment             page{.address = settings.target, .way = direction::write, .bytes = message};
        const std::uint64_t       windowNs = sent == 0 ? talk.startWindowNs() : talk.cycleWindowNs();
        const outcome             end      = talk.sendWhenReady({&page, 1}, windowNs).end;
        if (end == outcome::done) {
            sent += message.size() - settings.offsetLength;
            report.error = sent < data.size() && talk.expired() ? ETIME : 0;
        } else if (isSilence(end) && sent != 0) {
            // The page before is still being written. Only when it had all its time is it not certain to be.
            return {.moved = talk.expired() ? sent : report.moved, .error = ETIME, .silence = "busy"};
        } else if (end != outcome::notSupported || wires.limits() == limits) {
            report.error = talk.startError(end);
        }
        report.moved =
            end == outcome::done && report.error == 0 ? sent - (message.size() - settings.offsetLength) : sent;
    }
    const bool hasCycle = settings.offsetLength != 0 || settings.writeCycleMs != 0;
    if (report.error == 0 && hasCycle) {
        const outcome end = talk.askUntilAnswered(talk.cycleWindowNs());
        report.error      = isSilence(end) ? ETIME : end == outcome::notSupported ? 0 : errnoOf(end);
        report.silence    = isSilence(end) ? "busy" : "";
    } else if (report.error == ENXIO) {
        report.silence = "absent";
    }
    report.moved = report.error == 0 ? data.size() : report.moved;
    return report;
}

std::uint32_t detectDevice(bus& wires, const transferSettings& settings, transactionHistory& history)
{
    struct stateRow {
        outcome       end;
        std::uint32_t state;
    };
    constexpr std::array states{
        stateRow{outcome::done, detectPresent},
        stateRow{outcome::addressNotAcknowledged, detectAbsent},
        stateRow{outcome::sclHeld, detectSclHeld},
        stateRow{outcome::sdaHeld, detectSdaHeld},
    };
    conversation  talk(wires, settings, history);
    const outcome end = talk.askUntilAnswered(talk.startWindowNs());
    const auto*   row = std::ranges::find(states, end, &stateRow::end);
    return row == states.end() ? detectUncertain : row->state;
}

std::uint32_t positionAfter(const transferSettings& settings, bool read, std::size_t length)
{
    std::uint32_t position = settings.position;
    if (throughHub(settings)) {
        position = positionPlus(settings, read ? length - 1 : length); // a status byte is none of the device's
    } else if (settings.offsetLength != 0) {
        position += static_cast<std::uint32_t>(
            length); // past the end it stays there: wrapped, the next write would overwrite the start
    }
    return position;
}

} // namespace kest::host::iic
