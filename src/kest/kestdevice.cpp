#include "kestdevice.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kesterrorlog.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestdevice";

constexpr std::uint32_t unsupportedOperationModule = 26;
constexpr std::uint32_t operationModule = 38;
constexpr std::uint32_t unsupportedLockModule = 39;
constexpr std::uint32_t lockModule = 40;
constexpr std::uint32_t destructorModule = 41;
constexpr std::uint32_t linkModule = 42;
constexpr std::uint32_t unsupportedUnlockModule = 43;

ErrlEntry* reportUnsupported(const char* function, std::uint32_t module, int line)
{
    const traceScope scope{function, line};
    ErrlEntry* entry = nullptr;
    kest_errorDetails details{};
    trace_wobu_write_all(kest_trace, traceHash("device does not support this"), " %s", line, 0, function);
    kest_describeFailure(details, module, 0x13FF, static_cast<std::uint32_t>(line));
    kest_logError(entry, &details, sourceId);
    return entry;
}

/// The layer's lock value of a register device: kind 2, address, 500 ms. Its byte order does not depend on the host.
std::array<std::uint8_t, 8> lockValue(std::uint32_t address)
{
    return {0x00, 0x02, static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address), 0x00, 0x00,
            0x01, 0xF4};
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

ErrlEntry* EdalDevice::doOperation(mern_t /*handle*/)
{
    return reportUnsupported("doOperation", unsupportedOperationModule, __LINE__);
}

ErrlEntry* EdalDevice::lockDevice(mern_t /*handle*/)
{
    return reportUnsupported("lockDevice", unsupportedLockModule, __LINE__);
}

ErrlEntry* EdalDevice::unlockDevice(mern_t /*handle*/)
{
    return reportUnsupported("unlockDevice", unsupportedUnlockModule, __LINE__);
}

GenericEdalDevice::~GenericEdalDevice()
{
    if (m_locked != 0) {
        ErrlEntry* entry = nullptr;
        kest_errorDetails details{};
        trace_wobu_write_all(kest_trace, traceHash("device destroyed while locked"), " %s", __LINE__, 0,
                             "GenericEdalDevice");
        kest_describeFailure(details, destructorModule, 0x132F, __LINE__, m_address);
        details.commitEntry = 1;
        details.commitAction = ERRL_ACTION_KEEP_FOR_SERVICE;
        kest_logError(entry, &details, sourceId);
    }
}

void GenericEdalDevice::setOperation(EdalDeviceOperation* operation) { m_operation = operation; }

ErrlEntry* GenericEdalDevice::lockDevice(mern_t handle)
{
    const traceScope scope{"lockDevice"};
    ErrlEntry* entry = nullptr;
    kest_errorDetails details{};
    if (m_locked != 0) {
        trace_wobu_write_all(kest_trace, traceHash("device locked already"), " %s", __LINE__, 0, "lockDevice");
        kest_describeFailure(details, lockModule, 0x132F, __LINE__, m_address);
    } else {
        auto value = lockValue(m_address);
        kest_wobuConfig(handle, entry, kest_configSet, WOBU_IIC_LOCK, value.data(), value.size());
        m_locked = entry == nullptr;
    }
    kest_logError(entry, &details, sourceId);
    return entry;
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
    const traceScope scope{"doOperation"};
    ErrlEntry* entry = nullptr;
    kest_errorDetails details{};
    const auto passed = [&](int line) {
        if (entry != nullptr) {
            trace_wobu_write_all(kest_trace, traceHash("phase of a device operation failed"), " %s", line, 0,
                                 "doOperation");
            kest_attachSoftwareError(details, entry->getRC(), operationModule, static_cast<std::uint32_t>(line));
        }
        return entry == nullptr;
    };

    if (EdalDeviceOperation* const operation = getOperation(); operation == nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("device has no operation"), " %s", __LINE__, 0, "doOperation");
        kest_describeFailure(details, operationModule, 0x132B);
    } else {
        const std::uint32_t direction = operation->getDirection();
        std::uint32_t target = m_address;
        kest_wobuConfig(handle, entry, kest_configSet, WOBU_IIC_TARGET, &target, sizeof target);
        bool good = passed(__LINE__);
        if (good && (direction & kest_phaseWrite) != 0) {
            entry = writeOperation(handle);
            good = passed(__LINE__);
        }
        if (good && (direction & kest_phaseRead) != 0) {
            entry = readOperation(handle);
            passed(__LINE__);
        }
    }
    kest_logError(entry, &details, sourceId);
    return entry;
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

namespace
{

constexpr std::array registerDevices{KEST_DEV_D10,  KEST_DEV_9551, KEST_DEV_9552, KEST_DEV_9554,
                                     KEST_DEV_9555, KEST_DEV_92,   KEST_DEV_75};
constexpr std::array hubs{KEST_DEV_HUB_F0, KEST_DEV_922HUB};

void reportUnknownNode(const kest_deviceAddress& node)
{
    ErrlEntry* entry = nullptr;
    kest_errorDetails details{};
    trace_wobu_write_all(kest_trace, traceHash("no device object for this type"), " %s", __LINE__, 0,
                         "buildDeviceLink");
    kest_describeFailure(details, linkModule, 0x132E, __LINE__, node.type);
    // not made from the reason, on purpose
    kest_setReturnCode(details, 0x800013FF);
    details.commitEntry = 1;
    details.commitAction = ERRL_ACTION_REPORT;
    kest_logError(entry, &details, sourceId);
}

} // namespace

void buildDeviceLink(const kest_deviceAddress* node, EdalDevice** device, EdalDevice** second)
{
    const traceScope scope{"buildDeviceLink"};
    *device = nullptr;
    *second = nullptr;
    // Deepest node first, and without recursion: a device text can name a chain of any length.
    for (const kest_deviceAddress* done = nullptr; done != node;) {
        const kest_deviceAddress* deepest = node;
        while (deepest->next != done) {
            deepest = deepest->next;
        }
        if (std::ranges::count(registerDevices, deepest->type) != 0) {
            // only the device nearest the bus master is kept
            delete *device;
            *device = new (std::nothrow) GenericEdalDevice(deepest->address);
        } else if (std::ranges::count(hubs, deepest->type) == 0) {
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
