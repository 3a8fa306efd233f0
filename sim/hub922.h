/// The 922 hub: a chip on the main bus with eight sub-buses, each with chips of its own.
/// Knows neither main bus nor file.
#pragma once

#include "sim/chip.h"

#include <array>
#include <functional>
#include <map>
#include <utility>

namespace kest::sim
{

/// How the hub's latest command or transfer ended.
enum class hubStatus : std::uint8_t {
    done = 0,
    malformedCommand = 1,
    noAnswer = 2,
    subBusSdaHeld = 3,
    subBusSclHeld = 4,
    arbitrationLost = 5,
    subBusTimeout = 6,
    noSuchPort = 7,
    tooLong = 8,
    outOfReset = 15,
};

class hub922 final : public chip
{
public:
    static constexpr unsigned ports = 8;

    /// Puts a chip on a sub-bus. @param find  gives the chip, ready for use; it outlives the hub
    /// @param offsetBytes  sent before the data of a read
    void attach(std::uint8_t port, std::uint8_t address, std::function<chip&()> find, std::uint32_t offsetBytes)
    {
        m_devices[{port, address}] = {std::move(find), offsetBytes};
    }
    /// The reset line. Low holds the hub in reset; letting it go starts it with cleared faults and status 15.
    void resetLine(bool low);
    [[nodiscard]] bool inReset() const { return m_heldInReset; }

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
    struct place {
        std::function<chip&()> find;
        std::uint32_t offsetBytes = 0;
    };
    struct device {
        chip* model = nullptr;
        std::uint32_t offsetBytes = 0;
    };
    enum class answer : std::uint8_t {
        nothing,
        plainStatus, ///< one byte, which is cleared by reading it
        data, ///< status 0, then the device's bytes
        failure, ///< a status byte, then 0xFF
    };
    enum class heldLine : std::uint8_t {
        none,
        sda,
        scl
    };
    /// What a fault does to the sub-bus of a port.
    struct portHold {
        heldLine line = heldLine::none;
        std::uint32_t by = 0; ///< number of the fault
        std::uint32_t resetsToGo = 0; ///< sub-bus resets that the hold outlasts
    };
    enum commandByte : std::uint8_t {
        command = 0x20,
        resetSubBuses = 0x06,
        tellErrorStatus = 0x07,
        commandBytes = 2,
        headerBytes = 2, // port and device address
    };
    // bytes after the hub's address
    static constexpr std::size_t longestWrite = 256;

    [[nodiscard]] bool busy(std::uint64_t now) const { return now < m_busyUntil; }
    [[nodiscard]] bool isCommand() const { return m_received[0] == command; }
    void startRead(busClock& clock, chipFaults& faults);
    [[nodiscard]] std::uint8_t giveStatus();
    void note(hubStatus outcome);
    void runCommand(chipFaults& faults);
    void resetHolds();
    [[nodiscard]] bool anyHeld(heldLine line) const;
    [[nodiscard]] listedRegister listHeld(const char* name, heldLine line) const;
    [[nodiscard]] hubStatus check(chipFaults& faults);
    [[nodiscard]] static hubStatus checkSubBus(portHold& hold, chipFaults& faults);
    [[nodiscard]] static hubStatus askNobody(busClock& subBus);
    [[nodiscard]] device target() const;
    [[nodiscard]] hubStatus passOn(busClock& clock, chipFaults& faults);
    [[nodiscard]] hubStatus passOn(const device& to, busClock& subBus, chipFaults& faults);
    [[nodiscard]] hubStatus waitForDevice(chip& device, busClock& subBus, chipFaults& faults);
    [[nodiscard]] hubStatus refuseRead() const;
    [[nodiscard]] hubStatus fetch(busClock& clock, chipFaults& faults);
    [[nodiscard]] hubStatus fetch(const device& from, busClock& subBus, chipFaults& faults);
    [[nodiscard]] bool sendTo(chip& model, std::size_t bytes, busClock& subBus, chipFaults& faults);
    void endFetch(busClock& clock, chipFaults& faults);

    std::map<std::pair<std::uint8_t, std::uint8_t>, place> m_devices; ///< by port and address

    hubStatus m_status = hubStatus::done;
    bool m_heldInReset = false;
    std::uint64_t m_busyUntil = 0;
    std::array<portHold, ports> m_holds{};

    // Of the transaction under way: nothing of it outlives a STOP.
    std::array<std::uint8_t, longestWrite> m_received{};
    std::size_t m_receivedBytes = 0; ///< kept or not
    bool m_writing = false;
    answer m_answering = answer::nothing;
    bool m_statusGiven = false;
    hubStatus m_beingRead = hubStatus::done; ///< by a plain read that has not come to the end of it
    std::uint8_t m_firstByte = 0;
    chip* m_fetching = nullptr;
};

} // namespace kest::sim
