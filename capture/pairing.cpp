// SPDX-License-Identifier: Apache-2.0
// Which images belong together, and what is said when none do.
#include "capture/pairing.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr std::int64_t kMaxPairDistanceUs = 5000;
constexpr std::chrono::seconds kNoPair{2};
// Shorter than the above: a camera may deliver a little longer than its partner.
constexpr std::chrono::milliseconds kSilence{1500};

}  // namespace

bool isPair(std::int64_t leftTimeUs, std::int64_t rightTimeUs)
{
    const std::int64_t distance = rightTimeUs - leftTimeUs;
    return distance <= kMaxPairDistanceUs && distance >= -kMaxPairDistanceUs;
}

std::optional<std::int64_t> nearestOffset(std::vector<std::int64_t> leftUs,
                                          std::vector<std::int64_t> rightUs)
{
    std::sort(leftUs.begin(), leftUs.end());
    std::sort(rightUs.begin(), rightUs.end());
    std::optional<std::int64_t> nearest;
    auto left = leftUs.cbegin();
    auto right = rightUs.cbegin();
    while (left != leftUs.cend() && right != rightUs.cend()) {
        const std::int64_t offset = *right - *left;
        if (!nearest || std::abs(offset) < std::abs(*nearest)) {
            nearest = offset;
        }
        offset < 0 ? ++right : ++left;
    }
    return nearest;
}

void PairReport::start(Time now, const Counts& counts)
{
    known = counts;
    lastLeft = lastRight = lastPair = now;
    told = false;
}

PairReport::News PairReport::look(Time now, const Counts& counts)
{
    const auto note = [now](std::uint64_t& before, std::uint64_t count, Time& last) {
        if (count != before) {
            before = count;
            last = now;
        }
    };
    note(known.left, counts.left, lastLeft);
    note(known.right, counts.right, lastRight);
    const Time formerPair = lastPair;
    note(known.pairs, counts.pairs, lastPair);
    if (told && lastPair != formerPair) {
        told = false;
        lastGap = std::chrono::duration_cast<std::chrono::milliseconds>(now - formerPair);
        return News::Again;
    }
    if (told || now - lastPair < kNoPair) {
        return News::None;
    }
    told = true;
    const bool leftSilent = now - lastLeft >= kSilence;
    const bool rightSilent = now - lastRight >= kSilence;
    if (leftSilent && rightSilent) {
        return News::BothSilent;
    }
    return leftSilent ? News::LeftSilent : rightSilent ? News::RightSilent : News::Apart;
}
