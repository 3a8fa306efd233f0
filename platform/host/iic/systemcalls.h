/// The system calls under a Linux bus, so that tests can stand in for the kernel.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include <sys/stat.h>

#include "platform/host/iic/sysfs.h"

namespace kest::host::iic
{

/// All return -1 with `errno` on failure, as the calls they stand for.
class systemCalls
{
public:
    /// @param devices  where the kernel shows its devices
    explicit systemCalls(std::filesystem::path devices = "/sys") : m_sysfs(std::move(devices)) {}
    virtual ~systemCalls() = default;
    virtual int openNode(const char* path, int flags);
    virtual int closeNode(int descriptor);
    virtual int statNode(int descriptor, struct stat& about);
    /// @param argument  a number or an address, as the request takes it
    virtual int control(int descriptor, unsigned long request, std::uintptr_t argument);
    /// The kernel's name of adapter `number`; empty when it is not known.
    virtual std::string adapterName(unsigned int number);
    /// The clock of adapter `number` as the device tree has it, Hz; 0 when it has none.
    virtual std::uint32_t adapterClockHz(unsigned int number);
    virtual std::uint64_t nowNs(); ///< CLOCK_MONOTONIC
    virtual void pause(std::uint64_t nanoseconds);

private:
    sysfs m_sysfs;
};

/// Chooses the calls of the buses that are opened from now on.
/// @param calls  null: the kernel's. Owned by the caller; outlives those buses.
void useSystemCalls(systemCalls* calls);
systemCalls& chosenSystemCalls();

} // namespace kest::host::iic
