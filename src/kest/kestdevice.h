/// Register devices at the end of an IIC path, and the operations that are run on them.
///
/// One call's use: buildDeviceLink(), open, lockDevice(), for each operation setOperation(), doOperation(),
/// setOperation(null), then unlockDevice(), close, deleteDeviceLink(). Every function that returns an `ErrlEntry*`
/// returns null on success, else an entry that the caller owns.
#pragma once

#include <cstdint>

#include "kest/address.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// The phases of an operation, as bits of its direction.
constexpr std::uint32_t kest_phaseRead = 1;
constexpr std::uint32_t kest_phaseWrite = 2;

/// A register access: the bytes that go out, and the buffer that takes what comes back.
class EdalDeviceOperation
{
public:
    /// Makes the zeroed buffer of `dataLength` + 1 bytes and puts the register byte first.
    EdalDeviceOperation(std::uint8_t registerByte, std::uint8_t dataLength);
    EdalDeviceOperation(const EdalDeviceOperation&) = delete;
    EdalDeviceOperation& operator=(const EdalDeviceOperation&) = delete;
    virtual ~EdalDeviceOperation();

    /// @return the register byte and the data, owned by the operation; a read overwrites it from its start. Null
    /// when there was no memory for it.
    virtual std::uint8_t* getBuffer() = 0;
    /// @return the phases that the operation has, in the order write, read
    virtual std::uint32_t getDirection() = 0;
    /// @return the bytes that a phase moves
    virtual std::uint32_t getLength(std::uint32_t phase) = 0;

protected:
    std::uint8_t* m_buffer; ///< from malloc(), freed with free()
    std::uint8_t m_bufferLength;
    std::uint8_t m_register;
    std::uint8_t m_dataLength;
};

/// A device of a link. The base class supports no access and reports each attempt.
class EdalDevice
{
public:
    /// @param address  8-bit form
    explicit EdalDevice(std::uint32_t address);
    EdalDevice(const EdalDevice&) = delete;
    EdalDevice& operator=(const EdalDevice&) = delete;
    virtual ~EdalDevice();

    virtual void setNextDevice(EdalDevice* next); ///< does nothing: a link is one device long
    virtual EdalDevice* getNextDevice();
    /// @param operation  its maker keeps ownership, and sets null before deleting it. The base class does nothing.
    virtual void setOperation(EdalDeviceOperation* operation);
    virtual EdalDeviceOperation* getOperation();
    virtual ErrlEntry* doOperation(mern_t handle);
    virtual std::uint32_t getAddress();
    virtual ErrlEntry* lockDevice(mern_t handle);
    virtual ErrlEntry* unlockDevice(mern_t handle);

protected:
    EdalDevice* m_next = nullptr;
    EdalDeviceOperation* m_operation = nullptr;
    std::uint32_t m_address;
    std::uint8_t m_locked = 0; ///< 1 while this object holds the device's lock
};

/// A device that is driven through the registers its operations name.
class GenericEdalDevice : public EdalDevice
{
public:
    using EdalDevice::EdalDevice;
    /// Reports a device that is still locked; does not unlock it.
    ~GenericEdalDevice() override;

    void setOperation(EdalDeviceOperation* operation) override;
    /// Makes the device the target and runs the phases of its operation: first the write, then the read.
    ErrlEntry* doOperation(mern_t handle) override;
    /// Takes the device's lock, waiting at most 500 ms. A second lock of this object fails without touching the bus.
    ErrlEntry* lockDevice(mern_t handle) override;
    /// Releases the lock. Unlocking an unlocked device succeeds. After a failed unlock the device stays marked as
    /// locked.
    ErrlEntry* unlockDevice(mern_t handle) override;
    virtual ErrlEntry* writeOperation(mern_t handle);
    virtual ErrlEntry* readOperation(mern_t handle);
};

/// Makes the device object of a chain: that of its end device nearest the bus master. A node that is neither a hub nor
/// a register device is reported in an entry of its own, committed with action 0x2000.
/// @param[out] device  to free with deleteDeviceLink(); null when the chain has no such device or there is no memory
/// @param[out] second  null
void buildDeviceLink(const kest_deviceAddress* node, EdalDevice** device, EdalDevice** second);

/// Deletes a device and those linked behind it. Null is ignored.
void deleteDeviceLink(EdalDevice* device);

} // namespace kest
