/// The waiting of a transfer: for a free bus, for a busy target, for the end of a write cycle, within one time-out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/transfer.h"

namespace kest::host::iic
{

/// One transfer: its clock, its target, and the questions that a busy target is asked.
class conversation
{
public:
    conversation(bus& wires, const transferSettings& settings, transactionHistory& history);

    /// Sends a transaction. While its target does not acknowledge it is asked again, for `windowNs`.
    transferResult sendWhenReady(std::span<const segment> segments, std::uint64_t windowNs);
    /// Asks the target alone until it acknowledges, for `windowNs`. A bus may have no such question: notSupported.
    outcome askUntilAnswered(std::uint64_t windowNs);
    /// Waits for the end of a page's write cycle: all the time that it may take where the target can't be asked.
    outcome awaitCycleEnd();

    /// How long a target may be silent at the start of a transfer.
    [[nodiscard]] std::uint64_t startWindowNs() const;
    /// How long a target may be silent after a page was written.
    [[nodiscard]] std::uint64_t cycleWindowNs() const;
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
    [[nodiscard]] bool isOver(const answerWindow& window) const
    {
        return m_nowNs - window.startedNs >= window.lengthNs;
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
    bool m_busyWithAnother = false; ///< another handle was writing pages to the target when last looked
};

} // namespace kest::host::iic
