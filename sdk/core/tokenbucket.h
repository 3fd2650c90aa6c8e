// SPDX-License-Identifier: Apache-2.0
// A limit on how much of something happens in how much time.
#pragma once

#include <algorithm>
#include <chrono>

namespace tq {

/// Holds so many tokens at most and gains so many per second; it begins full. One thread at a time.
class TokenBucket {
public:
    using Time = std::chrono::steady_clock::time_point;

    TokenBucket(double mostTokens, double tokensPerSecond, Time now)
        : capacity(mostTokens), rate(tokensPerSecond), tokens(mostTokens), filled(now)
    {
    }

    /// Takes all of the amount or nothing.
    bool take(double amount, Time now)
    {
        const std::chrono::duration<double> passed = now - filled;
        tokens = std::min(capacity, tokens + rate * passed.count());
        filled = now;
        if (amount > tokens) {
            return false;
        }
        tokens -= amount;
        return true;
    }

private:
    const double capacity;
    const double rate;
    double tokens;
    Time filled;
};

}  // namespace tq
