#include "kest955x.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <span>

#include "kesterrorlog.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{

namespace Dp955xOps
{

std::uint8_t* ReadRegister::getBuffer() { return m_buffer; }
std::uint32_t ReadRegister::getDirection() { return kest_phaseRead | kest_phaseWrite; }
std::uint32_t ReadRegister::getLength(std::uint32_t phase) { return phase == kest_phaseRead ? m_dataLength : 1; }

std::uint8_t* WriteRegister::getBuffer() { return m_buffer; }
std::uint32_t WriteRegister::getDirection() { return kest_phaseWrite; }
std::uint32_t WriteRegister::getLength(std::uint32_t phase) { return phase == kest_phaseRead ? 0 : m_dataLength + 1U; }

} // namespace Dp955xOps

namespace
{

constexpr char sourceId[] = "kest955x";

/// A routine of this unit, as its failures name it.
struct routine {
    const char* name;
    std::uint32_t module;
};
constexpr routine readRoutine{"Read", 24};
constexpr routine writeRoutine{"Write", 25};
constexpr routine generalConfigRoutine{"GeneralConfig", 35};
constexpr routine rawConfigRoutine{"RawConfig", 36};
constexpr routine hubResetRoutine{"Write_922Hub_Reset", 37};

/// The registers that hold one function's bits, lowest pins first. 0x10 in a register byte lets the chip step through
/// them.
struct registerRange {
    kest_deviceType type;
    std::uint8_t first;
    std::uint8_t bytes;
};
constexpr std::array<registerRange, 4> outputRegisters{
    {{KEST_DEV_9551, 0x15, 2}, {KEST_DEV_9552, 0x16, 4}, {KEST_DEV_9554, 0x01, 1}, {KEST_DEV_9555, 0x02, 2}}};
// The 9552's two input registers are read one by one.
constexpr std::array<registerRange, 6> inputRegisters{{{KEST_DEV_9551, 0x00, 1},
                                                       {KEST_DEV_9552, 0x00, 1},
                                                       {KEST_DEV_9554, 0x00, 1},
                                                       {KEST_DEV_9555, 0x00, 2},
                                                       {KEST_DEV_75, 0x00, 2},
                                                       {KEST_DEV_92, 0x00, 2}}};
constexpr std::array<registerRange, 2> directionRegisters{{{KEST_DEV_9554, 0x03, 1}, {KEST_DEV_9555, 0x06, 2}}};

constexpr std::uint8_t noRegister = 0xFF;

/// A device's registers by raw configuration, 0 to 7.
struct rawRegisterRow {
    kest_deviceType type;
    std::array<std::uint8_t, 8> registers;
};
constexpr std::array<rawRegisterRow, 4> rawRegisters{{
    {KEST_DEV_9551, {0xFF, 0xFF, 0x01, 0x02, 0x03, 0x04, 0xFF, 0xFF}},
    {KEST_DEV_9552, {0xFF, 0xFF, 0x02, 0x03, 0x04, 0x05, 0xFF, 0xFF}},
    {KEST_DEV_9554, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0xFF}},
    {KEST_DEV_9555, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x04, 0x05}},
}};

std::uint8_t rawRegister(kest_deviceType type, kest_dpConfig config)
{
    const auto* const row = std::ranges::find(rawRegisters, type, &rawRegisterRow::type);
    return row != rawRegisters.end() && config < row->registers.size() ? row->registers[config] : noRegister;
}

constexpr bool isLedDriver(kest_deviceType type) { return type == KEST_DEV_9551 || type == KEST_DEV_9552; }

/// Output state of up to 16 pins. An LED driver has a selector of two bits a pin, here apart; an expander only the low
/// one.
struct pinMasks {
    std::uint32_t low;
    std::uint32_t high;
};

pinMasks splitSelectors(std::uint32_t selectors)
{
    pinMasks masks{};
    for (unsigned int pin = 0; pin < 16; ++pin) {
        masks.low |= ((selectors >> (2 * pin)) & 1) << pin;
        masks.high |= ((selectors >> (2 * pin + 1)) & 1) << pin;
    }
    return masks;
}

std::uint32_t joinSelectors(const pinMasks& masks)
{
    std::uint32_t selectors = 0;
    for (unsigned int pin = 0; pin < 16; ++pin) {
        selectors |= ((masks.low >> pin) & 1) << (2 * pin);
        selectors |= ((masks.high >> pin) & 1) << (2 * pin + 1);
    }
    return selectors;
}

std::uint32_t setOrClear(std::uint32_t value, std::uint32_t bits, bool set)
{
    return set ? value | bits : value & ~bits;
}

pinMasks applyOperation(pinMasks pins, kest_dpOperation operation, std::uint32_t bits, std::uint32_t mask)
{
    // what the enumeration does not know changes nothing
    switch (operation) {
    case KEST_DP_COPY:
        pins.low = (pins.low & ~mask) | (bits & mask);
        break;
    case KEST_DP_SELECT_00:
    case KEST_DP_SELECT_01:
    case KEST_DP_SELECT_10:
    case KEST_DP_SELECT_11:
        pins.low = setOrClear(pins.low, bits, operation == KEST_DP_SELECT_01 || operation == KEST_DP_SELECT_11);
        pins.high = setOrClear(pins.high, bits, operation == KEST_DP_SELECT_10 || operation == KEST_DP_SELECT_11);
        break;
    }
    return pins;
}

/// One request on its way through the steps.
struct portRun {
    const Dp955xRequest& request;
    const routine& self;
    ErrlEntry* entry = nullptr;
    EdalDevice* device = nullptr;
    mern_t handle = MERN_INVALID;
    bool opened = false;
    bool locked = false;
    std::unique_ptr<EdalDeviceOperation> operation{};
    kest_errorDetails details{};
};

/// Ends a step: traces a failure and notes its site.
bool passed(portRun& run, int line = __builtin_LINE())
{
    if (run.entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("step of a data port routine failed"), " %s", line, 0,
                             run.self.name);
        kest_attachSoftwareError(run.details, run.entry->getRC(), run.self.module, static_cast<std::uint32_t>(line));
    }
    return run.entry == nullptr;
}

/// Asks for an SRC without a callout that says what about the request cannot be done.
void refuse(portRun& run, std::uint32_t reason, std::uint32_t userData3 = 0, int line = __builtin_LINE())
{
    trace_wobu_write_all(kest_trace, traceHash("data port request not possible on this type"), " %s", line, 0,
                         run.self.name);
    kest_requestSrc(run.details, run.self.module, reason, EPUB_SUBSYSTEM_SOFTWARE, static_cast<std::uint32_t>(line),
                    run.request.deviceType, userData3);
    kest_setReturnCode(run.details, 0x80000000 | reason);
}

/// Refuses what is missing. @param pointer  for user data word 2
bool refuseMissing(portRun& run, const void* pointer, int line = __builtin_LINE())
{
    trace_wobu_write_all(kest_trace, traceHash("no device for a data port request"), " %s", line, 0, run.self.name);
    kest_describeFailure(run.details, run.self.module, 0x132B, static_cast<std::uint32_t>(line),
                         static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer)));
    return false;
}

/// @return the registers of the request's type. An unlisted type is reported, and served with register 0 and no data,
/// on purpose.
registerRange findRegisters(portRun& run, std::span<const registerRange> ranges)
{
    const auto found = std::ranges::find(ranges, run.request.deviceType, &registerRange::type);
    registerRange range{run.request.deviceType, 0, 0};
    if (found != ranges.end()) {
        range = *found;
    } else {
        refuse(run, 0x132C);
    }
    return range;
}

void dropOperation(portRun& run)
{
    run.device->setOperation(nullptr);
    run.operation.reset();
}

bool runOperation(portRun& run)
{
    run.device->setOperation(run.operation.get());
    run.entry = run.device->doOperation(run.handle);
    return passed(run);
}

/// Makes the next operation, in place of the one before.
template <typename Operation>
bool makeOperation(portRun& run, std::uint8_t registerByte, std::uint8_t bytes)
{
    dropOperation(run);
    run.operation.reset(new (std::nothrow) Operation(registerByte, bytes));
    return (run.operation && run.operation->getBuffer() != nullptr) || refuseMissing(run, run.operation.get());
}

/// Reads registers. @param[out] value  the first byte read is the least significant; left alone on a failure
bool readRegisters(portRun& run, const registerRange& range, std::uint32_t& value)
{
    const bool done = makeOperation<Dp955xOps::ReadRegister>(run, range.first, range.bytes) && runOperation(run);
    if (done) {
        value = 0;
        for (unsigned int byte = 0; byte < range.bytes; ++byte) {
            value |= std::uint32_t{run.operation->getBuffer()[byte]} << (8 * byte);
        }
    }
    return done;
}

/// The last step of a routine: a failure is in the run's entry.
void writeRegisters(portRun& run, const registerRange& range, std::uint32_t value)
{
    if (makeOperation<Dp955xOps::WriteRegister>(run, range.first, range.bytes)) {
        for (unsigned int byte = 0; byte < range.bytes; ++byte) {
            run.operation->getBuffer()[1 + byte] = static_cast<std::uint8_t>(value >> (8 * byte));
        }
        runOperation(run);
    }
}

/// Makes the device object. Without one there is nothing to be driven.
bool linkDevice(portRun& run)
{
    const kest_deviceInfo* const info = run.request.deviceInfo;
    if (info != nullptr) {
        EdalDevice* second = nullptr;
        buildDeviceLink(info->addressList, &run.device, &second);
        if (second != nullptr) {
            run.device = second;
        }
    }
    return run.device != nullptr || refuseMissing(run, info);
}

bool openDevice(portRun& run)
{
    kest_wobuOpen(run.handle, run.entry, run.request.deviceInfo->devicePath, run.request.deviceInfo->nodeName);
    run.opened = run.entry == nullptr;
    return passed(run);
}

bool sendBlock(portRun& run)
{
    kest_iicConfigBlock block{};
    kest_wobuBuildConfig(run.request.deviceInfo->addressList, 5, true, &block, run.request.attributes, 0);
    kest_wobuConfig(run.handle, run.entry, kest_configSet, WOBU_IIC_BLOCK, &block, sizeof block);
    return passed(run);
}

bool sendSpeed(portRun& run)
{
    kest_attributeValue speedKhz = run.request.attributes[KEST_ATTR_BUS_SPEED];
    kest_wobuConfig(run.handle, run.entry, kest_configSet, WOBU_IIC_SPEED, &speedKhz, sizeof speedKhz);
    return passed(run);
}

bool lockDevice(portRun& run)
{
    run.entry = run.device->lockDevice(run.handle);
    run.locked = run.entry == nullptr;
    return passed(run);
}

/// A clean-up step's failure is the result when nothing failed before, else it is committed by itself.
void settleLate(portRun& run, ErrlEntry* late)
{
    if (late != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("clean-up of a data port routine failed"), " %s", __LINE__, 0,
                             run.self.name);
        if (run.entry == nullptr) {
            run.entry = kest_takeOver(late);
        } else {
            late->commit(kest_component, ERRL_ACTION_KEEP_FOR_SERVICE);
            delete late;
        }
    }
}

ErrlEntry* cleanUp(portRun& run)
{
    if (run.locked) {
        settleLate(run, run.device->unlockDevice(run.handle));
    }
    if (run.opened) {
        ErrlEntry* late = nullptr;
        kest_wobuClose(run.handle, late);
        settleLate(run, late);
    }
    deleteDeviceLink(run.device);
    run.operation.reset();
    kest_logError(run.entry, &run.details, sourceId);
    return run.entry;
}

/// The frame around a routine's body: device object, open, configuration, lock, body, clean-up.
template <typename Body>
ErrlEntry* runOnDevice(const Dp955xRequest* request, const routine& self, Body body)
{
    const traceScope scope{self.name};
    portRun run{.request = *request, .self = self};
    if (linkDevice(run) && openDevice(run) && sendBlock(run) && sendSpeed(run) && lockDevice(run)) {
        body(run);
    }
    return cleanUp(run);
}

void changeOutputs(portRun& run, kest_dpOperation operation, std::uint32_t bits, std::uint32_t mask)
{
    const bool ledDriver = isLedDriver(run.request.deviceType);
    const registerRange range = findRegisters(run, outputRegisters);
    std::uint32_t value = 0;
    if (readRegisters(run, range, value)) {
        const pinMasks pins = ledDriver ? splitSelectors(value) : pinMasks{value, 0};
        const pinMasks changed = applyOperation(pins, operation, bits, mask);
        writeRegisters(run, range, ledDriver ? joinSelectors(changed) : changed.low);
    }
}

void readInputs(portRun& run, std::uint32_t mask, std::uint32_t& value)
{
    const kest_deviceType type = run.request.deviceType;
    const registerRange range = findRegisters(run, inputRegisters);
    bool done = readRegisters(run, range, value);
    if (done && type == KEST_DEV_9552) {
        std::uint32_t upper = 0;
        done = readRegisters(run, {type, 0x01, 1}, upper);
        value |= upper << 8;
    }
    if (done) {
        value &= mask;
        if (type == KEST_DEV_75 || type == KEST_DEV_92) {
            value = ((value >> 8) | (value << 8)) & 0xFFFF;
        }
    }
}

void changeDirections(portRun& run, kest_dpConfig config, std::uint32_t bits)
{
    const registerRange range = findRegisters(run, directionRegisters);
    std::uint32_t value = 0;
    if (readRegisters(run, range, value)) {
        if (config == KEST_DP_CONFIG_INPUT || config == KEST_DP_CONFIG_OUTPUT) {
            value = setOrClear(value, bits, config == KEST_DP_CONFIG_INPUT);
        }
        writeRegisters(run, range, value);
    }
}

void writeRaw(portRun& run, kest_dpConfig config, std::uint32_t value)
{
    const std::uint8_t registerByte = rawRegister(run.request.deviceType, config);
    if (registerByte == noRegister) {
        refuse(run, 0x132D, config);
    } else {
        writeRegisters(run, {run.request.deviceType, registerByte, 1}, value);
    }
}

} // namespace

ErrlEntry* Write(const Dp955xRequest* request, kest_dpOperation operation, std::uint32_t bits, std::uint32_t mask)
{
    return runOnDevice(request, writeRoutine, [=](portRun& run) { changeOutputs(run, operation, bits, mask); });
}

ErrlEntry* Read(const Dp955xRequest* request, std::uint32_t mask, std::uint32_t* value)
{
    return runOnDevice(request, readRoutine, [=](portRun& run) { readInputs(run, mask, *value); });
}

ErrlEntry* GeneralConfig(const Dp955xRequest* request, kest_dpConfig config, std::uint32_t bits)
{
    ErrlEntry* entry = nullptr;
    if (request->deviceInfo != nullptr && isLedDriver(request->deviceType)) {
        const traceScope scope{generalConfigRoutine.name};
        trace_wobu_write_all(kest_trace, traceHash("device without pin directions"), " %s,%x", __LINE__, 0,
                             generalConfigRoutine.name, static_cast<unsigned int>(request->deviceType));
    } else {
        entry = runOnDevice(request, generalConfigRoutine, [=](portRun& run) { changeDirections(run, config, bits); });
    }
    return entry;
}

ErrlEntry* RawConfig(const Dp955xRequest* request, kest_dpConfig config, std::uint32_t value)
{
    return runOnDevice(request, rawConfigRoutine, [=](portRun& run) { writeRaw(run, config, value); });
}

ErrlEntry* Write_922Hub_Reset(const Dp955xRequest* request, kest_dpOperation operation, std::uint32_t bits,
                              std::uint32_t mask, mern_t* handle)
{
    const traceScope scope{hubResetRoutine.name};
    portRun run{.request = *request, .self = hubResetRoutine};
    run.handle = *handle;
    if (linkDevice(run) && sendBlock(run)) {
        changeOutputs(run, operation, bits, mask);
    }
    // neither opened nor locked here: frees what this call made, and logs
    return cleanUp(run);
}

} // namespace kest
