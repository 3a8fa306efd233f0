#include "platform/host/errorlog/waiting.h"

#include <atomic>
#include <cerrno>
#include <thread>

namespace kest::host
{

namespace
{

constexpr std::chrono::microseconds lockPause{500};

constexpr waitingClock systemClock{
    [] { return std::chrono::steady_clock::now(); },
    [](std::chrono::microseconds length) { std::this_thread::sleep_for(length); },
};

std::atomic<const waitingClock*> currentClock{&systemClock};

} // namespace

void useWaitingClock(const waitingClock* clock) { currentClock = clock != nullptr ? clock : &systemClock; }

std::chrono::steady_clock::time_point waitingNow() { return currentClock.load()->now(); }

patience patience::less(std::chrono::milliseconds length) const
{
    patience shorter = *this;
    if (shorter.m_until != std::chrono::steady_clock::time_point::min()) {
        shorter.m_until -= length;
    }
    return shorter;
}

bool patience::pause(std::chrono::microseconds length) const
{
    const bool waits = !over();
    if (waits) {
        currentClock.load()->pause(length);
    }
    return waits;
}

patientLock::patientLock(const std::filesystem::path& file, const patience& wait)
{
    do {
        m_lock.emplace(file, std::chrono::milliseconds(0));
    } while (m_lock->error() == ETIMEDOUT && wait.pause(lockPause));
}

} // namespace kest::host
