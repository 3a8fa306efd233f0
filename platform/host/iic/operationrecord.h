/// Who works on a device, as others are told: small records in a file that all users of a bus share.
///
/// A record is only text. Anyone who may use the bus may write any nonsense into it, so nothing is decided by it: whether
/// a device is free is for the locks alone to say. Whoever shows its texts escapes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kest::host::iic
{

/// A device on a bus. Devices behind different ports of a hub are different ones.
struct operationPlace {
    std::uint8_t hub = 0; ///< address in the 8-bit form; 0: none
    std::uint8_t port = 0; ///< of the hub
    std::uint8_t address = 0; ///< in the 8-bit form

    bool operator==(const operationPlace&) const = default;
};

/// What a program says about its work on a device.
struct operationRecord {
    std::uint32_t process = 0;
    std::uint32_t user = 0;
    std::int64_t sinceMs = 0; ///< wall clock, ms since 1970 UTC
    std::string program; ///< "kestctl"
    std::string doing; ///< "seeprom write"
    std::string device; ///< as its user named it
};

/// Bytes of a record in its file, whatever is in it.
constexpr std::size_t operationRecordBytes = 512;

/// @return exactly `operationRecordBytes` bytes. Texts are cut; control characters become '?'
[[nodiscard]] std::string operationRecordText(const operationPlace& place, const operationRecord& record);

/// @param text  at most `operationRecordBytes` bytes, from anyone
/// @return nothing for a record of another place, or for none
[[nodiscard]] std::optional<operationRecord> parseOperationRecord(std::string_view text, const operationPlace& place);

} // namespace kest::host::iic
