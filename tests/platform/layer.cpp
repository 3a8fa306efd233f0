/// The IIC layer, the VPD service, the registry, shared memory, sleeping.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include <unistd.h>

#include "tests/platform/state.h"

using namespace scripted;

const mern_t MERN_INVALID{{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}};

namespace
{

constexpr std::uint32_t handleMark = 0x6B680000;

mern_t ticket(std::uint32_t number) { return {{handleMark | number, ~number, 3 * number, 0, 0xFFFFFFFF, number}}; }

/// The handle's number; 0 when it was never given out.
std::uint32_t numberOf(const mern_t& handle)
{
    const std::uint32_t number = handle.words[5];
    const mern_t expected = ticket(number);
    const bool known = std::ranges::equal(handle.words, expected.words) && state().handles.contains(number);
    return known ? number : 0;
}

std::string nameOf(const mern_t& handle)
{
    const std::uint32_t number = numberOf(handle);
    const auto same = std::ranges::equal(std::span{handle.words}.first(5), std::span{MERN_INVALID.words}.first(5));
    return number != 0 ? "h" + std::to_string(number) : same ? "invalid handle" : "unknown handle";
}

/// What all layer calls on a handle do first. @return the scripted answer; nothing when `result` and `errno` are
/// already set
std::optional<Answer> callOn(const mern_t& handle, Operation operation, const std::string& call, int& result)
{
    Platform::Impl& platform = state();
    platform.write(kindLayer, call);
    const std::uint32_t number = numberOf(handle);
    const int failed =
        // the layer never returns -1 for a transfer
        operation == opRead || operation == opWrite ? 0 : -1;
    result = failed;
    if (number == 0 || platform.handles[number].closed) {
        ADD_FAILURE() << call << (number == 0 ? ": not a handle that was handed out" : ": after its close");
        errno = EBADF;
        return std::nullopt;
    }
    if (const std::optional<int> error = platform.struck(kindLayer, call)) {
        errno = *error;
        return std::nullopt;
    }
    std::optional<Answer> answer = platform.next(operation, call);
    if (!answer) {
        errno = ENOSYS;
        return std::nullopt;
    }
    errno = answer->error.value_or(staleErrno);
    return answer;
}

template <class Value>
Value valueOf(const Bytes& bytes)
{
    Value value{};
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

/// The block's fields, then each other byte that is not 0.
std::string blockText(const mern_iic_block& block)
{
    std::string out = "block: speed " + std::to_string(block.speedKhz);
    out += ", address " + hexText(block.address);
    out += ", offset bytes " + std::to_string(block.offsetLength);
    out += ", timeout " + std::to_string(block.timeoutMs);
    out += ", write cycle " + std::to_string(block.writeCycleMs);
    out += ", page " + std::to_string(block.pageSize);
    out += ", flags " + hexText(block.flags);
    out += ", busy wait " + std::to_string(block.busyWaitMs);
    mern_iic_block rest = block;
    rest.speedKhz = rest.address = rest.offsetLength = rest.writeCycleMs = 0;
    rest.timeoutMs = rest.pageSize = rest.flags = rest.busyWaitMs = 0;
    Bytes bytes(sizeof rest);
    std::memcpy(bytes.data(), &rest, sizeof rest);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != 0) {
            out += ", byte " + std::to_string(i) + " " + hexText(bytes[i]);
        }
    }
    return out;
}

std::string lockText(const Bytes& bytes)
{
    const auto lock = valueOf<mern_iic_lock>(bytes);
    if (lock.kind == MERN_LOCK_HUB) {
        return "kind 0, address " + hexText(lock.address) + ", timeout " + std::to_string(lock.timeoutMs);
    }
    if (bytes[0] == 0 && bytes[1] == MERN_LOCK_REGISTER_DEVICE) {
        return "kind 2, address " + hexText(bytes[2] * 256U + bytes[3]) + ", timeout " +
               std::to_string((((bytes[4] * 256U + bytes[5]) * 256U + bytes[6]) * 256U) + bytes[7]) + ", big-endian";
    }
    return bytesText(bytes.data(), bytes.size());
}

std::string configText(const ConfigCall& call)
{
    const auto size = call.value.size();
    if (call.direction != MERN_CONFIG_SET) {
        return std::to_string(size) + " bytes";
    }
    switch (call.item) {
    case WOBU_IIC_SPEED:
    case WOBU_IIC_TARGET:
    case WOBU_IIC_DMA_OPTION:
        return size == 4 ? hexText(valueOf<std::uint32_t>(call.value)) : bytesText(call.value.data(), size);
    case WOBU_IIC_LOCK:
    case WOBU_IIC_UNLOCK:
        return size == sizeof(mern_iic_lock) ? lockText(call.value) : bytesText(call.value.data(), size);
    case WOBU_IIC_BLOCK:
        return size == sizeof(mern_iic_block) ? blockText(valueOf<mern_iic_block>(call.value))
                                              : bytesText(call.value.data(), size);
    default:
        return bytesText(call.value.data(), size);
    }
}

void followLocks(Handle& handle, const ConfigCall& call, bool succeeded)
{
    if (call.direction != MERN_CONFIG_SET || call.value.size() != sizeof(mern_iic_lock)) {
        return;
    }
    const Bytes key(call.value.begin(), call.value.begin() + 4);
    if (call.item == WOBU_IIC_LOCK && succeeded) {
        handle.locks.push_back(key);
    } else if (call.item == WOBU_IIC_UNLOCK) {
        // a failed unlock counts as one: the library can do no more
        const auto held = std::ranges::find(handle.locks, key);
        if (held != handle.locks.end()) {
            handle.locks.erase(held);
        }
    }
}

const std::uint8_t* bytesOf(const void* data) { return static_cast<const std::uint8_t*>(data); }

std::string pointerText(const void* pointer) { return pointer == nullptr ? "null" : "not null"; }

} // namespace

MernNode::MernNode() = default;
MernNode::MernNode(const MernNode& other) = default;
MernNode::~MernNode() = default;

int MernInitialize(std::uint32_t options)
{
    state().write(kindLayer, "MernInitialize(" + hexText(options) + ")");
    errno = staleErrno;
    return 0;
}

mern_t mern_iic_open(MernNode node, const char* path, int flags)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "mern_iic_open(node " + std::to_string(node.number) + ", " + quoted(path) + ", " +
                             hexText(static_cast<std::uint32_t>(flags)) + ")";
    platform.write(kindLayer, call);
    mern_t invalid = MERN_INVALID;
    // nothing is promised about it
    invalid.words[5] = 0x12345678;
    if (const std::optional<int> error = platform.struck(kindLayer, call)) {
        errno = *error;
        return invalid;
    }
    const std::optional<Answer> answer = platform.next(opOpen, call);
    if (!answer || answer->error) {
        errno = answer ? *answer->error : ENOSYS;
        return invalid;
    }
    errno = staleErrno;
    platform.handles[++platform.lastHandle] = {};
    return ticket(platform.lastHandle);
}

int mern_iic_config(mern_t& handle, int direction, wobu_iic_cfg_t item, void* value, unsigned int size)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    // an item that is read need not be set before
    const bool set = direction == MERN_CONFIG_SET && value != nullptr;
    const ConfigCall details{direction, item, set ? Bytes(bytesOf(value), bytesOf(value) + size) : Bytes(size)};
    platform.configs.push_back(details);
    const std::string call = "mern_iic_config(" + nameOf(handle) + ", " + std::to_string(direction) + ", " +
                             std::to_string(item) + ", " + (value == nullptr ? "null" : configText(details)) + ")";
    int result = 0;
    const auto answer = callOn(handle, opConfig, call, result);
    if (answer) {
        result = answer->result.value_or(0);
        if (direction == MERN_CONFIG_READ && result == 0) {
            const bool healthyItem = platform.healthy && answer->data.empty();
            Bytes data = answer->data;
            if (healthyItem) {
                data = size == 4 && item == WOBU_IIC_DETECT_STATE ? word(MERN_DETECT_PRESENT)
                                                                  : Bytes(size, std::uint8_t{0});
            }
            EXPECT_EQ(size, data.size()) << call << ": size of the scripted item";
            std::copy_n(data.begin(), std::min<std::size_t>(size, data.size()), static_cast<std::uint8_t*>(value));
        } else {
            EXPECT_TRUE(answer->data.empty()) << call << ": the script expects an item to be read";
        }
    }
    followLocks(platform.handles[numberOf(handle)], details, result == 0);
    return result;
}

int mern_iic_seek(mern_t& handle, long offset, int whence)
{
    const std::scoped_lock lock{state().mutex};
    int result = 0;
    const auto answer =
        callOn(handle, opSeek,
               "mern_iic_seek(" + nameOf(handle) + ", " + std::to_string(offset) + ", " + std::to_string(whence) + ")",
               result);
    return answer ? answer->result.value_or(0) : result;
}

int mern_iic_read(mern_t& handle, void* buffer, unsigned int size)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "mern_iic_read(" + nameOf(handle) + ", " + std::to_string(size) + ")";
    int result = 0;
    const auto answer = callOn(handle, opRead, call, result);
    if (!answer) {
        return result;
    }
    // nothing scripted
    if (!answer->result) {
        auto* const bytes = static_cast<std::uint8_t*>(buffer);
        const auto& fill = Platform::instance().readHandler;
        return fill ? fill(bytes, size) : static_cast<int>(std::fill_n(bytes, size, std::uint8_t{0x5A}) - bytes);
    }
    const bool whole = !answer->error.has_value();
    EXPECT_TRUE(whole ? answer->data.size() == size : answer->data.size() < size || size == 0)
        << call << ": the script has " << answer->data.size() << " bytes for it";
    std::copy_n(answer->data.begin(), std::min<std::size_t>(size, answer->data.size()),
                static_cast<std::uint8_t*>(buffer));
    return static_cast<int>(std::min<std::size_t>(size, answer->data.size()));
}

int mern_iic_write(mern_t& handle, const void* buffer, unsigned int size)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    platform.written.emplace_back(bytesOf(buffer), bytesOf(buffer) + size);
    int result = 0;
    const auto answer = callOn(
        handle, opWrite, "mern_iic_write(" + nameOf(handle) + ", " + bytesText(bytesOf(buffer), size) + ")", result);
    if (!answer) {
        return result;
    }
    const auto& take = Platform::instance().writeHandler;
    if (platform.healthy && !answer->result && take) {
        return take(bytesOf(buffer), size);
    }
    return answer->result.value_or(static_cast<int>(size));
}

int mern_iic_reset(mern_t& handle, int kind)
{
    const std::scoped_lock lock{state().mutex};
    int result = 0;
    const auto answer =
        callOn(handle, opReset, "mern_iic_reset(" + nameOf(handle) + ", " + std::to_string(kind) + ")", result);
    return answer ? answer->result.value_or(0) : result;
}

int mern_iic_close(mern_t& handle)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    int result = 0;
    const auto answer = callOn(handle, opClose, "mern_iic_close(" + nameOf(handle) + ")", result);
    if (answer) {
        result = answer->result.value_or(0);
    }
    Handle& known = platform.handles[numberOf(handle)];
    known.closeAsked = true;
    known.closed = known.closed || result >= 0;
    known.locks.clear();
    return result;
}

int mern_iic_ffdc_extract(mern_t& handle, int reserved, void** data)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    int result = 0;
    const auto answer = callOn(
        handle, opExtract, "mern_iic_ffdc_extract(" + nameOf(handle) + ", " + std::to_string(reserved) + ")", result);
    if (!answer || answer->result.value_or(0) < 0) {
        return answer ? -1 : result;
    }
    const Bytes& ffdc =
        platform.healthy && !answer->result && answer->data.empty() ? Platform::instance().healthyFfdc : answer->data;
    if (!ffdc.empty()) {
        Buffer& buffer = platform.newBuffer("ffdc", ffdc.size(), ffdc.data());
        buffer.ffdc = true;
        *data = buffer.bytes.get();
    }
    return static_cast<int>(ffdc.size());
}

int mern_iic_ffdc_unlock(mern_t& handle, int reserved)
{
    const std::scoped_lock lock{state().mutex};
    int result = 0;
    const auto answer = callOn(
        handle, opUnlock, "mern_iic_ffdc_unlock(" + nameOf(handle) + ", " + std::to_string(reserved) + ")", result);
    return answer ? answer->result.value_or(0) : result;
}

ErrlEntry* UtilReg::read(const char* key, void* buffer, unsigned int& size, bool reserved, ErrlEntry* entry)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "UtilReg::read(" + quoted(key) + ", " + std::to_string(size) + ", " +
                             (reserved ? "true" : "false") + ", " + pointerText(entry) + ")";
    platform.write(kindRegistry, call);
    if (platform.struck(kindRegistry, call)) {
        return platform.entryOf({});
    }
    const auto answer = platform.next(opRegistry, call);
    errno = staleErrno;
    if (!answer || answer->entry) {
        return platform.entryOf(answer ? *answer->entry : EntryShape{});
    }
    const Bytes value = platform.healthy && !answer->result ? text("HWareMode") : answer->data;
    std::copy_n(value.begin(), std::min<std::size_t>(size, value.size()), static_cast<std::uint8_t*>(buffer));
    size = static_cast<unsigned>(value.size());
    return nullptr;
}

ErrlEntry* tavo_read_data_persistancy(const char* root, unsigned int device, const char* name, unsigned char** data,
                                      unsigned int* length, unsigned int offset)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "tavo_read_data_persistancy(" + quoted(root) + ", " + std::to_string(device) + ", " +
                             quoted(name) + ", " + pointerText(*data) + ", length " + std::to_string(*length) +
                             ", offset " + std::to_string(offset) + ")";
    platform.write(kindService, call);
    if (platform.struck(kindService, call)) {
        return platform.entryOf({});
    }
    const auto answer = platform.next(opCopyRead, call);
    errno = staleErrno;
    if (!answer || answer->entry) {
        *length = answer ? answer->length.value_or(*length) : *length;
        return platform.entryOf(answer ? *answer->entry : EntryShape{});
    }
    *length = answer->length.value_or(static_cast<unsigned>(answer->data.size()));
    if (!answer->data.empty()) {
        *data = platform.newBuffer("copy", answer->data.size(), answer->data.data()).bytes.get();
    }
    return nullptr;
}

ErrlEntry* tavo_write_data_persistancy(const char* root, unsigned int device, const char* name,
                                       const unsigned char* data, unsigned int* length, unsigned int offset)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "tavo_write_data_persistancy(" + quoted(root) + ", " + std::to_string(device) + ", " +
                             quoted(name) + ", " + bytesText(data, *length) + ", offset " + std::to_string(offset) +
                             ")";
    platform.write(kindService, call);
    if (platform.struck(kindService, call)) {
        return platform.entryOf({});
    }
    const auto answer = platform.next(opCopyWrite, call);
    errno = staleErrno;
    if (!answer || answer->entry) {
        *length = answer ? answer->length.value_or(*length) : *length;
        return platform.entryOf(answer ? *answer->entry : EntryShape{});
    }
    return nullptr;
}

ErrlEntry* TAVO_get_dev_addr_string(unsigned int deviceAddress, char** string, zelPosition position, bool reserved)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "TAVO_get_dev_addr_string(" + std::to_string(deviceAddress) + ", position " +
                             std::to_string(position) + ", " + (reserved ? "true" : "false") + ")";
    platform.write(kindService, call);
    *string = nullptr;
    if (platform.struck(kindService, call)) {
        return platform.entryOf({});
    }
    const auto answer = platform.next(opLocation, call);
    errno = staleErrno;
    if (!answer || answer->entry) {
        return platform.entryOf(answer ? *answer->entry : EntryShape{});
    }
    Bytes location = platform.healthy && !answer->result ? text("healthy") : answer->data;
    location.push_back(0);
    *string = reinterpret_cast<char*>(platform.newBuffer("location", location.size(), location.data()).bytes.get());
    return nullptr;
}

void* tavo_malloc(unsigned int size)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const std::string call = "tavo_malloc(" + std::to_string(size) + ")";
    platform.write(kindMemory, call);
    errno = staleErrno;
    if (platform.mallocFault.strikes() || platform.struck(kindMemory, call)) {
        return nullptr;
    }
    // no machine of this kind has so much memory, and the test machine shall not be filled
    if (size > 0x10000000) {
        return nullptr;
    }
    return platform.newBuffer("memory", size, nullptr).bytes.get();
}

void tavo_util_free(void** buffer)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    errno = staleErrno;
    if (buffer == nullptr || *buffer == nullptr) {
        platform.write(kindQuery, "tavo_util_free(null)");
        return;
    }
    const auto found =
        std::ranges::find_if(platform.buffers, [&](const auto& one) { return one->bytes.get() == *buffer; });
    if (found == platform.buffers.end() || !(*found)->live) {
        ADD_FAILURE() << "tavo_util_free of "
                      << (found == platform.buffers.end() ? "what the platform did not give"
                                                          : (*found)->name + ", again");
        return;
    }
    platform.write(kindMemory, "tavo_util_free(" + (*found)->name + ")");
    (*found)->live = false;
    // a reader that is too late shall notice it
    std::fill_n((*found)->bytes.get(), (*found)->size, std::uint8_t{0xDD});
#ifdef KEST_ADDRESS_SANITIZER
    (*found)->bytes.reset();
#endif
    *buffer = nullptr;
}

/// Replaces the system's function: no test waits.
int usleep(useconds_t microseconds)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    platform.sleeps.push_back(microseconds);
    platform.write(kindSleep, "usleep(" + std::to_string(microseconds) + ")");
    errno = staleErrno;
    return 0;
}

namespace scripted
{

mern_t Platform::openHandle()
{
    m_impl->handles[++m_impl->lastHandle].byTest = true;
    return ticket(m_impl->lastHandle);
}

} // namespace scripted
