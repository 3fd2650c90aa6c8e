// SPDX-License-Identifier: Apache-2.0
// The clock that camera sources live by; exchangeable so that tests need not wait.
#pragma once

#include <atomic>

#include "tq_kor/types.h"

namespace tq {

/// How a sleep ended.
enum class Wake {
    REACHED,   ///< the instant has come
    STOPPED,   ///< the stop flag was set
    SET_BACK,  ///< the clock was set back by more than a second
};

/// A real-time clock in nanoseconds. Thread safe.
class Clock {
public:
    virtual ~Clock() = default;

    virtual Timestamp now() const = 0;

    /// Sleeps until an instant, or until @p stop is seen, which takes some milliseconds.
    virtual Wake sleepUntil(Timestamp instant, const std::atomic<bool>& stop) const = 0;
};

/// CLOCK_REALTIME.
const Clock& systemClock();

}  // namespace tq
