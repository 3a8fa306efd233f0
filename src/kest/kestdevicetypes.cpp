#include "kestdevicetypes.h"

#include <algorithm>
#include <array>
#include <bit>

namespace kest
{
namespace
{

constexpr deviceType seeprom(kest_deviceType type, std::uint32_t capacity, std::uint32_t pageSize,
                             std::uint16_t offsetLength)
{
    return {.type = type,
            .kind = deviceKind::seeprom,
            .capacity = capacity,
            .pageSize = pageSize,
            .offsetLength = offsetLength,
            .writeCycle = true};
}

constexpr deviceType registerDevice(kest_deviceType type, const portRegisters& port)
{
    return {.type = type, .kind = deviceKind::registerDevice, .fixedTimeout = true, .flags = 0xFFFF0000, .port = port};
}

/// A sensor is a register device, but its transfers have a computed time-out and the usual flags.
constexpr deviceType sensor(kest_deviceType type)
{
    return {.type = type, .kind = deviceKind::registerDevice, .port = {.highByteFirst = true, .inputs = {0x00, 2}}};
}

constexpr std::array<deviceType, 16> deviceTypes{{
    {.type = KEST_DEV_HUB_F0, .kind = deviceKind::hub},
    // its offset length depends on the device behind it
    {.type = KEST_DEV_922HUB, .kind = deviceKind::hub, .writeCycle = true, .flags = 0xFFFD0000},
    seeprom(KEST_DEV_SEEPROM_2K, 256, 8, 1),
    seeprom(KEST_DEV_SEEPROM_32K, 4096, 32, 2),
    seeprom(KEST_DEV_SEEPROM_64K, 8192, 32, 2),
    seeprom(KEST_DEV_SEEPROM_128K, 16384, 64, 2),
    seeprom(KEST_DEV_SEEPROM_256K, 32768, 64, 2),
    seeprom(KEST_DEV_SEEPROM_512K, 65536, 128, 2),
    registerDevice(KEST_DEV_9551, {.ledDriver = true, .outputs = {0x15, 2}, .inputs = {0x00, 1}, .raw = {2, 0x01, 4}}),
    registerDevice(
        KEST_DEV_9552,
        {.ledDriver = true, .outputs = {0x16, 4}, .inputs = {0x00, 1}, .upperInputs = {0x01, 1}, .raw = {2, 0x02, 4}}),
    registerDevice(KEST_DEV_9554,
                   {.outputs = {0x01, 1}, .inputs = {0x00, 1}, .directions = {0x03, 1}, .raw = {6, 0x02, 1}}),
    registerDevice(KEST_DEV_9555,
                   {.outputs = {0x02, 2}, .inputs = {0x00, 2}, .directions = {0x06, 2}, .raw = {6, 0x04, 2}}),
    registerDevice(KEST_DEV_D10, {}),
    sensor(KEST_DEV_75),
    sensor(KEST_DEV_92),
    {.type = KEST_DEV_172, .kind = deviceKind::other, .capacity = 22016},
}};

constexpr deviceType unknownType{};

/// The low 16 bits of a memory's type, read as four decimal digits, are the kilobits.
constexpr std::uint32_t capacityInName(kest_deviceType type)
{
    std::uint32_t kilobits = 0;
    for (int shift = 12; shift >= 0; shift -= 4) {
        kilobits = kilobits * 10 + ((std::uint32_t{type} >> shift) & 0xF);
    }
    return kilobits * 128;
}

static_assert(std::ranges::all_of(deviceTypes, [](const deviceType& row) {
    return std::ranges::count(deviceTypes, row.type, &deviceType::type) == 1 && row.kind != deviceKind::unknown;
}));
static_assert(std::ranges::all_of(deviceTypes, [](const deviceType& row) {
    return row.kind != deviceKind::seeprom || (std::has_single_bit(row.pageSize) && row.capacity % row.pageSize == 0 &&
                                               row.capacity <= std::uint32_t{1} << (8 * row.offsetLength));
}));
static_assert(std::ranges::all_of(deviceTypes, [](const deviceType& row) {
    return row.capacity == 0 || row.capacity == capacityInName(row.type);
}));
static_assert(std::ranges::all_of(deviceTypes, [](const deviceType& row) {
    return row.port.outputs.bytes == 0 || row.port.ledDriver == (row.port.directions.bytes == 0);
}));

} // namespace

const deviceType& kest_typeOf(kest_deviceType type)
{
    const auto* const row = std::ranges::find(deviceTypes, type, &deviceType::type);
    return row == deviceTypes.end() ? unknownType : *row;
}

} // namespace kest
