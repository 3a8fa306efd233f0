#include "platform/host/iic/device.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/host/iic/paths.h"
#include "platform/tavo.h"

namespace kest::host::iic
{
namespace
{

constexpr int readsItem = 1;
constexpr int setsItem = 2;
constexpr std::uint16_t longestOffset = 4;
constexpr std::uint32_t usualBusyWaitMs = 1000;
constexpr std::size_t lockRecordBytes = 8;
// host byte order
constexpr std::uint32_t lockKindHub = 0;
// big-endian
constexpr std::uint32_t lockKindRegisters = 2;

callResult failedWith(int error) { return {.value = -1, .error = error}; }

std::uint32_t bigEndian(const std::uint8_t* bytes, std::size_t count)
{
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < count; ++index) {
        value = value << 8 | bytes[index];
    }
    return value;
}

template <typename Value>
Value hostOrder(const std::uint8_t* bytes)
{
    Value value{};
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

struct lockRecord {
    std::uint32_t kind = 0;
    std::uint32_t address = 0;
    std::uint32_t timeoutMs = 0;
};

/// A record says by its first two bytes which order it is in: 00 02 is the register device's, whatever the host's.
lockRecord readLockRecord(const std::uint8_t* bytes)
{
    if (bigEndian(bytes, 2) == lockKindRegisters) {
        return {.kind = lockKindRegisters, .address = bigEndian(bytes + 2, 2), .timeoutMs = bigEndian(bytes + 4, 4)};
    }
    return {.kind = hostOrder<std::uint16_t>(bytes),
            .address = hostOrder<std::uint16_t>(bytes + 2),
            .timeoutMs = hostOrder<std::uint32_t>(bytes + 4)};
}

/// The items and what may be done with them.
struct itemRow {
    std::uint32_t item;
    std::size_t size;
    bool readable;
    bool settable;
};
constexpr std::array items{
    itemRow{WOBU_IIC_SPEED, 4, true, true},
    itemRow{WOBU_IIC_TARGET, 4, true, true},
    itemRow{WOBU_IIC_DETECT_STATE, 4, true, false},
    itemRow{WOBU_IIC_DMA_OPTION, 4, true, true},
    itemRow{WOBU_IIC_LOCK, lockRecordBytes, false, true},
    itemRow{WOBU_IIC_UNLOCK, lockRecordBytes, false, true},
    itemRow{WOBU_IIC_BLOCK, configurationBlock::bytes, true, true},
};

bool isItem(int direction, std::uint32_t item, unsigned int size)
{
    const auto* row = std::ranges::find(items, item, &itemRow::item);
    return row != items.end() && row->size == size &&
           ((direction == readsItem && row->readable) || (direction == setsItem && row->settable));
}

} // namespace

configurationBlock::configurationBlock() { std::memcpy(&m_bytes[40], &usualBusyWaitMs, sizeof usualBusyWaitMs); }

template <typename Value>
Value configurationBlock::field(std::size_t offset) const
{
    return hostOrder<Value>(m_bytes.data() + offset);
}

bool configurationBlock::set(const std::uint8_t* block)
{
    configurationBlock wanted;
    std::copy_n(block, bytes, wanted.m_bytes.begin());
    const bool sensible = (wanted.address() == 0 || isDeviceAddress(wanted.address())) &&
                          wanted.offsetLength() <= longestOffset &&
                          (wanted.pageSize() == 0 || std::has_single_bit(wanted.pageSize()));
    if (sensible) {
        *this = wanted;
    }
    return sensible;
}

void configurationBlock::get(std::uint8_t* block) const { std::ranges::copy(m_bytes, block); }

device::device(std::shared_ptr<bus> wires, std::uint8_t target)
    : m_wires(std::move(wires)), m_adapterTakes(m_wires->limits()), m_target(target), m_locks(m_wires->identity())
{
}

callResult device::configure(int direction, std::uint32_t item, std::uint8_t* value, unsigned int size)
{
    const bool sets = direction == setsItem;
    std::uint32_t number = 0;
    callResult result;
    if (!isItem(direction, item, size)) {
        return failedWith(EINVAL);
    }
    if (value == nullptr) {
        return failedWith(EFAULT);
    }
    if (sets && size == sizeof number) {
        number = hostOrder<std::uint32_t>(value);
    }
    switch (item) {
    case WOBU_IIC_SPEED:
        m_speedKhz = sets ? std::optional(number) : m_speedKhz;
        number = settings().pace.speedKhz;
        break;
    case WOBU_IIC_TARGET:
        result = sets ? setTarget(number) : callResult{};
        number = m_target;
        break;
    case WOBU_IIC_DETECT_STATE:
        result = m_target == 0 ? failedWith(EINVAL) : callResult{};
        number = m_target == 0 ? detectUncertain : detectDevice(*m_wires, settings(), m_history);
        break;
    case WOBU_IIC_DMA_OPTION:
        m_dmaOption = sets ? number : m_dmaOption;
        number = m_dmaOption;
        break;
    case WOBU_IIC_BLOCK:
        if (sets) {
            result = setBlock(value);
        } else {
            m_block.get(value);
        }
        break;
    default:
        result = lock(value, item == WOBU_IIC_LOCK);
        break;
    }
    if (!sets && size == sizeof number && result.error == 0) {
        std::memcpy(value, &number, sizeof number);
    }
    return result;
}

callResult device::setTarget(std::uint32_t address)
{
    if (!isDeviceAddress(address)) {
        return failedWith(EINVAL);
    }
    if (m_block.address() != 0 && address != m_block.address()) {
        // behind the hub of the block: register transfers don't reach it
        return failedWith(ENOSYS);
    }
    m_target = static_cast<std::uint8_t>(address);
    return {};
}

callResult device::setBlock(const std::uint8_t* block)
{
    if (!m_block.set(block)) {
        return failedWith(EINVAL);
    }
    if (m_block.address() != 0) {
        m_target = static_cast<std::uint8_t>(m_block.address());
    }
    return {};
}

callResult device::lock(const std::uint8_t* bytes, bool take)
{
    const lockRecord record = readLockRecord(bytes);
    if ((record.kind != lockKindHub && record.kind != lockKindRegisters) || !isDeviceAddress(record.address)) {
        return failedWith(EINVAL);
    }
    const auto address = static_cast<std::uint8_t>(record.address);
    const int error =
        take ? m_locks.lock(address, std::chrono::milliseconds(record.timeoutMs)) : m_locks.unlock(address);
    return error == 0 ? callResult{} : failedWith(error);
}

callResult device::seek(long offset, int whence)
{
    if (whence != 0) {
        return failedWith(EINVAL);
    }
    m_position = static_cast<std::uint32_t>(static_cast<unsigned long>(offset));
    return {};
}

transferSettings device::settings()
{
    return {.target = m_target,
            .position = m_position,
            .offsetLength = m_block.offsetLength(),
            .pageSize = m_block.pageSize(),
            .writeCycleMs = m_block.writeCycleMs(),
            .busyWaitMs = m_block.busyWaitMs(),
            .pace = {.speedKhz = m_speedKhz.value_or(m_block.speedKhz()), .timeoutMs = m_block.timeoutMs()},
            .locks = &m_locks};
}

/// Why a transfer can't begin. @return 0 or an errno
int checkBuffer(const void* buffer, unsigned int size, std::uint8_t target)
{
    if (buffer == nullptr) {
        return EFAULT;
    }
    // the result is an int
    const bool countable = size <= static_cast<unsigned int>(std::numeric_limits<int>::max());
    return target == 0 || !countable ? EINVAL : 0;
}

callResult device::finishTransfer(const transferReport& report, bool read, unsigned int size)
{
    if (report.error == 0) {
        m_position = positionAfter(settings(), read, size);
    }
    return {.value = static_cast<int>(report.moved), .error = report.error, .length = size, .silence = report.silence};
}

callResult device::read(std::uint8_t* buffer, unsigned int size)
{
    if (size == 0) {
        return {};
    }
    transferReport report{.error = checkBuffer(buffer, size, m_target)};
    if (report.error == 0) {
        report = readDevice(*m_wires, settings(), {buffer, size}, m_history, m_adapterTakes);
    }
    return finishTransfer(report, true, size);
}

callResult device::write(const std::uint8_t* buffer, unsigned int size)
{
    if (size == 0) {
        return {};
    }
    transferReport report{.error = checkBuffer(buffer, size, m_target)};
    if (report.error == 0) {
        report = writeDevice(*m_wires, settings(), {buffer, size}, m_history, m_adapterTakes);
    }
    return finishTransfer(report, false, size);
}

callResult device::reset(int kind)
{
    const int error = kind == 1 ? errnoOf(m_wires->reset(m_target)) : EINVAL;
    // a reopened adapter may be another
    m_adapterTakes = m_wires->limits();
    return error == 0 ? callResult{} : failedWith(error);
}

callResult device::extractFirstFailure(int reserved, void** data)
{
    if (data == nullptr) {
        return failedWith(EFAULT);
    }
    *data = nullptr;
    if (reserved != 0) {
        return failedWith(EINVAL);
    }
    std::string text;
    const int error = firstFailure(m_wires->identity(), m_target, text);
    if (error != 0) {
        return failedWith(error);
    }
    if (text.empty()) {
        return {};
    }
    *data = tavo_malloc(static_cast<unsigned int>(text.size()));
    if (*data == nullptr) {
        return failedWith(ENOMEM);
    }
    std::memcpy(*data, text.data(), text.size());
    return {.value = static_cast<int>(text.size())};
}

callResult device::dropFirstFailure(int reserved)
{
    const int error = reserved == 0 ? iic::dropFirstFailure(m_wires->identity(), m_target) : EINVAL;
    return error == 0 ? callResult{} : failedWith(error);
}

void device::close()
{
    m_closed = true;
    m_locks.releaseAll();
}

void device::keepFailure(const char* operation, const callResult& result)
{
    keepFirstFailure(*m_wires,
                     {.operation = operation,
                      .target = m_target,
                      .position = m_position,
                      .length = result.length,
                      .moved = static_cast<std::uint32_t>(std::max(result.value, 0)),
                      .error = result.error,
                      .offsetLength = m_block.offsetLength(),
                      .silence = result.silence},
                     m_history);
}

} // namespace kest::host::iic
