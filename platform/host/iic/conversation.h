/// The waiting of a transfer: for a free bus, for a busy target, for the end of a write cycle, within one time-out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/transfer.h"

namespace kest::host::iic
{

/// What a silent target may be doing.
enum class waiting : std::uint8_t {
    start, ///< another's write cycle, at the start of a transfer
    cycleEnd, ///< the write cycle of a page that this transfer sent
};

/// One transfer: its clock, its target, and the questions that a busy target is asked.
class conversation
{
public:
    conversation(bus& wires, const transferSettings& settings, transactionHistory& history);

    /// Sends a transaction. While its target does not acknowledge it is asked again.
    transferResult sendWhenReady(std::span<const segment> segments, waiting what);
    /// Asks the target alone until it acknowledges. A bus may have no such question: notSupported.
    outcome askUntilAnswered(waiting what);
    /// Waits for the end of a page's write cycle: all the time that it may take where the target can't be asked.
    outcome awaitCycleEnd();

    /// How long the latest transaction lasted, ns; questions do not count.
    [[nodiscard]] std::uint64_t lastedNs() const { return m_lastedNs; }
    /// How often the target did not acknowledge in the latest wait, a transaction included. Nothing when the target could
    /// not be asked.
    [[nodiscard]] std::optional<std::uint32_t> refusals() const { return m_refusals; }
    /// Whether the target acknowledged its address while the latest transaction that sendWhenReady() sent failed.
    [[nodiscard]] bool addressAnswers() const { return m_addressAnswers; }
    /// Whether the transfer's time-out has passed.
    [[nodiscard]] bool expired() const { return timeLeftNs() == 0; }
    /// Begins the transfer's time anew: until now another used the time.
    void restart();
    /// The errno of a transaction's end where no page before it is in doubt.
    /// @param length  of its data. One plain byte that is refused is not too long.
    [[nodiscard]] int errorOf(outcome end, std::size_t length) const;

private:
    /// A time in which a silent target may answer.
    struct answerWindow {
        std::uint64_t startedNs;
        std::uint64_t lengthNs;
    };

    template <typename Act>
    outcome withinBusyWait(Act act);
    template <typename Act>
    transferResult attempt(Act act);
    transferResult send(std::span<const segment> segments);
    outcome ask();
    outcome askAfter(outcome refusal, direction way);
    /// How long a target may be silent.
    [[nodiscard]] std::uint64_t windowNs(waiting what) const;
    [[nodiscard]] bool isNotYet(outcome end, waiting what);
    /// Whether the latest question was the last one in a window. One that began within it may have lasted longer.
    [[nodiscard]] bool isOver(const answerWindow& window) const
    {
        return m_askedNs - window.startedNs >= window.lengthNs;
    }
    bool opensAgain(answerWindow& window);
    void pauseWithin(const answerWindow& window);
    void pause(std::uint64_t nanoseconds);
    void noteOtherWriter();
    [[nodiscard]] outcome silenceOr(outcome end) const;
    [[nodiscard]] std::uint64_t timeLeftNs() const;

    bus& m_wires;
    const transferSettings& m_settings;
    transactionHistory& m_history;
    std::uint64_t m_startedNs;
    std::uint64_t m_nowNs; ///< as of the last transaction or pause
    std::uint64_t m_askedNs; ///< when the latest transaction or question began
    std::uint64_t m_lastedNs = 0;
    std::optional<std::uint32_t> m_refusals;
    bool m_addressAnswers = false;
    bool m_busyWithAnother = false; ///< another handle was writing pages to the target when last looked
};

} // namespace kest::host::iic
