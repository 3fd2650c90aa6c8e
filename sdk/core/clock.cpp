// SPDX-License-Identifier: Apache-2.0
// CLOCK_REALTIME, with sleeps that survive a clock that is set meanwhile.
#include "sdk/core/clock.h"

#include <algorithm>
#include <ctime>

namespace tq {

namespace {

constexpr Timestamp kSecond = 1000000000;
// Longest time that a stop or a set clock goes unnoticed.
constexpr Timestamp kSlice = 10000000;

class SystemClock : public Clock {
public:
    Timestamp now() const override
    {
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<Timestamp>(time.tv_sec) * kSecond + static_cast<Timestamp>(time.tv_nsec);
    }

    Wake sleepUntil(Timestamp instant, const std::atomic<bool>& stop) const override
    {
        Timestamp farthest = instant + kSecond;  // remaining time plus tolerance
        for (Timestamp time = now(); time < instant; time = now()) {
            if (stop.load(std::memory_order_relaxed)) {
                return Wake::STOPPED;
            }
            if (instant - time > farthest) {
                return Wake::SET_BACK;
            }
            farthest = instant - time + kSecond;
            const Timestamp next = std::min(instant, time + kSlice);
            timespec until{};
            until.tv_sec = static_cast<time_t>(next / kSecond);
            until.tv_nsec = static_cast<long>(next % kSecond);
            clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr);
        }
        return stop.load(std::memory_order_relaxed) ? Wake::STOPPED : Wake::REACHED;
    }
};

}  // namespace

const Clock& systemClock()
{
    static const SystemClock clock;
    return clock;
}

}  // namespace tq
