/// The library on a simulated machine of the test's own: SEEPROMs on the bus and behind four hubs, expanders, LED
/// drivers, sensors.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>

#include "kest/kest.h"
#include "platform/errl.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/store.h"
#include "tests/system/machine_images.h"

namespace kest::test
{

/// The result of a call of the library.
struct Ending {
    std::uint32_t returnCode = 0; ///< 0: no entry
    unsigned int length = 0;
    Bytes data;
    std::uint32_t word4 = 0; ///< user data 1 of the entry's first SRC

    [[nodiscard]] bool good() const { return returnCode == 0; }
};
std::ostream& operator<<(std::ostream& out, const Ending& value);

class LibraryMachine : public OwnMachine
{
protected:
    /// @param busKeys   more keys of the bus in machine.toml
    /// @param chipKeys  more keys of each chip but the hubs
    explicit LibraryMachine(const std::string& busKeys = "", const std::string& chipKeys = "");

    static tavo_deviceaddress address(const std::string& text, std::uint32_t number = 0);
    /// Hardware mode, and a short write cycle: the simulated chips take 3.5 ms of bus time.
    static constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> hardware{400, 1, 1, 4, 2, 1};

    static Ending conclude(ErrlEntry* entry, Ending result);
    static Ending read(const std::string& text, unsigned int offset, unsigned int length);
    static Ending write(const std::string& text, unsigned int offset, const Bytes& data)
    {
        auto moved = static_cast<unsigned int>(data.size());
        ErrlEntry* const entry =
            KEST_seepromWrite(address(text), nullptr, offset, &moved, data.data(), hardware.data());
        return conclude(entry, {.length = moved, .data = {}});
    }
    static std::string hubText(int hub, int port, bool small = false);

    /// Whether the device address is free: whether it can be locked at once.
    static bool unlocked(std::uint16_t deviceAddress);
    /// How often a fault of this machine has struck.
    [[nodiscard]] std::uint64_t struck(std::uint32_t fault) const
    {
        std::uint64_t times = 0;
        for (const sim::machine::listedFault& listed : machine->faults()) {
            times += listed.number == fault ? listed.struck : 0;
        }
        return times;
    }
};

} // namespace kest::test
