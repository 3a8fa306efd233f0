/// The library on a simulated machine of the test's own: SEEPROMs on the bus and behind four hubs, expanders, LED
/// drivers, sensors.
#pragma once

#include <array>
#include <memory>
#include <ostream>

#include "kest/kest.h"
#include "platform/errl.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/store.h"
#include "tests/system/machine_images.h"

namespace kest::test
{

/// What a call of the library ended with.
struct Ending {
    std::uint32_t returnCode = 0; ///< 0: no entry
    unsigned int length = 0;
    Bytes data;
    std::uint32_t word4 = 0; ///< user data 1 of the entry's first SRC

    [[nodiscard]] bool good() const { return returnCode == 0; }
};
inline std::ostream& operator<<(std::ostream& out, const Ending& value)
{
    return out << std::hex << "return code " << value.returnCode << " word " << value.word4 << std::dec << ", "
               << value.length << " bytes";
}

class LibraryMachine : public OwnMachine
{
protected:
    LibraryMachine() : OwnMachine("[registry]\n\"tavo/ReadMode\" = \"HWareMode\"\n")
    {
        std::string text = "[[bus]]\nname = \"planar\"\n";
        text += eeprom("24C256", 0xA0, "main.bin") + eeprom("24C02", 0xA4, "small.bin") +
                eeprom("24C512", 0xA6, "large.bin") + eeprom("24C32", 0xA8, "medium.bin") +
                eeprom("24C64", 0xAC, "eight.bin") + eeprom("24C128", 0xAE, "sixteen.bin");
        text += chip("PCA9551", 0xC4) + chip("PCA9552", 0xC0) + chip("PCA9552", 0xC2) + chip("PCA9554", 0x42) +
                chip("PCA9555", 0x40) + chip("LM75", 0x90) + chip("LM92", 0x96);
        for (const int hub : {0x80, 0x82, 0x88, 0x8A}) {
            text += chip("HUB922", hub);
            for (const int port : {0, 7}) {
                const std::string name = std::to_string(hub) + "-" + std::to_string(port);
                const std::string at = "hub = " + std::to_string(hub) + "\nport = " + std::to_string(port) + "\n";
                text += eeprom("24C128", 0xA2, "riser" + name + ".bin", at) +
                        eeprom("24C02", 0xA6, "card" + name + ".bin", at);
                fill("riser" + name + ".bin", pattern(16384, static_cast<unsigned>(hub + port)));
                fill("card" + name + ".bin", pattern(256, static_cast<unsigned>(hub + port + 1)));
            }
        }
        fill("main.bin", pattern(32768, 1));
        fill("small.bin", pattern(256, 2));
        fill("large.bin", pattern(65536, 3));
        fill("medium.bin", pattern(4096, 4));
        fill("eight.bin", pattern(8192, 5));
        fill("sixteen.bin", pattern(16384, 6));
        power(text);
    }

    static tavo_deviceaddress address(const std::string& text, std::uint32_t number = 0)
    {
        tavo_deviceaddress result{.number = number, .location = {}};
        EXPECT_LT(text.size(), sizeof result.location);
        std::ranges::copy(text, static_cast<char*>(result.location));
        return result;
    }
    /// Hardware mode, and a short write cycle: the simulated chips' is 3.5 ms of bus time.
    static constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> hardware{400, 1, 1, 4, 2, 1};

    static Ending conclude(ErrlEntry* entry, Ending result)
    {
        const std::unique_ptr<ErrlEntry> owned(entry);
        if (owned) {
            result.returnCode = owned->getRC();
            unsigned int count = 0;
            const SrciSrc* source = owned->getSRC(0);
            EXPECT_NE(nullptr, source);
            result.word4 = source == nullptr ? 0 : source->getHexData(count)[4];
        }
        return result;
    }
    static Ending read(const std::string& text, unsigned int offset, unsigned int length)
    {
        unsigned int moved = length;
        unsigned char* data = nullptr;
        ErrlEntry* const entry = KEST_seepromRead(address(text), nullptr, offset, &moved, &data, hardware.data());
        Ending result{.length = moved, .data = {}};
        if (entry == nullptr && data != nullptr) {
            result.data.assign(data, data + moved);
        }
        tavo_util_free(reinterpret_cast<void**>(&data));
        return conclude(entry, std::move(result));
    }
    static Ending write(const std::string& text, unsigned int offset, const Bytes& data)
    {
        auto moved = static_cast<unsigned int>(data.size());
        ErrlEntry* const entry =
            KEST_seepromWrite(address(text), nullptr, offset, &moved, data.data(), hardware.data());
        return conclude(entry, {.length = moved, .data = {}});
    }
    static std::string hubText(int hub, int port, bool small = false)
    {
        std::array<char, 80> text{};
        std::snprintf(text.data(), text.size(), "sim:planar,L,922,%X,%X,%s", static_cast<unsigned>(hub),
                      static_cast<unsigned>(port), small ? "1C0002,A6" : "2C0128,A2");
        return text.data();
    }

    /// Whether the device address is free: a lock on it is had at once.
    static bool unlocked(std::uint16_t deviceAddress)
    {
        OpenDevice other("sim:planar");
        std::array<std::uint8_t, 8> record{};
        const std::uint32_t timeoutMs = 1;
        std::memcpy(record.data() + 2, &deviceAddress, 2);
        std::memcpy(record.data() + 4, &timeoutMs, 4);
        return other.config(2, 17, record.data(), record.size()) == Answer{0, 0};
    }
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
