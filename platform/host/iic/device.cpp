#include "platform/host/iic/device.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/host/iic/detection.h"
#include "platform/host/iic/paths.h"
#include "platform/host/iic/reads.h"
#include "platform/host/iic/writes.h"
#include "platform/tavo.h"

namespace kest::host::iic
{
namespace
{

constexpr std::uint32_t usualBusyWaitMs = 1000;

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

/// The first two bytes of a record say which byte order it is in: 00 02 is a register device's, on every host.
mern_iic_lock readLockRecord(const std::uint8_t* bytes)
{
    if (bigEndian(bytes, 2) == MERN_LOCK_REGISTER_DEVICE) {
        return {.kind = MERN_LOCK_REGISTER_DEVICE,
                .address = static_cast<std::uint16_t>(bigEndian(bytes + 2, 2)),
                .timeoutMs = bigEndian(bytes + 4, 4)};
    }
    return hostOrder<mern_iic_lock>(bytes);
}

/// Whether every field of a block has a meaning.
bool isSensible(const mern_iic_block& block)
{
    return (block.address == 0 || isDeviceAddress(block.address)) && block.offsetLength <= MERN_OFFSET_LENGTH_MAX &&
           (block.pageSize == 0 || std::has_single_bit(block.pageSize));
}

/// The items and what may be done with them.
struct itemRow {
    std::uint32_t item;
    std::size_t size;
    bool readable;
    bool settable;
};
constexpr std::array items{
    itemRow{.item = WOBU_IIC_SPEED, .size = 4, .readable = true, .settable = true},
    itemRow{.item = WOBU_IIC_TARGET, .size = 4, .readable = true, .settable = true},
    itemRow{.item = WOBU_IIC_DETECT_STATE, .size = 4, .readable = true, .settable = false},
    itemRow{.item = WOBU_IIC_DMA_OPTION, .size = 4, .readable = true, .settable = true},
    itemRow{.item = WOBU_IIC_LOCK, .size = sizeof(mern_iic_lock), .readable = false, .settable = true},
    itemRow{.item = WOBU_IIC_UNLOCK, .size = sizeof(mern_iic_lock), .readable = false, .settable = true},
    itemRow{.item = WOBU_IIC_BLOCK, .size = sizeof(mern_iic_block), .readable = true, .settable = true},
};

bool isItem(int way, std::uint32_t item, unsigned int size)
{
    const auto* const row = std::ranges::find(items, item, &itemRow::item);
    return row != items.end() && row->size == size &&
           ((way == MERN_CONFIG_READ && row->readable) || (way == MERN_CONFIG_SET && row->settable));
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

} // namespace

device::device(std::shared_ptr<bus> wires, std::uint8_t target)
    : m_wires(std::move(wires)), m_adapterTakes(m_wires->limits()), m_target(target), m_locks(m_wires->identity())
{
    m_block.busyWaitMs = usualBusyWaitMs;
}

callResult device::configure(int way, std::uint32_t item, std::uint8_t* value, unsigned int size)
{
    if (!isItem(way, item, size)) {
        return failedWith(EINVAL);
    }
    if (value == nullptr) {
        return failedWith(EFAULT);
    }
    const bool sets = way == MERN_CONFIG_SET;
    switch (item) {
    case WOBU_IIC_LOCK:
        return lock(value, true);
    case WOBU_IIC_UNLOCK:
        return lock(value, false);
    case WOBU_IIC_BLOCK:
        if (sets) {
            return setBlock(value);
        }
        std::memcpy(value, &m_block, sizeof m_block);
        return {};
    case WOBU_IIC_DETECT_STATE:
        return detect(value);
    default:
        return sets ? setNumber(item, hostOrder<std::uint32_t>(value)) : getNumber(item, value);
    }
}

callResult device::setNumber(std::uint32_t item, std::uint32_t number)
{
    switch (item) {
    case WOBU_IIC_SPEED:
        m_speedKhz = number;
        return {};
    case WOBU_IIC_TARGET:
        return setTarget(number);
    default:
        m_dmaOption = number;
        return {};
    }
}

callResult device::getNumber(std::uint32_t item, std::uint8_t* value)
{
    std::uint32_t number = m_dmaOption;
    if (item == WOBU_IIC_SPEED) {
        number = settings().pace.speedKhz;
    } else if (item == WOBU_IIC_TARGET) {
        number = m_target;
    }
    std::memcpy(value, &number, sizeof number);
    return {};
}

callResult device::detect(std::uint8_t* value)
{
    if (m_target == 0) {
        return failedWith(EINVAL);
    }
    const std::uint32_t state = detectDevice(*m_wires, settings(), m_history);
    std::memcpy(value, &state, sizeof state);
    return {};
}

callResult device::setTarget(std::uint32_t address)
{
    if (!isDeviceAddress(address)) {
        return failedWith(EINVAL);
    }
    if (m_block.address != 0 && address != m_block.address) {
        // it sits behind the block's hub, where register transfers do not reach it
        return failedWith(ENOSYS);
    }
    m_target = static_cast<std::uint8_t>(address);
    return {};
}

callResult device::setBlock(const std::uint8_t* block)
{
    const auto wanted = hostOrder<mern_iic_block>(block);
    if (!isSensible(wanted)) {
        return failedWith(EINVAL);
    }
    m_block = wanted;
    if (m_block.address != 0) {
        m_target = static_cast<std::uint8_t>(m_block.address);
    }
    return {};
}

callResult device::lock(const std::uint8_t* bytes, bool take)
{
    const mern_iic_lock record = readLockRecord(bytes);
    if ((record.kind != MERN_LOCK_HUB && record.kind != MERN_LOCK_REGISTER_DEVICE) ||
        !isDeviceAddress(record.address)) {
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
            .offsetLength = m_block.offsetLength,
            .pageSize = m_block.pageSize,
            .writeCycleMs = m_block.writeCycleMs,
            .busyWaitMs = m_block.busyWaitMs,
            .pace = {.speedKhz = m_speedKhz.value_or(m_block.speedKhz), .timeoutMs = m_block.timeoutMs},
            .locks = &m_locks};
}

callResult device::finishTransfer(const transferReport& report, direction way, unsigned int size)
{
    if (report.error == 0) {
        m_position = positionAfter(settings(), way, size);
    }
    return {.value = static_cast<int>(report.moved),
            .error = report.error,
            .length = size,
            .silence = report.silence,
            .lacks = report.lacks};
}

callResult device::read(std::uint8_t* buffer, unsigned int size)
{
    if (size == 0) {
        return {};
    }
    if (const int error = checkBuffer(buffer, size, m_target)) {
        return finishTransfer({.error = error}, direction::read, size);
    }
    const transferReport report = readDevice(*m_wires, settings(), {buffer, size}, m_history, m_adapterTakes);
    return finishTransfer(report, direction::read, size);
}

callResult device::write(const std::uint8_t* buffer, unsigned int size)
{
    if (size == 0) {
        return {};
    }
    if (const int error = checkBuffer(buffer, size, m_target)) {
        return finishTransfer({.error = error}, direction::write, size);
    }
    const transferReport report = writeDevice(*m_wires, settings(), {buffer, size}, m_history, m_adapterTakes);
    return finishTransfer(report, direction::write, size);
}

callResult device::reset(int kind)
{
    const int error = kind == MERN_RESET_BUS ? errnoOf(m_wires->reset(m_target)) : EINVAL;
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
                      .offsetLength = m_block.offsetLength,
                      .silence = result.silence,
                      .lacks = result.lacks},
                     m_history);
}

} // namespace kest::host::iic
