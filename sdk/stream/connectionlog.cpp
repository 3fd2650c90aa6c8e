// SPDX-License-Identifier: Apache-2.0
// Counting of log lines that come too fast.
#include "sdk/stream/connectionlog.h"

#include <utility>

namespace tq::stream {

namespace {

constexpr double kLinesAtOnce = 20;
constexpr double kLinesPerSecond = 1;

}  // namespace

ConnectionLog::ConnectionLog(std::function<void(const std::string&)> write, Time now)
    : pass(std::move(write)), allowance(kLinesAtOnce, kLinesPerSecond, now)
{
}

void ConnectionLog::line(const std::string& text, Time now)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (reportLeftOut(now) && allowance.take(1, now)) {
        pass(text);
    } else {
        ++leftOut;
    }
}

void ConnectionLog::catchUp(Time now)
{
    const std::lock_guard<std::mutex> lock(mutex);
    reportLeftOut(now);
}

// What is left out is said before anything that came later.
bool ConnectionLog::reportLeftOut(Time now)
{
    if (leftOut > 0 && allowance.take(1, now)) {
        pass(std::to_string(leftOut) + " lines about clients were left out");
        leftOut = 0;
    }
    return leftOut == 0;
}

}  // namespace tq::stream
