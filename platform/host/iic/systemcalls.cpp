#include "platform/host/iic/systemcalls.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/descriptor.h"

namespace kest::host::iic
{
namespace
{

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

std::string systemCalls::adapterName(unsigned int number) { return m_sysfs.adapterName(number); }

std::uint32_t systemCalls::adapterClockHz(unsigned int number) { return m_sysfs.adapterClockHz(number); }

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
