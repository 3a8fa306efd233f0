/// Mistakes of an IIC layer.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/mern.h"
#include "tests/porting/wrong.h"

namespace
{

/// Makes the mistake of another `errno`.
void replaceErrno(const char* mistake, int from, int to)
{
    if (makes(mistake) && errno == from) {
        errno = to;
    }
}

bool isLock(wobu_iic_cfg_t item) { return item == WOBU_IIC_LOCK || item == WOBU_IIC_UNLOCK; }

int offsetLength = 0; ///< of the block that was set last
long position = 0; ///< of all devices together
constexpr unsigned int pageSize = 32; ///< of the minimal platform's memory

/// What is wrong with a lock's record before the layer sees it. @return false: the lock is not passed on
bool passesLock(wobu_iic_cfg_t item, std::uint8_t* record)
{
    mern_iic_lock lock;
    std::memcpy(&lock, record, sizeof lock);
    lock.kind = makes("any-kind-of-lock") && lock.kind == 7 ? std::uint16_t{MERN_LOCK_HUB} : lock.kind;
    if (makes("register-locks-in-host-order") && record[1] == 2) {
        lock.kind = 0x300; // no kind, whatever the order
    }
    lock.timeoutMs = makes("lock-time-ignored") ? 0 : lock.timeoutMs;
    std::memcpy(record, &lock, sizeof lock);
    return !(makes("locks-ignored") && item == WOBU_IIC_LOCK);
}

} // namespace

KEST_WRONG(int, seek, "_Z13mern_iic_seekR6mern_tli", mern_t& handle, long offset, int whence)
{
    const int result = realseek(handle, offset, whence);
    position = offset;
    return makes("seek-returns-position") && result == 0 ? static_cast<int>(offset) : result;
}

KEST_WRONG(int, initialize, "_Z14MernInitializej", std::uint32_t options)
{
    static int calls = 0;
    return makes("initialises-once") && ++calls > 1 ? -1 : realinitialize(options);
}

KEST_WRONG(mern_t, open, "_Z13mern_iic_open8MernNodePKci", MernNode node, const char* path, int flags)
{
    node.number = makes("nodes-ignored") ? MERN_NODE_LOCAL : node.number;
    const mern_t handle = realopen(node, path, flags);
    replaceErrno("missing-bus-is-eio", ENOENT, EIO);
    return handle;
}

KEST_WRONG(int, close, "_Z14mern_iic_closeR6mern_t", mern_t& handle)
{
    const int result = makes("close-keeps-device") ? 0 : realclose(handle);
    return makes("close-fails") ? -1 : result;
}

KEST_WRONG(int, config, "_Z15mern_iic_configR6mern_ti14wobu_iic_cfg_tPvj", mern_t& handle, int direction,
           wobu_iic_cfg_t item, void* value, unsigned int size)
{
    const bool sets = direction == MERN_CONFIG_SET;
    if (isLock(item) && sets && value != nullptr && size == sizeof(mern_iic_lock) &&
        !passesLock(item, static_cast<std::uint8_t*>(value))) {
        return 0;
    }
    if (makes("threads-get-no-lock") && item == WOBU_IIC_LOCK && inOtherThread()) {
        return errno = EBUSY, -1;
    }
    if (item == WOBU_IIC_BLOCK && sets && size == sizeof(mern_iic_block)) {
        auto block = *static_cast<mern_iic_block*>(value);
        block.pageSize =
            makes("pages-ignored") || (makes("any-page-size") && block.pageSize == 48) ? 0 : block.pageSize;
        offsetLength = block.offsetLength;
        return realconfig(handle, direction, item, &block, size);
    }
    size = makes("sizes-ignored") && item == WOBU_IIC_TARGET ? 4 : size;
    const int result = realconfig(handle, direction, item, value, size);
    replaceErrno("deadlock-is-ebusy", EDEADLK, EBUSY);
    std::uint32_t word = item == WOBU_IIC_SPEED ? 0 : std::uint32_t{MERN_DETECT_PRESENT};
    if (!sets && result == 0 &&
        ((item == WOBU_IIC_SPEED && makes("speed-forgotten")) ||
         (item == WOBU_IIC_DETECT_STATE && makes("always-present")))) {
        std::memcpy(value, &word, sizeof word);
    }
    return result;
}

KEST_WRONG(int, read, "_Z13mern_iic_readR6mern_tPvj", mern_t& handle, void* buffer, unsigned int size)
{
    if (makes("threads-read-nothing") && inOtherThread()) {
        return errno = EBUSY, 0;
    }
    if (makes("size-0-needs-buffer") && buffer == nullptr) {
        return errno = EFAULT, -1;
    }
    if (makes("one-position")) {
        realseek(handle, position, 0);
        position += size;
    }
    int result = realread(handle, buffer, makes("reads-1024-at-most") ? std::min(size, 1024U) : size);
    replaceErrno("closed-is-einval", EBADF, EINVAL);
    replaceErrno("no-target-is-enxio", EINVAL, ENXIO);
    replaceErrno("silence-is-eio", ENXIO, EIO);
    if (makes("plain-read-moves") && offsetLength == 0) {
        realseek(handle, 0, 0);
    }
    if (makes("threads-meet") && inOtherThread() && result > 0) {
        *static_cast<std::uint8_t*>(buffer) ^= 1;
    }
    return makes("silence-is-minus-1") && result == 0 && size != 0 ? -1 : result;
}

KEST_WRONG(int, write, "_Z14mern_iic_writeR6mern_tPKvj", mern_t& handle, const void* buffer, unsigned int size)
{
    static int writes = 0;
    static int oldBytes = 0;
    // the checks fill four pages, and put them back: every second time
    const bool putsBack = size == 4 * pageSize && ++writes % 2 == 0;
    if (makes("putting-back-fails") && putsBack) {
        return errno = EIO, 0;
    }
    const bool stores = !makes("write-does-nothing") && !(makes("putting-back-stores-nothing") && putsBack);
    if (makes("old-bytes-refused") && position == 3 && size == 2 * pageSize && ++oldBytes > 1) {
        return errno = EIO, 0;
    }
    const int result = stores ? realwrite(handle, buffer, size) : static_cast<int>(size);
    return makes("range-is-cut") && result == 0 && errno == EINVAL ? 2 : result;
}

KEST_WRONG(int, reset, "_Z14mern_iic_resetR6mern_ti", mern_t& handle, int kind)
{
    if (makes("reset-rewinds")) {
        realseek(handle, 0, 0);
    }
    return realreset(handle, kind);
}

KEST_WRONG(int, extract, "_Z21mern_iic_ffdc_extractR6mern_tiPPv", mern_t& handle, int reserved, void** data)
{
    return makes("no-first-failures") ? 0 : realextract(handle, reserved, data);
}
