/// @file
/// Thermal sensor reading. The function may be called from any thread, and blocks until it is done.
#pragma once

#include <cstdint>

class ErrlEntry;

namespace kest
{

constexpr std::uint8_t KEST_THERMAL_INVALID = 0xAA; ///< the reading is under way or failed
constexpr std::uint8_t KEST_THERMAL_VALID = 0x55; ///< there is a reading

/// One sensor and its reading; owned by the caller.
struct KEST_thermal_sensor_info {
    const char* devicePath; ///< device text
    std::uint16_t temperature; ///< raw word, host byte order: LM75 1/8 C in the top 11 bits, LM92 1/16 C in the top 13
    std::uint8_t status; ///< `KEST_THERMAL_VALID` when `temperature` holds a reading
};

/// Reads the raw temperature word of a sensor.
///
/// Some failures leave no entry: a text whose last device has no inputs, EDEADLK (committed at once, action 0x2000),
/// and any failure that the error log has no memory for. The reading then counts as valid: 0, or the part that had
/// arrived.
/// @param[in,out] info  in: the device text; out: temperature and status
/// @return null on success, else an entry that the caller owns: 0x8000132B null record or path (the record is left
/// alone), 0x80001329 the read failed (temperature 0, status `KEST_THERMAL_INVALID`).
ErrlEntry* KEST_thermal_sensor_read_temperature_data(KEST_thermal_sensor_info* info);

} // namespace kest

using kest::KEST_THERMAL_INVALID;
using kest::KEST_thermal_sensor_info;
using kest::KEST_thermal_sensor_read_temperature_data;
using kest::KEST_THERMAL_VALID;
