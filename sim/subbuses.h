/// The sub-buses of a 922 hub with the chips on them: the hub is their controller.
#pragma once

#include "sim/chip.h"
#include "sim/hubstatus.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <utility>

namespace kest::sim
{

class subBuses
{
public:
    /// What the main bus has sent ahead of a transfer: port and address of a device.
    static constexpr std::size_t headerBytes = 2;

    /// Puts a chip on a sub-bus. @param find  gives the chip, ready for use; it outlives the sub-buses
    /// @param offsetBytes  sent before the data of a read
    void attach(std::uint8_t port, std::uint8_t address, std::function<chip&()> find, std::uint32_t offsetBytes)
    {
        m_devices[{port, address}] = {std::move(find), offsetBytes};
    }

    // Transfers move their time on by what they take on the sub-bus.

    /// Sends a device what came for it, and asks until it acknowledges again.
    /// @param received  header, offset and data
    [[nodiscard]] hubStatus write(std::span<const std::uint8_t> received, std::uint64_t& now, chipFaults& faults);
    /// Begins a read. @param received  header and offset
    [[nodiscard]] hubStatus beginRead(std::span<const std::uint8_t> received, std::uint64_t& now, chipFaults& faults);
    /// The next byte of the read under way; 0xFF when there is none.
    [[nodiscard]] std::uint8_t readByte(std::uint64_t& now, chipFaults& faults);
    /// The STOP of the read under way, if there is one.
    void endRead(std::uint64_t now, chipFaults& faults);
    /// The read under way ends without a STOP.
    void dropRead();

private:
    struct place {
        std::function<chip&()> find;
        std::uint32_t offsetBytes = 0;
    };
    struct device {
        chip* model = nullptr; ///< null: nobody answers
        std::uint32_t offsetBytes = 0;
    };

    [[nodiscard]] device target(std::span<const std::uint8_t> received) const;
    [[nodiscard]] static hubStatus askNobody(busClock& subBus);
    [[nodiscard]] static hubStatus waitFor(chip& device, busClock& subBus, chipFaults& faults);
    [[nodiscard]] static bool send(chip& model, std::span<const std::uint8_t> received, busClock& subBus,
                                   chipFaults& faults);
    [[nodiscard]] static hubStatus write(const device& to, std::span<const std::uint8_t> received, busClock& subBus,
                                         chipFaults& faults);
    [[nodiscard]] hubStatus beginRead(const device& from, std::span<const std::uint8_t> received, busClock& subBus,
                                      chipFaults& faults);

    std::map<std::pair<std::uint8_t, std::uint8_t>, place> m_devices; ///< by port and address
    chip* m_reading = nullptr;
};

} // namespace kest::sim
