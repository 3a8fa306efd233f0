/// One data port request on a register device: outputs, inputs, pin directions, raw registers, and the pulse on a hub's
/// reset pin.
///
/// The routines return null on success, else an entry that the caller owns. They always release the device's lock and
/// close it. The first failure is returned; later failures of the clean-up are committed with action 0x4000.
///
/// A step has failed only if it left an entry. A failure with EDEADLK leaves none, since it is committed at once with
/// action 0x2000; nor does one that the error log has no memory for. The routine then goes on as if the step had
/// succeeded. A register that was not read has the value in the operation's buffer: the register byte and zeros, or the
/// bytes that had arrived. Write() and GeneralConfig() write back what they make of it. A type that a routine does not
/// serve is reported with 0x132C; register 0 is then used all the same, without data.
#pragma once

#include <cstdint>

#include "kest/dataport.h"
#include "kestdevice.h"
#include "kestmisc.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

namespace Dp955xOps
{

/// Writes the register byte, then reads the data to the buffer's start.
class ReadRegister : public EdalDeviceOperation
{
public:
    using EdalDeviceOperation::EdalDeviceOperation;
    std::uint8_t* getBuffer() override;
    std::uint32_t getDirection() override;
    std::uint32_t getLength(std::uint32_t phase) override;
};

/// Writes the register byte and the data in one transfer.
class WriteRegister : public EdalDeviceOperation
{
public:
    using EdalDeviceOperation::EdalDeviceOperation;
    std::uint8_t* getBuffer() override;
    std::uint32_t getDirection() override;
    std::uint32_t getLength(std::uint32_t phase) override;
};

} // namespace Dp955xOps

/// A device and how it is to be driven. The caller owns it all.
struct Dp955xRequest {
    const kest_deviceInfo* deviceInfo; ///< null is refused with reason 0x132B
    kest_deviceType deviceType; ///< of the chain's last node
    const kest_attributeValue* attributes; ///< six values, not null
};

/// Changes outputs: reads the output or selector registers, applies the operation, writes them back.
ErrlEntry* Write(const Dp955xRequest* request, kest_dpOperation operation, std::uint32_t bits, std::uint32_t mask);

/// Reads the input registers.
/// @param[out] value  the levels under `mask`, pin 0 in bit 0; for the 16-bit input devices the first byte read in the
/// high half. Left alone when the first register was not read.
ErrlEntry* Read(const Dp955xRequest* request, std::uint32_t mask, std::uint32_t* value);

/// Sets pin directions. The LED drivers have none: nothing is done.
/// @param config  0 makes the pins of `bits` inputs, 1 outputs; any other writes the directions back unchanged
ErrlEntry* GeneralConfig(const Dp955xRequest* request, kest_dpConfig config, std::uint32_t bits);

/// Writes the low byte of `value` to a prescaler, duty-cycle or polarity register.
ErrlEntry* RawConfig(const Dp955xRequest* request, kest_dpConfig config, std::uint32_t value);

/// Write() on a device that is open already, without taking its lock: the caller holds that of the hub behind the reset
/// pin.
ErrlEntry* Write_922Hub_Reset(const Dp955xRequest* request, kest_dpOperation operation, std::uint32_t bits,
                              std::uint32_t mask, mern_t* handle);

} // namespace kest
