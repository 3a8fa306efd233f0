/// One transaction on a bus: the segments as STARTs, bytes and a STOP, with the faults that strike in between.
#pragma once

#include "sim/adapter.h"
#include "sim/bus.h"
#include "sim/buschips.h"
#include "sim/busstate.h"
#include "sim/faultplan.h"
#include "sim/wire.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kest::sim
{

/// Whether a segment goes on without a repeated START, in the message of the one before it.
bool joins(std::span<const segment> segments, std::size_t index);

class transaction
{
public:
    /// @param kind      of adapter; outlives the transaction, as the others do
    /// @param deadline  on the bus's clock: a byte that ends later is the last one
    transaction(busChips& chips, busState& state, wire& lines, std::span<segment> segments, const adapterKind& kind,
                std::uint64_t deadline = latestTime);
    transferResult run();

private:
    enum class ending : std::uint8_t {
        stop, ///< with a STOP that all see
        dropped, ///< a STOP after which nothing of the latest write counts
        held ///< lines held
    };
    transferResult endWithout(const faultRecord& gone);
    bool runSegment(std::size_t index);
    bool sendAddress(const segment& part);
    void select(chip& addressed, std::uint8_t address);
    [[nodiscard]] bool isStillDriven();
    void noteWhatIsDriven();
    [[nodiscard]] bool isStruckAtAddress(const segment& part);
    [[nodiscard]] bool isRefused(const segment& part);
    bool moveBytes(segment& part);
    bool sendByte(const segment& part, std::uint8_t byte);
    bool readByte(const segment& part, std::uint8_t& byte, bool more);
    [[nodiscard]] bool isStruckAtByte(const segment& part, std::uint8_t byte);
    [[nodiscard]] bool isPowerLost(const segment& part);
    [[nodiscard]] bool isHeldAt(const segment& part, std::uint64_t byte);
    [[nodiscard]] bool isArbitrationLostAtByte(const segment& part);
    void cutShort(const segment& part, std::uint8_t byte);
    void leaveDriven(std::uint8_t byte, unsigned bitsSent);
    void leaveNextByte();
    bool fail(outcome how, ending with);
    void hold(const faultRecord& by, bool sda);
    bool endStretch(const segment& part, std::uint64_t stretchedNs);
    bool isTimeOver();
    void finish();
    [[nodiscard]] bool isGuarded(const segment& part) const;
    [[nodiscard]] busClock clockOfAcknowledge() const;
    [[nodiscard]] bool isLastInTime() const;

    busChips& m_chips;
    busState& m_state;
    wire& m_lines;
    std::uint64_t m_deadline;
    std::span<segment> m_segments;
    const adapterKind& m_adapter;
    faultPlan m_faults;
    const bool m_powerMayGo; ///< whether the bus has such a fault
    bool m_powerLost = false;
    transferResult m_result;
    ending m_end = ending::stop;
    chip* m_selected = nullptr;
    std::uint8_t m_selectedAt = 0; ///< its address
    bool m_bitLost = false; ///< the adapter misses the first bit of the byte that comes next
    std::uint64_t m_byteNumber = 0; ///< data bytes since the START
    std::array<bool, 128> m_answered{}; ///< addresses that have acknowledged
};

} // namespace kest::sim
