// SPDX-License-Identifier: Apache-2.0
// Bounded history of a camera's IMU packets.
#pragma once

#include <deque>
#include <list>
#include <mutex>
#include <vector>

#include "sdk/imu/imusource.h"

namespace tq {

/// Packets of the last ten seconds. Thread safe.
class ImuHistory {
public:
    static constexpr Timestamp kKept = 10000000000;  ///< ns

    /// @param opened packets begin with the last one that is not after this instant
    ImuHistory(ImuSource source, Timestamp opened);

    /// Takes in what was measured up to an instant. Follows a clock that was set back.
    void advance(Timestamp to);

    /// Packets with from < timestamp <= to, oldest first; those not yet taken in are, up to
    /// @p now.
    std::list<IMUPacket> between(Timestamp from, Timestamp to, Timestamp now);

    /// Latest packet that is not after an instant; all zero when there is none.
    IMUPacket latest(Timestamp at) const;

private:
    void begin(Timestamp at);
    void takeIn(Timestamp to);

    const ImuSource source;
    mutable std::mutex mutex;
    std::deque<IMUPacket> packets;
    std::vector<IMUPacket> fresh;  // kept for its memory
    Timestamp takenIn = 0;
    std::uint64_t sequence = 0;
};

}  // namespace tq
