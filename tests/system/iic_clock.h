/// A clock for waits for locks, which only their pauses move.
#pragma once

#include <chrono>
#include <functional>

#include "platform/host/iic/locks.h"

namespace kest::test
{

class DrivenClock : public host::iic::lockClock
{
public:
    DrivenClock() { host::iic::useLockClock(this); }
    DrivenClock(const DrivenClock&) = delete;
    DrivenClock& operator=(const DrivenClock&) = delete;
    ~DrivenClock() override { host::iic::useLockClock(nullptr); }

    std::chrono::nanoseconds now() override { return m_now; }
    void pause(std::chrono::nanoseconds time) override
    {
        m_now += time;
        ++pauses;
        if (inPause) {
            inPause(pauses);
        }
    }

    int pauses = 0;
    std::function<void(int)> inPause; ///< called in each pause with the number of pauses so far

private:
    std::chrono::nanoseconds m_now{1};
};

} // namespace kest::test
