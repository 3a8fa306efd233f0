#include "platform/host/iic/conversation.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

#include "base/clock.h"
#include "platform/host/iic/locks.h"
#include "platform/host/iic/watch.h"

namespace kest::host::iic
{
namespace
{

// a write cycle is waited for at least that long, however short the block says it is
constexpr std::uint64_t shortestCycleMs = 50;
// times the longest write cycle that the block gives
constexpr std::uint64_t cyclesToWait = 4;
// for a target that does not acknowledge at the start
constexpr std::uint64_t longestStartMs = 50;
// a target that is silent for longer is asked ever less often
constexpr std::uint64_t closelyAskedNs = 10 * nsPerMs;
// before a lost arbitration is tried again; doubles each time
constexpr std::uint64_t shortestBusyPauseNs = nsPerMs / 20;
constexpr std::uint64_t longestBusyPauseNs = 10 * nsPerMs;
// transactions refused although the address alone is acknowledged
constexpr unsigned int doubtfulSends = 3;

bool mayPass(outcome end)
{
    return end == outcome::arbitrationLost || end == outcome::busBusy || end == outcome::interrupted;
}

} // namespace

conversation::conversation(bus& wires, const transferSettings& settings, transactionHistory& history)
    : m_wires(wires), m_settings(settings), m_history(history), m_startedNs(wires.nowNs()), m_nowNs(m_startedNs),
      m_askedNs(m_startedNs)
{
}

std::uint64_t conversation::windowNs(waiting what) const
{
    return what == waiting::start
               ? std::min<std::uint64_t>(longestStartMs, m_settings.busyWaitMs) * nsPerMs
               : std::max<std::uint64_t>(shortestCycleMs, cyclesToWait * m_settings.writeCycleMs) * nsPerMs;
}

/// Whether a target that gave no answer may still give one. Some adapters report a missing acknowledge as a time-out.
/// That is a held bus as well, so it counts as silence only where the target has a reason to be silent.
bool conversation::isNotYet(outcome end, waiting what)
{
    if (end == outcome::timedOut && what == waiting::start) {
        noteOtherWriter();
    }
    return isSilence(end) || (end == outcome::timedOut && (what == waiting::cycleEnd || m_busyWithAnother));
}

void conversation::restart()
{
    m_nowNs = m_wires.nowNs();
    m_startedNs = m_nowNs;
}

int conversation::errorOf(outcome end, std::size_t length) const
{
    if (end == outcome::tooLong && m_settings.offsetLength == 0 && length > 1) {
        return EINVAL;
    }
    return isSilence(end) && expired() ? ETIME : errnoOf(end);
}

std::uint64_t conversation::timeLeftNs() const
{
    const std::uint64_t timeoutNs = m_settings.pace.timeoutMs * nsPerMs;
    const std::uint64_t passedNs = m_nowNs - m_startedNs;
    return timeoutNs == 0 ? std::numeric_limits<std::uint64_t>::max() : timeoutNs - std::min(passedNs, timeoutNs);
}

/// Repeats what lost the arbitration or met a busy bus, for as long as a busy bus is waited for.
template <typename Act>
outcome conversation::withinBusyWait(Act act)
{
    const std::uint64_t startedNs = m_nowNs;
    const std::uint64_t windowNs = m_settings.busyWaitMs * nsPerMs;
    outcome end = act();
    std::uint64_t pauseNs = shortestBusyPauseNs;
    while (mayPass(end) && repeats() && m_nowNs - startedNs < windowNs && !expired()) {
        pause(pauseNs);
        pauseNs = std::min(2 * pauseNs, longestBusyPauseNs);
        end = act();
    }
    return end;
}

/// When memory runs out in the middle of a transfer, that ends it like any other failure: the caller gets the count of
/// what was moved before.
template <typename Act>
transferResult conversation::attempt(Act act)
{
    try {
        return act();
    } catch (const std::bad_alloc&) {
        return {.end = outcome::noMemory, .nowNs = m_wires.nowNs()};
    }
}

transferResult conversation::send(std::span<const segment> segments)
{
    transferResult result;
    withinBusyWait([&] {
        m_askedNs = m_nowNs;
        result = attempt([&] { return m_wires.transfer(segments, m_settings.pace); });
        m_nowNs = result.nowNs;
        m_lastedNs = m_nowNs - m_askedNs;
        m_history.note(m_nowNs, segments, result.end);
        return result.end;
    });
    return result;
}

outcome conversation::ask()
{
    const probeMethod method = throughHub(m_settings) ? probeMethod::addressOnly : probeMethod::target;
    const segment alone{.address = m_settings.target, .way = direction::write, .bytes = {}};
    return withinBusyWait([&] {
        m_askedNs = m_nowNs;
        const transferResult result =
            attempt([&] { return m_wires.probe(m_settings.target, method, m_settings.pace); });
        m_nowNs = result.nowNs;
        m_history.note(m_nowNs, {&alone, 1}, result.end);
        return result.end;
    });
}

void conversation::pause(std::uint64_t nanoseconds)
{
    if (nanoseconds != 0) {
        m_wires.pause(nanoseconds);
        m_nowNs = m_wires.nowNs();
    }
}

/// Between two questions to a silent target. A page's write cycle is asked for closely, because the next page waits for
/// its end.
void conversation::pauseWithin(const answerWindow& window)
{
    const std::uint64_t silentNs = m_nowNs - window.startedNs;
    const std::uint64_t rareNs = silentNs > closelyAskedNs ? silentNs / 16 : 0;
    pause(std::min(m_wires.questionPauseNs() + rareNs, window.lengthNs - std::min(silentNs, window.lengthNs)));
}

/// At the end of a window: whether the target gets another one. While another handle writes pages the target is silent
/// for a good reason. It gets one also when that handle was done only after the last question. There is an end to this
/// even when the transfer has no time-out.
bool conversation::opensAgain(answerWindow& window)
{
    const bool wasBusy = m_busyWithAnother;
    noteOtherWriter();
    window = {.startedNs = m_nowNs, .lengthNs = std::max(window.lengthNs, longestStartMs * nsPerMs)};
    return (m_busyWithAnother || wasBusy) && m_nowNs - m_startedNs < patienceMs(m_settings) * nsPerMs;
}

void conversation::noteOtherWriter()
{
    m_busyWithAnother = m_settings.locks != nullptr && m_settings.locks->isWrittenByAnother(m_settings.target);
}

/// A target that is silent because of another handle's pages is not absent.
outcome conversation::silenceOr(outcome end) const
{
    return isSilence(end) && m_busyWithAnother ? outcome::timedOut : end;
}

/// Asks a target that has refused a transaction, where the answer shows something; notSupported elsewhere. Some
/// adapters report refused data, or a transaction that takes too long, like a refused address. A question of the address
/// alone shows which it was. A plain read has no data to refuse, and a question that reads a byte would take that byte
/// from it, so the read itself is sent again.
outcome conversation::askAfter(outcome refusal, direction way)
{
    const bool isClear = refusal == outcome::addressNotAcknowledged;
    const outcome answer = way == direction::write && !isClear ? ask() : outcome::notSupported;
    m_addressAnswers = answer == outcome::done;
    return answer;
}

transferResult conversation::sendWhenReady(std::span<const segment> segments, waiting what)
{
    answerWindow window{.startedNs = m_nowNs, .lengthNs = windowNs(what)};
    // transactions that were refused although the target acknowledges its address
    unsigned int refused = 1;
    std::uint32_t silent = 0;
    m_refusals = silent;
    m_addressAnswers = false;
    transferResult result = send(segments);
    if (isSilence(result.end)) {
        noteOtherWriter();
    }
    while (isNotYet(result.end, what) && result.segment == 0) {
        const outcome answer = askAfter(result.end, segments.front().way);
        m_refusals = m_addressAnswers ? silent : ++silent;
        if (what == waiting::start && !repeats()) {
            result.end = m_addressAnswers && isSilence(result.end) ? outcome::dataNotAcknowledged : result.end;
            return result;
        }
        if (m_addressAnswers && ++refused > doubtfulSends) {
            result.end = isSilence(result.end) ? outcome::dataNotAcknowledged : result.end;
            return result;
        }
        if (expired()) {
            break;
        }
        if (m_addressAnswers) {
            // also when the window has passed meanwhile
            result = send(segments);
            continue;
        }
        if (answer != outcome::notSupported && !isNotYet(answer, what)) {
            result.end = answer;
            return result;
        }
        if (isOver(window) && !opensAgain(window)) {
            break;
        }
        pauseWithin(window);
        if (answer == outcome::notSupported) {
            result = send(segments);
        }
    }
    result.end = silenceOr(result.end);
    return result;
}

outcome conversation::askUntilAnswered(waiting what)
{
    answerWindow window{.startedNs = m_nowNs, .lengthNs = windowNs(what)};
    outcome end = ask();
    std::uint32_t silent = 0;
    m_refusals = silent;
    if (isSilence(end)) {
        noteOtherWriter();
    }
    const bool asksAgain = what == waiting::cycleEnd || repeats();
    while (asksAgain && isNotYet(end, what) && !expired() && (!isOver(window) || opensAgain(window))) {
        m_refusals = ++silent;
        pauseWithin(window);
        end = ask();
    }
    return silenceOr(end);
}

outcome conversation::awaitCycleEnd()
{
    const outcome end = askUntilAnswered(waiting::cycleEnd);
    if (end != outcome::notSupported) {
        return end;
    }
    m_refusals.reset();
    const std::uint64_t cycleNs = windowNs(waiting::cycleEnd);
    const std::uint64_t leftNs = timeLeftNs();
    pause(std::min(cycleNs, leftNs));
    return leftNs < cycleNs ? outcome::timedOut : outcome::done;
}

} // namespace kest::host::iic
