#include "tests/system/library_machine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <utility>

namespace kest::test
{

std::ostream& operator<<(std::ostream& out, const Ending& value)
{
    return out << std::hex << "return code " << value.returnCode << " word " << value.word4 << std::dec << ", "
               << value.length << " bytes";
}

LibraryMachine::LibraryMachine(const std::string& busKeys, const std::string& chipKeys)
    : OwnMachine("[registry]\n\"tavo/ReadMode\" = \"HWareMode\"\n")
{
    std::string text = "[[bus]]\nname = \"planar\"\n" + busKeys;
    const auto memory = [&chipKeys](const char* type, int address, const char* image) {
        return eeprom(type, address, image, chipKeys);
    };
    text += memory("24C256", 0xA0, "main.bin") + memory("24C02", 0xA4, "small.bin") +
            memory("24C512", 0xA6, "large.bin") + memory("24C32", 0xA8, "medium.bin") +
            memory("24C64", 0xAC, "eight.bin") + memory("24C128", 0xAE, "sixteen.bin");
    text += chip("PCA9551", 0xC4, chipKeys) + chip("PCA9552", 0xC0, chipKeys) + chip("PCA9552", 0xC2, chipKeys) +
            chip("PCA9554", 0x42, chipKeys) + chip("PCA9555", 0x40, chipKeys) + chip("LM75", 0x90, chipKeys) +
            chip("LM92", 0x96, chipKeys);
    for (const int hub : {0x80, 0x82, 0x88, 0x8A}) {
        text += chip("HUB922", hub);
        for (const int port : {0, 7}) {
            const std::string name = std::to_string(hub) + "-" + std::to_string(port);
            // write cycles without a spread: repeated writes take as many transactions
            const std::string at = chipKeys + "write_cycle_min_ms = 3.5\nhub = " + std::to_string(hub) +
                                   "\nport = " + std::to_string(port) + "\n";
            text +=
                eeprom("24C128", 0xA2, "riser" + name + ".bin", at) + eeprom("24C02", 0xA6, "card" + name + ".bin", at);
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

tavo_deviceaddress LibraryMachine::address(const std::string& text, std::uint32_t number)
{
    tavo_deviceaddress result{.number = number, .location = {}};
    EXPECT_GT(sizeof result.location, text.size());
    std::ranges::copy(text, static_cast<char*>(result.location));
    return result;
}

Ending LibraryMachine::conclude(ErrlEntry* entry, Ending result)
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

Ending LibraryMachine::read(const std::string& text, unsigned int offset, unsigned int length)
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

std::string LibraryMachine::hubText(int hub, int port, bool small)
{
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "sim:planar,L,922,%X,%X,%s", static_cast<unsigned>(hub),
                  static_cast<unsigned>(port), small ? "1C0002,A6" : "2C0128,A2");
    return text.data();
}

bool LibraryMachine::unlocked(std::uint16_t deviceAddress)
{
    OpenDevice other("sim:planar");
    std::array<std::uint8_t, 8> record{};
    const std::uint32_t timeoutMs = 1;
    std::memcpy(record.data() + 2, &deviceAddress, 2);
    std::memcpy(record.data() + 4, &timeoutMs, 4);
    return other.config(2, 17, record.data(), record.size()) == Answer{0, 0};
}

} // namespace kest::test
