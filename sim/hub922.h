/// The 922 hub: a chip on the main bus with eight sub-buses, each with chips of its own.
/// Knows neither main bus nor file.
#pragma once

#include "sim/chip.h"
#include "sim/hubstatus.h"
#include "sim/subbuses.h"
#include "sim/subbusholds.h"

#include <array>
#include <functional>
#include <span>
#include <utility>

namespace kest::sim
{

class hub922 final : public chip
{
public:
    static constexpr unsigned ports = subBusHolds::ports;

    /// Puts a chip on a sub-bus. @param find  gives the chip, ready for use; it outlives the hub
    /// @param offsetBytes  sent before the data of a read
    void attach(std::uint8_t port, std::uint8_t address, std::function<chip&()> find, std::uint32_t offsetBytes)
    {
        m_subBuses.attach(port, address, std::move(find), offsetBytes);
    }
    /// The reset line. Low holds the hub in reset; letting it go starts it with cleared faults and status 15.
    void resetLine(bool low);
    [[nodiscard]] bool inReset() const { return m_heldInReset; }
    /// Something drives the reset line; before any use. Without it the hub is never in reset.
    void connectResetLine() { m_hasResetLine = true; }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock& clock, chipFaults& faults) override;
    void deselect() override;
    void cut() override;
    [[nodiscard]] bool guarded() const override { return m_answering == answer::data && m_statusGiven; }
    void exchange(stateFields& fields) override;
    void powerUp() override;
    void asNew() override;
    void endEffects(const faultEnded& ended) override;
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
    enum class answer : std::uint8_t {
        nothing,
        plainStatus, ///< one byte, which is cleared by reading it
        data, ///< status 0, then the device's bytes
        failure, ///< a status byte, then 0xFF
    };
    enum commandByte : std::uint8_t {
        command = 0x20,
        resetSubBuses = 0x06,
        tellErrorStatus = 0x07,
        commandBytes = 2,
    };
    // bytes after the hub's address
    static constexpr std::size_t longestWrite = 256;

    [[nodiscard]] bool busy(std::uint64_t now) const { return now < m_busyUntil; }
    [[nodiscard]] bool isCommand() const { return m_received[0] == command; }
    void startRead(busClock& clock, chipFaults& faults);
    [[nodiscard]] std::uint8_t giveStatus();
    void note(hubStatus outcome);
    void runCommand(chipFaults& faults);
    [[nodiscard]] std::span<const std::uint8_t> received() const;
    [[nodiscard]] hubStatus check(chipFaults& faults);
    [[nodiscard]] hubStatus passOn(std::uint64_t now, chipFaults& faults);
    [[nodiscard]] hubStatus fetch(busClock& clock, chipFaults& faults);

    subBuses m_subBuses;
    bool m_hasResetLine = false;

    hubStatus m_status = hubStatus::done;
    bool m_heldInReset = false;
    std::uint64_t m_busyUntil = 0;
    subBusHolds m_holds;

    // Of the transaction under way: nothing of it outlives a STOP.
    std::array<std::uint8_t, longestWrite> m_received{};
    std::size_t m_receivedBytes = 0; ///< kept or not
    bool m_writing = false;
    answer m_answering = answer::nothing;
    bool m_statusGiven = false;
    hubStatus m_beingRead = hubStatus::done; ///< by a plain read that has not come to the end of it
    std::uint8_t m_firstByte = 0;
};

} // namespace kest::sim
