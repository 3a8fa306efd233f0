/// The 922 hub: a chip on the main bus with eight sub-buses, each with chips of its own.
/// Knows neither main bus nor file.
#pragma once

#include "sim/chip.h"

#include <array>
#include <map>

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

    /// A chip on a sub-bus; `offsetBytes` go out ahead of a read's data. The chip outlives the hub.
    void attach(std::uint8_t port, std::uint8_t address, chip& device, std::uint32_t offsetBytes)
    {
        devices[{port, address}] = {&device, offsetBytes};
    }
    /// The reset line. Low holds the hub in reset; letting it go starts it with cleared faults and status 15.
    void resetLine(bool low);
    [[nodiscard]] bool inReset() const { return heldInReset; }

    bool start(direction way, busClock& clock, chipFaults& faults) override;
    bool take(std::uint8_t byte, busClock& clock) override;
    std::uint8_t give(busClock& clock, chipFaults& faults) override;
    void stop(busClock& clock, chipFaults& faults) override;
    void deselect() override;
    [[nodiscard]] bool guarded() const override { return answering == answer::data && statusGiven; }
    void state(stateFields& fields) override;
    void powerUp() override;
    void asNew() override;
    void endEffects(const faultEnded& ended) override;
    std::vector<listedRegister> list(std::uint64_t now) override;

private:
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

    [[nodiscard]] bool busy(std::uint64_t now) const { return now < busyUntil; }
    [[nodiscard]] bool isCommand() const { return received[0] == command; }
    void note(hubStatus outcome);
    void runCommand(chipFaults& faults);
    void resetHolds();
    [[nodiscard]] bool anyHeld(heldLine line) const;
    [[nodiscard]] listedRegister listHeld(const char* name, heldLine line) const;
    [[nodiscard]] hubStatus check(chipFaults& faults);
    [[nodiscard]] hubStatus checkSubBus(std::uint8_t port, chipFaults& faults);
    [[nodiscard]] device target() const;
    [[nodiscard]] hubStatus passOn(busClock& clock, chipFaults& faults);
    [[nodiscard]] hubStatus waitForDevice(chip& device, busClock& subBus, chipFaults& faults);
    [[nodiscard]] hubStatus refuseRead() const;
    [[nodiscard]] hubStatus fetch(busClock& clock, chipFaults& faults);
    [[nodiscard]] bool sendTo(chip& model, std::size_t bytes, busClock& subBus, chipFaults& faults);
    void endFetch(busClock& clock, chipFaults& faults);

    std::map<std::pair<std::uint8_t, std::uint8_t>, device> devices;

    hubStatus status = hubStatus::done;
    bool heldInReset = false;
    std::uint64_t busyUntil = 0;
    std::array<portHold, ports> holds{};

    // Of the transaction under way: nothing of it outlives a STOP.
    std::array<std::uint8_t, longestWrite> received{};
    std::size_t receivedBytes = 0; ///< all that came, kept or not
    bool writing = false;
    answer answering = answer::nothing;
    bool statusGiven = false;
    std::uint8_t firstByte = 0;
    chip* fetching = nullptr;
};

} // namespace kest::sim
