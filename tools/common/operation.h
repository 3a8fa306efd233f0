/// One operation of a program on a device: what others are told about it, and the lock that keeps them off.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/iic/operationlock.h"
#include "tools/common/devicetext.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/json.h"

namespace kest::tools
{

using host::iic::operationLock;
using host::iic::operationRecord;
using host::iic::operationUse;

/// How long others are waited for, unless the user says otherwise.
constexpr std::uint64_t usualWaitNs = 30'000'000'000;

struct operationRequest {
    operationUse use = operationUse::read;
    std::string doing; ///< "seeprom write"
    std::uint64_t waitNs = usualWaitNs; ///< 0: not at all
};

/// Holds devices for an operation that uses their hardware. Reads share a device, a write has it alone. Signals are
/// watched meanwhile.
class deviceOperation
{
public:
    /// Waits for others, with one line on standard error that says for whom; a signal ends that. A device whose bus
    /// can't be opened is not held: using it fails with the reason. Throws a `failure`: 6 when others still have a
    /// device, 3 when the user may not lock it, an interruption().
    /// @param devices  all that the operation uses; two programs that use the same never wait for each other
    deviceOperation(const std::vector<device>& devices, const operationRequest& request);
    deviceOperation(const device& which, const operationRequest& request)
        : deviceOperation(std::vector<device>{which}, request)
    {
    }

private:
    interruptWatch m_watch;
    std::vector<std::unique_ptr<operationLock>> m_locks;
};

/// Has a device for one step, such as a transfer. A signal that came before the step ends the command without it, one
/// that comes meanwhile ends it behind the step: throws an interruption().
/// @param notDone, done  what the interruption says in these cases, such as "; nothing was written"; may be empty
void whileHeld(const device& which, const operationRequest& request, const std::function<void()>& step,
               const std::string& notDone = {}, const std::string& done = {});

/// @return the lock of a device; null when its bus can't be opened
[[nodiscard]] std::unique_ptr<operationLock> operationLockOf(const device& which, operationUse use);

/// "kestctl seeprom write on planar-vpd (process 123 of root) since 2024-05-01T12:00:00.250Z"; of several the first,
/// and how many more. Not escaped.
[[nodiscard]] std::string holderText(const std::vector<operationRecord>& holders);
[[nodiscard]] jsonValue holdersJson(const std::vector<operationRecord>& holders);

/// The failure for a lock that the user can't have. @param error  as operationLock::attempt() returns it
[[nodiscard]] failure lockFailure(int error, const operationLock& lock, const device& which);

} // namespace kest::tools
