// SPDX-License-Identifier: Apache-2.0
// Which images belong together, and what is said when none do.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

/// Whether two images are taken at the same moment: at most 5000 µs apart.
/// @param leftTimeUs,rightTimeUs capture times, µs
bool isPair(std::int64_t leftTimeUs, std::int64_t rightTimeUs);

/// Right capture time less left capture time of the two that are closest, µs; none when there is no
/// left one or no right one.
/// @param leftUs,rightUs capture times, µs, in any order
std::optional<std::int64_t> nearestOffset(std::vector<std::int64_t> leftUs,
                                          std::vector<std::int64_t> rightUs);

/// Says once why a stream has had no pair for two seconds, and once that it has pairs again.
/// One thread.
class PairReport {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// What there has been since the stream began.
    struct Counts {
        std::uint64_t left = 0;   ///< images
        std::uint64_t right = 0;  ///< images
        std::uint64_t pairs = 0;
    };
    /// What a look finds.
    enum class News {
        None,
        LeftSilent,   ///< no pair, and no image of the left camera either
        RightSilent,  ///< the same of the right one
        BothSilent,
        Apart,  ///< both cameras deliver, but no pair
        Again   ///< pairs come again
    };

    /// A stream begins.
    void start(Time now, const Counts& counts);

    /// Each fact is told once.
    News look(Time now, const Counts& counts);

    /// The fact that was told cannot be true yet: the next look may tell it.
    void retract() { told = false; }

    /// How long there was no pair before the last look that told "Again".
    std::chrono::milliseconds gap() const { return lastGap; }

private:
    Counts known;
    Time lastLeft;   // when the last left image was noticed
    Time lastRight;  // when the last right image was noticed
    Time lastPair;
    bool told = false;
    std::chrono::milliseconds lastGap{0};
};
