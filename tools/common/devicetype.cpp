#include "tools/common/devicetype.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kest::tools
{
namespace
{

using enum deviceKind;

constexpr std::array types{
    deviceTypeInfo{KEST_DEV_HUB_F0, "F0", "F0 hub", hub, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_922HUB, "922", "922 hub", hub, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_2K, "1C0002", "24C02", seeprom, 256, 8, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_32K, "2C0032", "24C32", seeprom, 4096, 32, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_64K, "2C0064", "24C64", seeprom, 8192, 32, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_128K, "2C0128", "24C128", seeprom, 16384, 64, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_256K, "2C0256", "24C256", seeprom, 32768, 64, 0},
    deviceTypeInfo{KEST_DEV_SEEPROM_512K, "2C0512", "24C512", seeprom, 65536, 128, 0},
    deviceTypeInfo{KEST_DEV_9551, "9551", "PCA9551", registers, 0, 0, 8},
    deviceTypeInfo{KEST_DEV_9552, "9552", "PCA9552", registers, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_9554, "9554", "PCA9554", registers, 0, 0, 8},
    deviceTypeInfo{KEST_DEV_9555, "9555", "PCA9555", registers, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_D10, "D10", "D10 device", other, 0, 0, 0},
    deviceTypeInfo{KEST_DEV_75, "75", "LM75", sensor, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_92, "92", "LM92", sensor, 0, 0, 16},
    deviceTypeInfo{KEST_DEV_172, "172", "172 device", other, 22016, 0, 0},
};

/// First letters of chips' names that are spoken with a vowel: "an LM75".
constexpr std::string_view spokenWithAVowel = "FL";

char lowerLetter(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/// Whether two words are the same but for the case of ASCII letters.
bool sameLetters(std::string_view one, std::string_view other)
{
    return std::ranges::equal(one, other, {}, lowerLetter, lowerLetter);
}

} // namespace

std::span<const deviceTypeInfo> deviceTypes() { return types; }

const deviceTypeInfo* findType(std::uint32_t type)
{
    const auto* row = std::ranges::find_if(types, [type](const deviceTypeInfo& info) { return info.type == type; });
    return row == types.end() ? nullptr : row;
}

const deviceTypeInfo* findPart(std::string_view name)
{
    const auto isNamed = [name](const deviceTypeInfo& info) {
        return sameLetters(name, info.code) || sameLetters(name, partName(info));
    };
    const auto* row = std::ranges::find_if(types, isNamed);
    return row == types.end() ? nullptr : row;
}

std::string partName(const deviceTypeInfo& type)
{
    const std::string_view chip = type.chip;
    return std::string(chip.substr(0, chip.find(' ')));
}

addressRange usualAddresses(const deviceTypeInfo& type)
{
    switch (type.kind) {
    case hub:
        return {0x80, 0x8E};
    case seeprom:
        return {0xA0, 0xAE};
    case sensor:
        return {0x90, 0x9E};
    case registers:
        return type.type == KEST_DEV_9551 || type.type == KEST_DEV_9552 ? addressRange{0xC0, 0xCE}
                                                                        : addressRange{0x40, 0x4E};
    default:
        return {0x10, 0xEE};
    }
}

std::string aChip(const deviceTypeInfo& type)
{
    const std::string chip = type.chip;
    return (spokenWithAVowel.find(chip.front()) != spokenWithAVowel.npos ? "an " : "a ") + chip;
}

} // namespace kest::tools
