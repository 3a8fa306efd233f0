/// The IIC layer's functions: handles, errno, first-failure data and traces around what a device does.
#include "platform/mern.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>

#include "platform/host/iic/device.h"
#include "platform/host/iic/handles.h"
#include "platform/host/iic/paths.h"
#include "platform/host/trace/hash.h"
#include "platform/trace.h"

const mern_t MERN_INVALID = {{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}};

MernNode::MernNode() = default;
MernNode::MernNode(const MernNode& other) = default;
MernNode::~MernNode() = default;

namespace kest::host::iic
{
namespace
{

constexpr unsigned int traceBytes = 16384;

/// The buffer "IIC", made at its first use. Threads that use it first at the same time get the same one. None waits for
/// another, which a fork might leave behind.
trace_wobu_descriptor traceBuffer()
{
    static constinit std::atomic<trace_wobu_descriptor> made{nullptr};
    trace_wobu_descriptor buffer = made.load(std::memory_order_acquire);
    if (buffer == nullptr) {
        trace_wobu_init_buffer(&buffer, "IIC", traceBytes);
        made.store(buffer, std::memory_order_release);
    }
    return buffer;
}

void traceFailure(const char* operation, const device& opened, const callResult& result)
{
    constexpr const char* format = " %s %s failed: target %02X position %x moved %u of %u errno %d %s %s";
    trace_wobu_write_all(traceBuffer(), messageHash("failed"), format, __LINE__, 0, operation,
                         opened.wires().identity().text.c_str(), opened.target(), opened.position(),
                         static_cast<unsigned int>(std::max(result.value, 0)), result.length, result.error,
                         errnoName(result.error), result.silence);
}

void traceDone(const char* operation, const device& opened, const callResult& result)
{
    trace_wobu_write_all(traceBuffer(), messageHash("done"), " %s %s: target %02X position %x result %d", __LINE__, 0,
                         operation, opened.wires().identity().text.c_str(), opened.target(), opened.position(),
                         result.value);
}

/// The result of a call, even of one that ran out of memory.
template <typename Call>
callResult answerOf(device& opened, Call call)
{
    try {
        return call(opened);
    } catch (const std::bad_alloc&) {
        return {.value = -1, .error = ENOMEM};
    } catch (const std::exception&) {
        return {.value = -1, .error = EIO};
    }
}

/// Records and traces a call. When there is no memory for that, the call still returns what it returned.
void keepAccount(device& opened, const char* operation, bool recorded, const callResult& result)
{
    try {
        if (result.error == 0) {
            traceDone(operation, opened, result);
            return;
        }
        if (recorded && !opened.isClosed()) {
            opened.keepFailure(operation, result);
        }
        traceFailure(operation, opened, result);
    } catch (const std::exception&) {
        // there is no memory to keep it in
    }
}

/// Runs a call on an open device. `errno` is set by every failure and left alone by success.
/// @param recorded  whether a failure is one of the device's, to be kept as first-failure data
template <typename Call>
int onDevice(const mern_t& handle, const char* operation, bool recorded, Call call)
{
    const int entered = errno;
    callResult result{.value = -1, .error = EBADF};
    const std::shared_ptr<device> opened = handleTable::instance().find(handle);
    if (opened != nullptr) {
        const std::lock_guard hold(opened->mutex);
        if (!opened->isClosed()) {
            result = answerOf(*opened, call);
        }
        keepAccount(*opened, operation, recorded, result);
    }
    errno = result.error != 0 ? result.error : entered;
    return result.value;
}

/// @return 0 or an errno
int openDevice(NodeType node, const char* path, int flags, mern_t& handle)
{
    if (path == nullptr) {
        return EFAULT;
    }
    if (flags != MERN_OPEN_READ_WRITE_SYNC) {
        return EINVAL;
    }
    devicePath where;
    if (const int error = parseDevicePath(path, where)) {
        return error;
    }
    std::shared_ptr<bus> wires;
    if (const int error = openBusOf(where, node, currentConfiguration(), wires)) {
        return error;
    }
    handle = handleTable::instance().add(std::make_shared<device>(std::move(wires), where.address));
    return 0;
}

int openTraced(NodeType node, const char* path, int flags, mern_t& handle)
{
    const int error = openDevice(node, path, flags, handle);
    trace_wobu_write_all(traceBuffer(), messageHash("open"), " open %s: errno %d", __LINE__, 0,
                         path == nullptr ? "(null)" : path, error);
    return error;
}

} // namespace
} // namespace kest::host::iic

using namespace kest::host::iic;

int MernInitialize(std::uint32_t /*options*/)
{
    traceBuffer();
    return 0;
}

mern_t mern_iic_open(MernNode node, const char* path, int flags)
{
    const int entered = errno;
    mern_t handle = MERN_INVALID;
    int error = 0;
    try {
        error = openTraced(node.number, path, flags, handle);
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (const std::exception&) {
        error = EIO;
    }
    errno = error != 0 ? error : entered;
    return handle;
}

int mern_iic_config(mern_t& handle, int direction, wobu_iic_cfg_t item, void* value, unsigned int size)
{
    return onDevice(handle, "config", true, [&](device& opened) {
        return opened.configure(direction, item, static_cast<std::uint8_t*>(value), size);
    });
}

int mern_iic_seek(mern_t& handle, long offset, int whence)
{
    return onDevice(handle, "seek", true, [&](device& opened) { return opened.seek(offset, whence); });
}

int mern_iic_read(mern_t& handle, void* buffer, unsigned int size)
{
    return std::max(onDevice(handle, "read", true,
                             [&](device& opened) { return opened.read(static_cast<std::uint8_t*>(buffer), size); }),
                    0);
}

int mern_iic_write(mern_t& handle, const void* buffer, unsigned int size)
{
    return std::max(
        onDevice(handle, "write", true,
                 [&](device& opened) { return opened.write(static_cast<const std::uint8_t*>(buffer), size); }),
        0);
}

int mern_iic_reset(mern_t& handle, int kind)
{
    return onDevice(handle, "reset", true, [&](device& opened) { return opened.reset(kind); });
}

int mern_iic_close(mern_t& handle)
{
    const int entered = errno;
    const std::shared_ptr<device> opened = handleTable::instance().take(handle);
    if (opened == nullptr) {
        errno = EBADF;
        return -1;
    }
    {
        // waits for a call of another thread
        const std::lock_guard hold(opened->mutex);
        opened->close();
        traceDone("close", *opened, {});
    }
    errno = entered;
    return 0;
}

int mern_iic_ffdc_extract(mern_t& handle, int reserved, void** data)
{
    return onDevice(handle, "ffdc extract", false,
                    [&](device& opened) { return opened.extractFirstFailure(reserved, data); });
}

int mern_iic_ffdc_unlock(mern_t& handle, int reserved)
{
    return onDevice(handle, "ffdc unlock", false, [&](device& opened) { return opened.dropFirstFailure(reserved); });
}
