// SPDX-License-Identifier: Apache-2.0
// The linker sends the calls through here (--wrap), hence the names of the functions.
#include "tests/capture/pauses.h"

#include <QThread>
#include <mutex>
#include <utility>

namespace {

struct Record {
    std::mutex mutex;
    std::map<std::thread::id, pauses::Counts> sleeps;
    std::vector<unsigned long> waits;
    std::function<void(unsigned long)> onSleep;
};

Record& all()
{
    static Record record;
    return record;
}

}  // namespace

namespace pauses {

void reset()
{
    const std::lock_guard<std::mutex> lock(all().mutex);
    all().sleeps.clear();
    all().waits.clear();
}

Counts ofThread(std::thread::id thread)
{
    const std::lock_guard<std::mutex> lock(all().mutex);
    return all().sleeps[thread];
}

Counts ofOtherThreads()
{
    const std::lock_guard<std::mutex> lock(all().mutex);
    Counts sum;
    for (const auto& [thread, counts] : all().sleeps) {
        if (thread == std::this_thread::get_id()) {
            continue;
        }
        for (const auto& [microseconds, count] : counts) {
            sum[microseconds] += count;
        }
    }
    return sum;
}

void onSleep(std::function<void(unsigned long)> function)
{
    const std::lock_guard<std::mutex> lock(all().mutex);
    all().onSleep = std::move(function);
}

std::vector<unsigned long> waits()
{
    const std::lock_guard<std::mutex> lock(all().mutex);
    return all().waits;
}

}  // namespace pauses

extern "C" {

// NOLINTBEGIN(readability-identifier-naming, bugprone-reserved-identifier)
void __real__ZN7QThread6usleepEm(unsigned long microseconds);
bool __real__ZN7QThread4waitEm(QThread* self, unsigned long milliseconds);

void __wrap__ZN7QThread6usleepEm(unsigned long microseconds)
{
    std::function<void(unsigned long)> function;
    {
        const std::lock_guard<std::mutex> lock(all().mutex);
        ++all().sleeps[std::this_thread::get_id()][microseconds];
        function = all().onSleep;
    }
    if (function) {
        function(microseconds);
    }
    __real__ZN7QThread6usleepEm(microseconds);
}

bool __wrap__ZN7QThread4waitEm(QThread* self, unsigned long milliseconds)
{
    {
        const std::lock_guard<std::mutex> lock(all().mutex);
        all().waits.push_back(milliseconds);
    }
    return __real__ZN7QThread4waitEm(self, milliseconds);
}
// NOLINTEND(readability-identifier-naming, bugprone-reserved-identifier)

}  // extern "C"
