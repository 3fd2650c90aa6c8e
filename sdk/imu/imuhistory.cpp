// SPDX-License-Identifier: Apache-2.0
// Bounded history of a camera's IMU packets.
#include "sdk/imu/imuhistory.h"

#include <algorithm>
#include <utility>

namespace tq {

namespace {

// A frame this much older than the newest packet means that the clock was set back.
constexpr Timestamp kSetBack = 1000000000;

// The slowest units measure once a second.
constexpr Timestamp kLongestPeriod = 1000000000;

bool isAfter(Timestamp time, const IMUPacket& packet)
{
    return time < packet.timestamp;
}

}  // namespace

ImuHistory::ImuHistory(ImuSource imuSource, Timestamp opened) : source(std::move(imuSource))
{
    begin(opened);
}

// A unit measures before anyone looks. Its last packet is that of the first frames, which may
// come before the next one.
void ImuHistory::begin(Timestamp at)
{
    packets.clear();
    fresh.clear();
    source(at > kLongestPeriod ? at - kLongestPeriod : 0, at, fresh);
    if (!fresh.empty()) {
        fresh.back().sequence = sequence++;
        packets.push_back(fresh.back());
    }
    takenIn = at;
}

void ImuHistory::takeIn(Timestamp to)
{
    if (to <= takenIn) {
        return;
    }
    fresh.clear();
    source(to - takenIn > kKept ? to - kKept : takenIn, to, fresh);
    takenIn = to;
    for (IMUPacket& packet : fresh) {
        packet.sequence = sequence++;
        packets.push_back(packet);
    }
    while (!packets.empty() && packets.front().timestamp + kKept < to) {
        packets.pop_front();
    }
}

void ImuHistory::advance(Timestamp to)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (to + kSetBack < takenIn) {
        begin(to);
    }
    takeIn(to);
}

std::list<IMUPacket> ImuHistory::between(Timestamp from, Timestamp to, Timestamp now)
{
    const std::lock_guard<std::mutex> lock(mutex);
    takeIn(std::min(to, now));
    const auto first = std::upper_bound(packets.begin(), packets.end(), from, isAfter);
    const auto last = std::upper_bound(first, packets.end(), to, isAfter);
    return {first, last};
}

IMUPacket ImuHistory::latest(Timestamp at) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto next = std::upper_bound(packets.begin(), packets.end(), at, isAfter);
    return next == packets.begin() ? IMUPacket{} : *std::prev(next);
}

}  // namespace tq
