// SPDX-License-Identifier: Apache-2.0
// Records how long threads ask to sleep and to be waited for, so that no test has to judge it by
// the clock. Programs that link capture_pauses have QThread::usleep and QThread::wait recorded
// wherever their own code calls them.
#pragma once

#include <functional>
#include <map>
#include <thread>
#include <vector>

namespace pauses {

/// How often each length has been slept, µs.
using Counts = std::map<unsigned long, int>;

/// Forgets everything so far.
void reset();

/// Sleeps of one thread.
Counts ofThread(std::thread::id thread);

/// Sleeps of all threads but the calling one.
Counts ofOtherThreads();

/// Called at every sleep by the thread that sleeps; null to stop.
void onSleep(std::function<void(unsigned long microseconds)> function);

/// Limits of QThread::wait, ms, in the order of the calls.
std::vector<unsigned long> waits();

}  // namespace pauses
