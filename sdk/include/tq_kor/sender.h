// SPDX-License-Identifier: Apache-2.0
// Network sender of one stereo stream.
#pragma once

#include <memory>

#include "tq_kor/types.h"

namespace tq {

/// Sends side-by-side frames and IMU packets to the network.
///
/// Thread safe: frames and IMU packets may be ingested on different threads. close() and the
/// destructor must not run at the same time as any other call.
class TQ_KOR_API UDPOutput {
public:
    /// @param mode    STREAMING_MODE::LIVE
    /// @param verbose log the state of the stream
    UDPOutput(STREAMING_MODE mode, bool verbose);
    ~UDPOutput();
    UDPOutput(const UDPOutput&) = delete;
    UDPOutput& operator=(const UDPOutput&) = delete;

    /// Starts to serve the stream.
    /// @return 0, else the number of an ErrorCode; the reason is logged
    int open(UDPOutConfig config);

    /// Takes one frame; never blocks on encoding or on the network.
    /// @param yuyv      packed YUYV, (2 × eye width) × eye height × 2 bytes, left eye first in
    ///                  every row; copied before the call returns
    /// @param timestamp capture time of the left eye
    /// @param metadata  sent with the frame
    void ingestYUVFrame(unsigned char* yuyv, Timestamp timestamp,
                        kvfrw::kvfSampleMetadata metadata);

    /// Takes one IMU packet. Packets whose timestamp is 0 are ignored.
    void ingestIMU(IMUPacket packet);

    /// Stops serving: clients are disconnected and the port is free when the call returns.
    void close();

private:
    struct TQ_KOR_PRIVATE Private;
    std::unique_ptr<Private> d;
};

}  // namespace tq
