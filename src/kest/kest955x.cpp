#include "kest955x.h"

#include <cstddef>
#include <memory>
#include <new>

#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kestsession.h"
#include "kesttrace.h"

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
constexpr routine readRoutine{"Read", KEST_MODULE_PORT_READ, sourceId};
constexpr routine writeRoutine{"Write", KEST_MODULE_PORT_WRITE, sourceId};
constexpr routine generalConfigRoutine{"GeneralConfig", KEST_MODULE_PORT_DIRECTIONS, sourceId};
constexpr routine rawConfigRoutine{"RawConfig", KEST_MODULE_PORT_RAW, sourceId};
constexpr routine hubResetRoutine{"Write_922Hub_Reset", KEST_MODULE_PORT_HUB_RESET, sourceId};

/// Output state of up to 16 pins. An LED driver has a selector of two bits a pin, which are kept apart here. An
/// expander has only the low bit.
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
    // an unknown operation changes nothing
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
    const portRegisters& port = kest_typeOf(request.deviceType).port;
    reportedCall report{self};
    ErrlEntry*& entry = report.entry;
    iicSession session{entry};
    EdalDevice* device = nullptr;
    bool locked = false;
    std::unique_ptr<EdalDeviceOperation> operation{};
};

/// Ends a step. @param done  true when there is no entry
bool passed(portRun& run, bool done, std::uint32_t line = __builtin_LINE())
{
    return done || run.report.passed(traceHash("step of a data port routine failed"), line);
}

/// Asks for an SRC that says what cannot be done; it has no callout.
void refuse(portRun& run, kest_reason reason, std::uint32_t userData3 = 0, int line = __builtin_LINE())
{
    KEST_TRACE_AT(line, traceHash("data port request not possible on this type"), "", run.self.name);
    kest_requestSrc(run.report.details, run.self.module, reason, EPUB_SUBSYSTEM_SOFTWARE,
                    static_cast<std::uint32_t>(line), run.request.deviceType, userData3);
    kest_setReturnCode(run.report.details, kest_classFailure | reason);
}

/// Refuses what is missing. @param pointer  for user data word 2
bool refuseMissing(portRun& run, const void* pointer, int line = __builtin_LINE())
{
    return run.report.fail(traceHash("no device for a data port request"), KEST_REASON_MISSING,
                           static_cast<std::uint32_t>(line),
                           static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer)), line);
}

/// Reports a type without such registers. The request goes on all the same, with register 0 and no data, on purpose.
void checkRegisters(portRun& run, const registerRange& range)
{
    if (range.bytes == 0) {
        refuse(run, KEST_REASON_DEVICE_TYPE);
    }
}

bool runOperation(portRun& run)
{
    run.device->setOperation(run.operation.get());
    run.entry = run.device->doOperation(run.session.handle);
    return passed(run, run.entry == nullptr);
}

/// Makes the next operation, in place of the one before.
template <typename Operation>
bool makeOperation(portRun& run, const registerRange& range)
{
    run.device->setOperation(nullptr);
    run.operation.reset();
    run.operation.reset(new (std::nothrow) Operation(range.first, range.bytes));
    return (run.operation && run.operation->getBuffer() != nullptr) || refuseMissing(run, run.operation.get());
}

/// Reads registers. @param[out] value  the first byte read is the least significant; left alone on a failure
bool readRegisters(portRun& run, const registerRange& range, std::uint32_t& value)
{
    if (!makeOperation<Dp955xOps::ReadRegister>(run, range) || !runOperation(run)) {
        return false;
    }
    value = 0;
    for (unsigned int byte = 0; byte < range.bytes; ++byte) {
        value |= std::uint32_t{run.operation->getBuffer()[byte]} << (8 * byte);
    }
    return true;
}

/// The last step of a routine: a failure is in the run's entry.
void writeRegisters(portRun& run, const registerRange& range, std::uint32_t value)
{
    if (makeOperation<Dp955xOps::WriteRegister>(run, range)) {
        for (unsigned int byte = 0; byte < range.bytes; ++byte) {
            run.operation->getBuffer()[1 + byte] = static_cast<std::uint8_t>(value >> (8 * byte));
        }
        runOperation(run);
    }
}

/// Makes the device object. Without one there is nothing to drive.
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

bool setBlock(portRun& run)
{
    mern_iic_block block;
    kest_wobuBuildConfig(run.request.deviceInfo->addressList, 5, true, &block, run.request.attributes, 0);
    return run.session.setBlock(block);
}

bool lockDevice(portRun& run)
{
    run.entry = run.device->lockDevice(run.session.handle);
    run.locked = run.entry == nullptr;
    return run.locked;
}

/// The failure of a clean-up step is the result when nothing failed before; else it is committed by itself.
void settleLate(portRun& run, ErrlEntry* late)
{
    if (late == nullptr) {
        return;
    }
    KEST_TRACE(traceHash("clean-up of a data port routine failed"), "", run.self.name);
    if (run.entry == nullptr) {
        run.entry = kest_takeOver(late);
    } else {
        late->commit(kest_component, ERRL_ACTION_KEEP_FOR_SERVICE);
        delete late;
    }
}

ErrlEntry* cleanUp(portRun& run)
{
    if (run.locked) {
        settleLate(run, run.device->unlockDevice(run.session.handle));
    }
    settleLate(run, run.session.close());
    deleteDeviceLink(run.device);
    run.operation.reset();
    return run.report.finish();
}

/// Makes the device object, opens, configures and locks the device. The site of a failed step is its source line.
bool prepareDevice(portRun& run)
{
    if (!linkDevice(run)) {
        return false;
    }
    if (!passed(run, run.session.open(*run.request.deviceInfo))) {
        return false;
    }
    if (!passed(run, setBlock(run))) {
        return false;
    }
    if (!passed(run, run.session.setSpeed(run.request.attributes[KEST_ATTR_BUS_SPEED]))) {
        return false;
    }
    return passed(run, lockDevice(run));
}

/// The frame around a routine's body: device object, open, configuration, lock, body, clean-up.
template <typename Body>
ErrlEntry* runOnDevice(const Dp955xRequest* request, const routine& self, Body body)
{
    portRun run{.request = *request, .self = self};
    if (prepareDevice(run)) {
        body(run);
    }
    return cleanUp(run);
}

void changeOutputs(portRun& run, kest_dpOperation operation, std::uint32_t bits, std::uint32_t mask)
{
    checkRegisters(run, run.port.outputs);
    std::uint32_t value = 0;
    if (readRegisters(run, run.port.outputs, value)) {
        const pinMasks pins = run.port.ledDriver ? splitSelectors(value) : pinMasks{value, 0};
        const pinMasks changed = applyOperation(pins, operation, bits, mask);
        writeRegisters(run, run.port.outputs, run.port.ledDriver ? joinSelectors(changed) : changed.low);
    }
}

void readInputs(portRun& run, std::uint32_t mask, std::uint32_t& value)
{
    checkRegisters(run, run.port.inputs);
    if (!readRegisters(run, run.port.inputs, value)) {
        return;
    }
    if (run.port.upperInputs.bytes != 0) {
        std::uint32_t upper = 0;
        if (!readRegisters(run, run.port.upperInputs, upper)) {
            return;
        }
        value |= upper << 8;
    }
    value &= mask;
    if (run.port.highByteFirst) {
        value = ((value >> 8) | (value << 8)) & 0xFFFF;
    }
}

void changeDirections(portRun& run, kest_dpConfig config, std::uint32_t bits)
{
    checkRegisters(run, run.port.directions);
    std::uint32_t value = 0;
    if (readRegisters(run, run.port.directions, value)) {
        if (config == KEST_DP_CONFIG_INPUT || config == KEST_DP_CONFIG_OUTPUT) {
            value = setOrClear(value, bits, config == KEST_DP_CONFIG_INPUT);
        }
        writeRegisters(run, run.port.directions, value);
    }
}

void writeRaw(portRun& run, kest_dpConfig config, std::uint32_t value)
{
    const rawRange& raw = run.port.raw;
    if (config < raw.config || config >= raw.config + raw.count) {
        refuse(run, KEST_REASON_NO_REGISTER, config);
    } else {
        writeRegisters(run, {static_cast<std::uint8_t>(raw.first + (config - raw.config)), 1}, value);
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
    if (request->deviceInfo != nullptr && kest_typeOf(request->deviceType).port.ledDriver) {
        const traceScope scope{generalConfigRoutine.name};
        KEST_TRACE(traceHash("device without pin directions"), ",%x", generalConfigRoutine.name,
                   static_cast<unsigned int>(request->deviceType));
        return nullptr;
    }
    return runOnDevice(request, generalConfigRoutine, [=](portRun& run) { changeDirections(run, config, bits); });
}

ErrlEntry* RawConfig(const Dp955xRequest* request, kest_dpConfig config, std::uint32_t value)
{
    return runOnDevice(request, rawConfigRoutine, [=](portRun& run) { writeRaw(run, config, value); });
}

ErrlEntry* Write_922Hub_Reset(const Dp955xRequest* request, kest_dpOperation operation, std::uint32_t bits,
                              std::uint32_t mask, mern_t* handle)
{
    portRun run{.request = *request, .self = hubResetRoutine};
    run.session.handle = *handle;
    if (linkDevice(run) && passed(run, setBlock(run))) {
        changeOutputs(run, operation, bits, mask);
    }
    // the device was neither opened nor locked here: this only frees and logs
    return cleanUp(run);
}

} // namespace kest
