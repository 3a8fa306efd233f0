#include "platform/host/iic/systemcalls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/files.h"

namespace kest::host::iic
{
namespace
{

// the kernel gives such a file the size of a page, whatever is in it
constexpr std::size_t longestAttribute = 1 << 16;

systemCalls kernel;
std::atomic<systemCalls*> chosen{&kernel};

} // namespace

int systemCalls::openNode(const char* path, int flags) { return ownDescriptor(::open(path, flags)); }

int systemCalls::closeNode(int descriptor) { return ::close(descriptor); }

int systemCalls::statNode(int descriptor, struct stat& about) { return ::fstat(descriptor, &about); }

int systemCalls::control(int descriptor, unsigned long request, std::uintptr_t argument)
{
    return ::ioctl(descriptor, request, argument);
}

std::string systemCalls::adapterName(unsigned int number)
{
    std::vector<std::uint8_t> bytes;
    static_cast<void>(
        readFile(m_sysfs / "class/i2c-dev" / ("i2c-" + std::to_string(number)) / "name", longestAttribute, bytes));
    return {bytes.begin(), std::ranges::find(bytes, '\n')};
}

std::uint32_t systemCalls::adapterClockHz(unsigned int number)
{
    // of a device tree, big-endian
    constexpr std::size_t cellBytes = 4;
    std::vector<std::uint8_t> bytes;
    std::uint32_t hertz = 0;
    static_cast<void>(
        readFile(m_sysfs / "bus/i2c/devices" / ("i2c-" + std::to_string(number)) / "of_node/clock-frequency",
                 longestAttribute, bytes));
    for (const std::uint8_t byte : bytes) {
        hertz = hertz << 8 | byte;
    }
    return bytes.size() == cellBytes ? hertz : 0;
}

std::uint64_t systemCalls::nowNs()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

void systemCalls::pause(std::uint64_t nanoseconds)
{
    std::this_thread::sleep_for(std::chrono::nanoseconds(nanoseconds));
}

void useSystemCalls(systemCalls* calls) { chosen = calls != nullptr ? calls : &kernel; }

systemCalls& chosenSystemCalls() { return *chosen.load(); }

} // namespace kest::host::iic
