/// @file
/// The data port: LED drivers, I/O expanders and 16-bit input devices of the 955x family, named by a device text.
///
/// All functions may be called from any thread, and block until they are done. Each opens, locks and closes the device.
#pragma once

#include "kest/address.h"

class ErrlEntry;

namespace kest
{

/// The register function to configure.
enum kest_dpConfig : std::uint32_t {
    KEST_DP_CONFIG_INPUT = 0, ///< the given pins become inputs
    KEST_DP_CONFIG_OUTPUT = 1, ///< the given pins become outputs
    /// LED drivers: period of blink rate 0, (byte + 1) / 38 s of a PCA9551, (byte + 1) / 44 s of a PCA9552
    KEST_DP_CONFIG_PRESCALER0 = 2,
    KEST_DP_CONFIG_DUTY0 = 3, ///< LED drivers: an LED is on for (256 - byte) / 256 of that period
    KEST_DP_CONFIG_PRESCALER1 = 4, ///< the period of blink rate 1
    KEST_DP_CONFIG_DUTY1 = 5, ///< the same of rate 1
    KEST_DP_CONFIG_POLARITY0 = 6, ///< expanders: which of the pins 0 to 7 are read inverted
    KEST_DP_CONFIG_POLARITY1 = 7, ///< 16-bit expanders: which of the pins 8 to 15 are
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

/// Configures a device: pin directions, or one raw register. An LED driver has no pin directions: they change nothing.
/// @param address  device text
/// @param config  what to set
/// @param value  for directions the pins, bit 0 = pin 0; pins that are not given stay as they are. For a register its
/// byte, the low 8 bits.
/// @param attributes  six values indexed by `kest_attribute`; null takes the defaults
/// @return null on success (also for a device type that is not served), else an entry that the caller owns: return code
/// 0x80001315 malformed text, 0x80001302 chain not valid, 0x8000132D no such register, 0x8000132F the device is locked,
/// or that of the failed step.
ErrlEntry* KEST_dpConfig(const char* address, kest_dpConfig config, unsigned int value,
                         const kest_attributeValue* attributes);

/// Changes outputs: reads the output or selector registers, applies `operation` to the pins, writes them back, under
/// the device's lock.
/// @param address  device text
/// @param operation  the change
/// @param bits  pins, bit 0 = pin 0 (for KEST_DP_COPY: the levels)
/// @param mask  for KEST_DP_COPY: which pins take their level from `bits`
/// @param attributes  six values indexed by `kest_attribute`; null takes the defaults
/// @param unused  accepted, not used
/// @return as for KEST_dpConfig().
ErrlEntry* KEST_dpWrite(const char* address, kest_dpOperation operation, unsigned int bits, unsigned int mask,
                        const kest_attributeValue* attributes, unsigned int unused);

/// Reads the input registers.
/// @param address  device text
/// @param mask  which bits are wanted, bit 0 = pin 0. Of a 16-bit input device the low 8 bits are the byte that comes
/// first.
/// @param[out] value  the masked levels, bit 0 = pin 0; of a 16-bit input device the word, whose first byte is the high
/// one. Must not be null; left alone for a device type that is not served, and on a failure before the read.
/// @param attributes  six values indexed by `kest_attribute`; null takes the defaults
/// @param unused  accepted, not used
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
