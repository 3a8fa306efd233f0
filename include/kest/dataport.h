/// The data port: LED drivers, I/O expanders and 16-bit input devices of the 955x family, named by a device text.
#pragma once

#include "kest/address.h"

class ErrlEntry;

namespace kest
{

/// The register function to configure.
enum kest_dpConfig : std::uint32_t {
    KEST_DP_CONFIG_INPUT = 0, ///< the given pins become inputs
    KEST_DP_CONFIG_OUTPUT = 1, ///< the given pins become outputs
    KEST_DP_CONFIG_PRESCALER0 = 2,
    KEST_DP_CONFIG_DUTY0 = 3,
    KEST_DP_CONFIG_PRESCALER1 = 4,
    KEST_DP_CONFIG_DUTY1 = 5,
    KEST_DP_CONFIG_POLARITY0 = 6,
    KEST_DP_CONFIG_POLARITY1 = 7,
};

/// The change applied to the selected pins. On an LED driver it sets a pin's two selector bits; on an expander, where
/// only the low bit exists, 0 and 3 drive the output to 0, 1 and 4 to 1.
enum kest_dpOperation : std::uint32_t {
    KEST_DP_SELECT_00 = 0, ///< LED on (output low)
    KEST_DP_SELECT_01 = 1, ///< LED off (output high impedance)
    KEST_DP_COPY = 2, ///< copy the given low bits under a mask
    KEST_DP_SELECT_10 = 3, ///< LED blinks at rate 0
    KEST_DP_SELECT_11 = 4, ///< LED blinks at rate 1
};

/// Configures a device: pin directions (config 0 and 1, `value` = pin bits) or one raw register (2 to 7, `value` = its
/// low byte).
/// @param address  device text
/// @param attributes  six values; null takes the defaults
/// @return null on success (also for a device type that is not served), else an entry that the caller owns.
ErrlEntry* KEST_dpConfig(const char* address, kest_dpConfig config, unsigned int value,
                         const kest_attributeValue* attributes);

/// Changes outputs: reads the output or selector registers, applies `operation` to the pins, writes them back, under
/// the device's lock.
/// @param bits  pins, bit 0 = pin 0 (for KEST_DP_COPY: the levels)
/// @param mask  for KEST_DP_COPY: which pins take their level from `bits`
/// @param unused  accepted, not used
/// @return as for KEST_dpConfig().
ErrlEntry* KEST_dpWrite(const char* address, kest_dpOperation operation, unsigned int bits, unsigned int mask,
                        const kest_attributeValue* attributes, unsigned int unused);

/// Reads the input registers.
/// @param mask  which bits are wanted
/// @param[out] value  the masked levels; left alone for a device type that is not served
/// @return as for KEST_dpConfig().
ErrlEntry* KEST_dpRead(const char* address, unsigned int mask, unsigned int* value,
                       const kest_attributeValue* attributes, unsigned int unused);

} // namespace kest

using enum kest::kest_dpConfig;
using enum kest::kest_dpOperation;
using kest::kest_dpConfig;
using kest::KEST_dpConfig;
using kest::kest_dpOperation;
using kest::KEST_dpRead;
using kest::KEST_dpWrite;
