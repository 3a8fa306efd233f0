/// A persisted copy whose file was put together by hand from docs/host-services.md.
#pragma once

#include <array>
#include <cstdint>

namespace kest::test
{

/// "123456789", nine bytes of a device of 256, captured at 2024-05-01T12:00:00.250Z. CRC-32 of the header's first 40
/// bytes is C0E74838, of the nine bytes CBF43926.
constexpr std::array<std::uint8_t, 73> copyExample{
    // mark
    0x89, 'k', 'e', 's', 't', ' ', 'c', 'o', 'p', 'y', 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0xFF,
    // version, bytes of a block, bytes held, size of the device
    0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x01, 0x00,
    // time, check sum of the header, check sum of the block
    0x00, 0x00, 0x01, 0x8F, 0x34, 0x06, 0x9E, 0xFA, 0xC0, 0xE7, 0x48, 0x38, 0xCB, 0xF4, 0x39, 0x26,
    // the device's bytes
    '1', '2', '3', '4', '5', '6', '7', '8', '9',
    // mark
    0x98, 'e', 'n', 'd', ' ', 'o', 'f', ' ', 'c', 'o', 'p', 'y', 0x0D, 0x0A, 0x1A, 0xFE};

} // namespace kest::test
