/// What the verbs of area "seeprom" share: which device, which of its bytes, and how they are read and written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/common/json.h"
#include "tools/common/operation.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

class command;

/// What every verb takes.
struct seepromOptions {
    std::string device;
    std::string mode; ///< empty: hardware; of a restore, where the bytes came from
    std::string offset; ///< empty: 0
    std::string length; ///< empty: up to the end
    std::uint32_t speedKhz = 0;
    std::uint32_t writeCycleMs = 0;
    std::uint32_t votes = 1;
    bool force = false; ///< also where the device table has another type
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
};

/// For the help of verbs that only read.
inline constexpr const char* typeCaution =
    "The type of the device is taken as it is. A read by one with two offset bytes\n"
    "changes bytes of a ferroelectric part with one. 'kestctl seeprom probe' finds\n"
    "the type and changes nothing.";

/// Adds the options of a verb but the device: which bytes, and how they are read and written.
void addChoice(command verb, seepromOptions& options);
/// The same without offset and length. @param usualMode  what --mode is without it
void addAccess(command verb, seepromOptions& options, const std::string& usualMode);

/// Adds --force. @param more  what else it does; empty: nothing
void addForce(command verb, seepromOptions& options, const std::string& more = {});

[[nodiscard]] accessOptions accessOf(const seepromOptions& options, accessMode mode);
[[nodiscard]] seeprom openSeeprom(const std::string& name, const seepromOptions& options);
/// Keeps writers off a device, and off another one that it is compared with. A persisted copy is not held.
/// @param other  may be null
[[nodiscard]] deviceOperation holdForReading(const seeprom& chip, const seeprom* other, const seepromOptions& options,
                                             const std::string& doing);
[[nodiscard]] std::uint64_t offsetOf(const seepromOptions& options);
/// Nothing when no length was given.
[[nodiscard]] std::optional<std::uint64_t> lengthOf(const seepromOptions& options);
[[nodiscard]] byteRange rangeOf(const seeprom& chip, const seepromOptions& options);

/// The fields that every verb's JSON begins with.
[[nodiscard]] jsonValue rangeJson(const seeprom& chip, const byteRange& range);

/// The first `length` bytes of a file; all of it when no length was given.
[[nodiscard]] byteVector inputBytes(const std::string& file, const seeprom& chip, const seepromOptions& options);

/// More than any dump file has, and any input that is cut to a length.
constexpr std::size_t mostInputBytes = 16UL << 20;

} // namespace kest::tools
