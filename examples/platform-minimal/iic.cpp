/// The IIC layer: one bus, "mem:0", with chips in memory: a 24C32 at 0xA8 and a PCA9554 at 0x40. There is no hub, and
/// no transfer has to wait. One mutex guards everything.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/mern.h"
#include "platform/tavo.h"

const mern_t MERN_INVALID{{~0U, ~0U, ~0U, ~0U, ~0U, ~0U}};

namespace
{

/// What the bus brings a chip: the bytes of a write, and how many bytes a read wants.
struct chip {
    std::uint32_t address;
    std::uint32_t pointerBytes; ///< so many bytes of a write set the pointer, the rest is data
    std::uint32_t pageBytes; ///< data of one write wraps around in it; 1: all of it goes to the same place
    std::uint32_t size;
    std::array<std::uint8_t, 4096> bytes;
    std::uint32_t pointer;

    /// @param at  which byte of the write this is
    void take(unsigned int at, std::uint8_t byte)
    {
        if (at < pointerBytes) {
            pointer = ((at == 0 ? 0 : pointer << 8) | byte) % size;
        } else {
            bytes[pointer] = byte;
            pointer = pointer / pageBytes * pageBytes + (pointer + 1) % pageBytes;
        }
    }
    std::uint8_t give()
    {
        const std::uint8_t byte = bytes[pointer];
        pointer = pageBytes == 1 ? pointer : (pointer + 1) % size;
        return byte;
    }
};
constinit std::array<chip, 2> chips{chip{0xA8, 2, 32, 4096, {}, 0}, chip{0x40, 1, 1, 4, {0xF5, 0xFF, 0, 0xFF}, 0}};

struct device {
    std::uint32_t opening; ///< its number, which is also the handle; 0: closed
    std::uint32_t target, position, dmaOption, speedKhz;
    mern_iic_block block;
};
constinit std::array<device, 16> devices{};
constinit std::uint32_t openings = 0;
constinit std::array<const device*, 256> lockOwners{}; ///< by address
constinit std::array<std::array<char, 96>, 256> firstFailures{}; ///< by address, JSON text
constinit std::mutex guard;
std::condition_variable unlocked;

chip* chipAt(std::uint32_t address)
{
    auto* const found = std::ranges::find(chips, address, &chip::address);
    return found != chips.end() ? found : nullptr;
}
bool isAddress(std::uint32_t address) { return address > 0 && address < 0x100 && address % 2 == 0; }

/// Runs a call on an open device. The handle is only a ticket: every copy of it is the same device.
/// @param call  returns 0 or an errno
/// @return 0, or -1 with `errno`
int onDevice(const mern_t& handle, auto call)
{
    std::unique_lock hold(guard);
    auto* const opened = std::ranges::find(devices, handle.words[0], &device::opening);
    const int error = handle.words[0] != 0 && opened != devices.end() ? call(*opened, hold) : EBADF;
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

int setBlock(device& opened, const mern_iic_block& wanted)
{
    if (wanted.offsetLength > MERN_OFFSET_LENGTH_MAX || (wanted.pageSize & (wanted.pageSize - 1)) != 0 ||
        (wanted.address != 0 && !isAddress(wanted.address))) {
        return EINVAL;
    }
    opened.block = wanted;
    opened.target = wanted.address != 0 ? wanted.address : opened.target;
    return 0;
}

int changeLock(const device& opened, const std::uint8_t* bytes, bool take, std::unique_lock<std::mutex>& hold)
{
    mern_iic_lock lock;
    std::memcpy(&lock, bytes, sizeof lock);
    if (bytes[0] == 0 && bytes[1] == MERN_LOCK_REGISTER_DEVICE) {
        // big-endian on every host
        const auto half = [bytes](int at) { return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]); };
        lock = {MERN_LOCK_REGISTER_DEVICE, half(2), std::uint32_t{half(4)} << 16 | half(6)};
    }
    if ((lock.kind != MERN_LOCK_HUB && lock.kind != MERN_LOCK_REGISTER_DEVICE) || !isAddress(lock.address)) {
        return EINVAL;
    }
    const device*& owner = lockOwners[lock.address];
    if (take == (owner == &opened)) {
        return take ? EDEADLK : EINVAL;
    }
    if (take && !unlocked.wait_for(hold, std::chrono::milliseconds(lock.timeoutMs), [&] { return owner == nullptr; })) {
        return EBUSY;
    }
    owner = take ? &opened : nullptr;
    unlocked.notify_all();
    return 0;
}

/// Sets or reads an item that is one word.
int configureWord(device& opened, bool sets, wobu_iic_cfg_t item, std::uint32_t& word)
{
    if (item == WOBU_IIC_DETECT_STATE) {
        word = chipAt(opened.target) != nullptr ? MERN_DETECT_PRESENT : MERN_DETECT_ABSENT;
        return opened.target == 0 ? EINVAL : 0;
    }
    const bool behindHub = opened.block.address != 0 && word != opened.block.address;
    if (item == WOBU_IIC_TARGET && sets && (!isAddress(word) || behindHub)) {
        return isAddress(word) ? ENOSYS : EINVAL;
    }
    std::uint32_t& field = item == WOBU_IIC_TARGET  ? opened.target
                           : item == WOBU_IIC_SPEED ? opened.speedKhz
                                                    : opened.dmaOption;
    (sets ? field : word) = sets ? word : field;
    return 0;
}

/// Bytes of an item, 0 when it cannot be read or set.
std::size_t sizeOf(wobu_iic_cfg_t item, bool sets)
{
    const bool isLock = sets && (item == WOBU_IIC_LOCK || item == WOBU_IIC_UNLOCK);
    const bool isWord = item == WOBU_IIC_SPEED || item == WOBU_IIC_TARGET || item == WOBU_IIC_DMA_OPTION ||
                        (item == WOBU_IIC_DETECT_STATE && !sets);
    return item == WOBU_IIC_BLOCK ? sizeof(mern_iic_block) : isLock ? sizeof(mern_iic_lock) : isWord ? 4 : 0;
}

int whyNot(const device& opened, const void* buffer)
{
    if (buffer == nullptr || opened.target == 0) {
        return buffer == nullptr ? EFAULT : EINVAL;
    }
    // an offset of more than two bytes goes through a hub, and there is none
    return opened.block.offsetLength > 2 ? ENOSYS : chipAt(opened.target) == nullptr ? ENXIO : 0;
}

/// Sends the n low bytes of a position, the most significant first, and then data: one write on the wires.
void sendPiece(const device& opened, std::uint32_t position, const std::uint8_t* data, std::uint32_t count)
{
    chip& target = *chipAt(opened.target);
    const unsigned int n = opened.block.offsetLength;
    for (unsigned int at = 0; at < n; ++at) {
        target.take(at, static_cast<std::uint8_t>(position >> (8 * (n - 1 - at))));
    }
    for (unsigned int at = 0; at < count; ++at) {
        target.take(n + at, data[at]);
    }
}

/// Writes page by page, each page with its own position.
int writePages(const device& opened, const std::uint8_t* data, unsigned int size)
{
    const unsigned int n = opened.block.offsetLength;
    if (n > 0 && std::uint64_t{opened.position} + size > std::uint64_t{1} << (8 * n)) {
        return EINVAL;
    }
    const std::uint32_t page = n > 0 && opened.block.pageSize != 0 ? opened.block.pageSize : ~std::uint32_t{0};
    for (std::uint32_t at = 0, count = 0; at < size; at += count) {
        count = std::min(page - (opened.position + at) % page, size - at);
        sendPiece(opened, opened.position + at, data + at, count);
    }
    return 0;
}

/// A transfer: the position moves on only when n > 0 and all bytes were moved.
/// @return bytes moved; after a failure 0, with `errno` and first-failure data
int transfer(const mern_t& handle, const char* operation, const void* buffer, unsigned int size, auto move)
{
    const int result = size == 0 ? 0 : onDevice(handle, [&](device& opened, auto&) {
        int error = whyNot(opened, buffer);
        error = error == 0 ? move(opened) : error;
        opened.position += error == 0 && opened.block.offsetLength > 0 ? size : 0;
        auto& first = firstFailures[opened.target];
        if (error != 0 && first[0] == '\0') {
            std::snprintf(first.data(), first.size(), R"({"operation":"%s","target":%u,"errno":%d})", operation,
                          opened.target, error);
        }
        return error;
    });
    return result == 0 ? static_cast<int>(size) : 0;
}

} // namespace

MernNode::MernNode() = default;
MernNode::MernNode(const MernNode& other) = default;
MernNode::~MernNode() = default;
int MernInitialize(std::uint32_t) { return 0; }

mern_t mern_iic_open(MernNode node, const char* path, int flags)
{
    unsigned int address = 0;
    const bool named =
        std::strcmp(path, "mem:0") == 0 || (std::sscanf(path, "mem:0@%2x", &address) == 1 && isAddress(address));
    const std::lock_guard hold(guard);
    auto* const opened = std::ranges::find(devices, 0U, &device::opening);
    const int error = flags != MERN_OPEN_READ_WRITE_SYNC ? EINVAL
                      : node.number != MERN_NODE_LOCAL   ? ENODEV
                      : !named                           ? ENOENT
                      : opened == devices.end()          ? ENOMEM
                                                         : 0;
    if (error == 0) {
        *opened = {++openings, address, 0, 0, 0, {}};
        return {{openings}};
    }
    errno = error;
    return MERN_INVALID;
}

int mern_iic_config(mern_t& handle, int direction, wobu_iic_cfg_t item, void* value, unsigned int size)
{
    return onDevice(handle, [&](device& opened, auto& hold) {
        const bool sets = direction == MERN_CONFIG_SET;
        const std::size_t wanted = sets || direction == MERN_CONFIG_READ ? sizeOf(item, sets) : 0;
        if (wanted == 0 || size != wanted || value == nullptr) {
            return wanted == 0 || size != wanted ? EINVAL : EFAULT;
        }
        if (item == WOBU_IIC_LOCK || item == WOBU_IIC_UNLOCK) {
            return changeLock(opened, static_cast<std::uint8_t*>(value), item == WOBU_IIC_LOCK, hold);
        }
        if (item == WOBU_IIC_BLOCK) {
            auto& block = *static_cast<mern_iic_block*>(value);
            return sets ? setBlock(opened, block) : (block = opened.block, 0);
        }
        return configureWord(opened, sets, item, *static_cast<std::uint32_t*>(value));
    });
}

int mern_iic_seek(mern_t& handle, long offset, int whence)
{
    return onDevice(handle, [&](device& opened, auto&) {
        opened.position = whence == 0 ? static_cast<std::uint32_t>(offset) : opened.position;
        return whence == 0 ? 0 : EINVAL;
    });
}

int mern_iic_read(mern_t& handle, void* buffer, unsigned int size)
{
    return transfer(handle, "read", buffer, size, [=](const device& opened) {
        sendPiece(opened, opened.position, nullptr, 0);
        std::generate_n(static_cast<std::uint8_t*>(buffer), size, [&] { return chipAt(opened.target)->give(); });
        return 0;
    });
}

int mern_iic_write(mern_t& handle, const void* buffer, unsigned int size)
{
    return transfer(handle, "write", buffer, size, [=](const device& opened) {
        return writePages(opened, static_cast<const std::uint8_t*>(buffer), size);
    });
}

int mern_iic_reset(mern_t& handle, int kind)
{
    return onDevice(handle, [=](device&, auto&) { return kind == MERN_RESET_BUS ? 0 : EINVAL; });
}

int mern_iic_close(mern_t& handle)
{
    return onDevice(handle, [](device& opened, auto&) {
        opened.opening = 0;
        std::ranges::replace(lockOwners, &opened, nullptr);
        unlocked.notify_all();
        return 0;
    });
}

int mern_iic_ffdc_extract(mern_t& handle, int, void** data)
{
    unsigned int size = 0;
    const int result = onDevice(handle, [&](device& opened, auto&) {
        const char* const text = firstFailures[opened.target].data();
        size = static_cast<unsigned int>(std::strlen(text));
        *data = size != 0 ? tavo_malloc(size) : nullptr;
        std::copy_n(text, *data != nullptr ? size : 0, static_cast<char*>(*data));
        return size != 0 && *data == nullptr ? ENOMEM : 0;
    });
    return result == 0 ? static_cast<int>(size) : -1;
}

int mern_iic_ffdc_unlock(mern_t& handle, int)
{
    return onDevice(handle, [](device& opened, auto&) { return firstFailures[opened.target][0] = '\0', 0; });
}
