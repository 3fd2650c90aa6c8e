// SPDX-License-Identifier: Apache-2.0
// The lines that a server logs about its connections, limited in number.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "sdk/core/tokenbucket.h"

namespace tq::stream {

/// Passes 20 lines at once and then one per second on, counts the others, and says how many there
/// were: strangers decide how often they connect, and must not fill a disk with it. Any thread.
class ConnectionLog {
public:
    using Time = TokenBucket::Time;

    /// @param write takes what is passed on
    ConnectionLog(std::function<void(const std::string&)> write, Time now);

    void line(const std::string& text, Time now);

    /// Says what was left out since the last time, if that is due. To be called now and then.
    void catchUp(Time now);

private:
    bool reportLeftOut(Time now);

    const std::function<void(const std::string&)> pass;
    std::mutex mutex;
    TokenBucket allowance;
    std::uint64_t leftOut = 0;
};

}  // namespace tq::stream
