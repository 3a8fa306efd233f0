/// How long the error log waits for others, and by which clock.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "base/filelock.h"

namespace kest::host
{

struct waitingClock {
    std::chrono::steady_clock::time_point (*now)();
    void (*pause)(std::chrono::microseconds length);
};

/// Has everything in the error log wait by another clock; null gives it the system's back. For tests, while nothing
/// waits.
void useWaitingClock(const waitingClock* clock);

std::chrono::steady_clock::time_point waitingNow();

/// A moment until which somebody waits.
class patience
{
public:
    /// None at all: what is tried is tried once.
    patience() = default;
    explicit patience(std::chrono::milliseconds length) : m_until(waitingNow() + length) {}

    /// @return the same, but over so much earlier
    [[nodiscard]] patience less(std::chrono::milliseconds length) const;
    [[nodiscard]] bool over() const { return waitingNow() >= m_until; }
    /// Pauses, unless it is over. @return whether it paused
    bool pause(std::chrono::microseconds length) const; // NOLINT(modernize-use-nodiscard): some only pause

private:
    std::chrono::steady_clock::time_point m_until = std::chrono::steady_clock::time_point::min();
};

/// A lock on a file, waited for with patience. It is tried at least once.
class patientLock
{
public:
    patientLock(const std::filesystem::path& file, const patience& wait);
    /// @return 0 when the lock is held, ETIMEDOUT when another held it all the time, else why its file could not be
    /// opened
    [[nodiscard]] int error() const { return m_lock->error(); }

private:
    std::optional<fileLock> m_lock;
};

} // namespace kest::host
