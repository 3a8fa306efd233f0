#include "kestdevice.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestdevice";
constexpr routine unsupportedOperation{"doOperation", KEST_MODULE_NO_OPERATION, sourceId};
constexpr routine unsupportedLock{"lockDevice", KEST_MODULE_NO_LOCK, sourceId};
constexpr routine unsupportedUnlock{"unlockDevice", KEST_MODULE_NO_UNLOCK, sourceId};
constexpr routine operationRoutine{"doOperation", KEST_MODULE_OPERATION, sourceId};
constexpr routine lockRoutine{"lockDevice", KEST_MODULE_DEVICE_LOCK, sourceId};
constexpr routine endRoutine{"GenericEdalDevice", KEST_MODULE_DEVICE_END, sourceId};
constexpr routine linkRoutine{"buildDeviceLink", KEST_MODULE_DEVICE_LINK, sourceId};

ErrlEntry* reportUnsupported(const routine& self, int line = __builtin_LINE())
{
    reportedCall report{self, line};
    report.fail(traceHash("device does not support this"), KEST_REASON_UNSUPPORTED, static_cast<std::uint32_t>(line), 0,
                line);
    return report.finish();
}

/// The layer's lock record of a register device, as bytes: their order does not depend on the host.
std::array<std::uint8_t, sizeof(mern_iic_lock)> lockValue(std::uint32_t address)
{
    constexpr std::uint16_t timeoutMs = 500;
    return {0,
            MERN_LOCK_REGISTER_DEVICE,
            static_cast<std::uint8_t>(address >> 8),
            static_cast<std::uint8_t>(address),
            0,
            0,
            timeoutMs >> 8,
            timeoutMs & 0xFF};
}

void reportUnknownNode(const kest_deviceAddress& node)
{
    ErrlEntry* entry = nullptr;
    failureReport report{linkRoutine, entry};
    report.fail(traceHash("no device object for this type"), KEST_REASON_NO_OBJECT, __LINE__, node.type);
    // not the number of the reason, on purpose
    kest_setReturnCode(report.details, kest_classFailure | KEST_REASON_UNSUPPORTED);
    report.commit(ERRL_ACTION_REPORT);
}

} // namespace

EdalDeviceOperation::EdalDeviceOperation(std::uint8_t registerByte, std::uint8_t dataLength)
    : m_buffer(static_cast<std::uint8_t*>(std::malloc(std::size_t{dataLength} + 1))),
      m_bufferLength(static_cast<std::uint8_t>(dataLength + 1)), m_register(registerByte), m_dataLength(dataLength)
{
    if (m_buffer != nullptr) {
        std::memset(m_buffer, 0, std::size_t{dataLength} + 1);
        m_buffer[0] = m_register;
    }
}

EdalDeviceOperation::~EdalDeviceOperation()
{
    std::free(m_buffer);
    m_buffer = nullptr;
}

EdalDevice::EdalDevice(std::uint32_t address) : m_address(address) {}
EdalDevice::~EdalDevice() = default;

void EdalDevice::setNextDevice(EdalDevice* /*next*/) {}
EdalDevice* EdalDevice::getNextDevice() { return m_next; }
void EdalDevice::setOperation(EdalDeviceOperation* /*operation*/) {}
EdalDeviceOperation* EdalDevice::getOperation() { return m_operation; }
std::uint32_t EdalDevice::getAddress() { return m_address; }

ErrlEntry* EdalDevice::doOperation(mern_t /*handle*/) { return reportUnsupported(unsupportedOperation); }
ErrlEntry* EdalDevice::lockDevice(mern_t /*handle*/) { return reportUnsupported(unsupportedLock); }
ErrlEntry* EdalDevice::unlockDevice(mern_t /*handle*/) { return reportUnsupported(unsupportedUnlock); }

GenericEdalDevice::~GenericEdalDevice()
{
    if (m_locked != 0) {
        ErrlEntry* entry = nullptr;
        failureReport report{endRoutine, entry};
        report.fail(traceHash("device destroyed while locked"), KEST_REASON_LOCKED, __LINE__, m_address);
        report.commit(ERRL_ACTION_KEEP_FOR_SERVICE);
    }
}

void GenericEdalDevice::setOperation(EdalDeviceOperation* operation) { m_operation = operation; }

ErrlEntry* GenericEdalDevice::lockDevice(mern_t handle)
{
    reportedCall report{lockRoutine};
    ErrlEntry*& entry = report.entry;
    if (m_locked != 0) {
        report.fail(traceHash("device locked already"), KEST_REASON_LOCKED, __LINE__, m_address);
    } else {
        auto value = lockValue(m_address);
        kest_wobuConfig(handle, entry, kest_configSet, WOBU_IIC_LOCK, value.data(), value.size());
        m_locked = entry == nullptr;
    }
    return report.finish();
}

ErrlEntry* GenericEdalDevice::unlockDevice(mern_t handle)
{
    const traceScope scope{"unlockDevice"};
    ErrlEntry* entry = nullptr;
    if (m_locked != 0) {
        auto value = lockValue(m_address);
        kest_wobuConfig(handle, entry, kest_configSet, WOBU_IIC_UNLOCK, value.data(), value.size());
        m_locked = entry != nullptr;
    }
    return entry;
}

ErrlEntry* GenericEdalDevice::doOperation(mern_t handle)
{
    constexpr std::uint32_t phaseFailed = traceHash("phase of a device operation failed");
    reportedCall report{operationRoutine};
    ErrlEntry*& entry = report.entry;
    EdalDeviceOperation* const operation = getOperation();
    if (operation == nullptr) {
        report.fail(traceHash("device has no operation"), KEST_REASON_MISSING);
        return report.finish();
    }
    const std::uint32_t direction = operation->getDirection();
    std::uint32_t target = m_address;
    kest_wobuConfig(handle, entry, kest_configSet, WOBU_IIC_TARGET, &target, sizeof target);
    bool good = report.passed(phaseFailed, __LINE__);
    if (good && (direction & kest_phaseWrite) != 0) {
        entry = writeOperation(handle);
        good = report.passed(phaseFailed, __LINE__);
    }
    if (good && (direction & kest_phaseRead) != 0) {
        entry = readOperation(handle);
        report.passed(phaseFailed, __LINE__);
    }
    return report.finish();
}

ErrlEntry* GenericEdalDevice::writeOperation(mern_t handle)
{
    ErrlEntry* entry = nullptr;
    unsigned int length = m_operation->getLength(kest_phaseWrite);
    kest_wobuWrite(handle, entry, &length, m_operation->getBuffer());
    return entry;
}

ErrlEntry* GenericEdalDevice::readOperation(mern_t handle)
{
    ErrlEntry* entry = nullptr;
    unsigned int length = m_operation->getLength(kest_phaseRead);
    kest_wobuRead(handle, entry, &length, m_operation->getBuffer(), 1);
    return entry;
}

void buildDeviceLink(const kest_deviceAddress* node, EdalDevice** device, EdalDevice** second)
{
    const traceScope scope{linkRoutine.name};
    *device = nullptr;
    *second = nullptr;
    // Deepest node first, and without recursion: a device text can name a chain of any length.
    for (const kest_deviceAddress* done = nullptr; done != node;) {
        const kest_deviceAddress* deepest = node;
        while (deepest->next != done) {
            deepest = deepest->next;
        }
        const deviceKind kind = kest_typeOf(deepest->type).kind;
        if (kind == deviceKind::registerDevice) {
            // only the device nearest the bus master is kept
            delete *device;
            *device = new (std::nothrow) GenericEdalDevice(deepest->address);
        } else if (kind != deviceKind::hub) {
            reportUnknownNode(*deepest);
        }
        done = deepest;
    }
}

void deleteDeviceLink(EdalDevice* device)
{
    if (device != nullptr) {
        deleteDeviceLink(device->getNextDevice());
        delete device;
    }
}

} // namespace kest
