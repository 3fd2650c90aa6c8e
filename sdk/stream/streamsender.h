// SPDX-License-Identifier: Apache-2.0
// One stereo stream from the application's frames to the network.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sdk/stream/streamfeed.h"
#include "sdk/stream/streamserver.h"
#include "tq_kor/types.h"

namespace tq::stream {

/// What stands behind UDPOutput; see there for the rules of threads.
class StreamSender {
public:
    /// @param logStates log clients and totals too; failures and dropped frames are always logged
    explicit StreamSender(bool logStates);
    ~StreamSender();
    StreamSender(const StreamSender&) = delete;
    StreamSender& operator=(const StreamSender&) = delete;

    /// Checks the configuration, finds an encoder and serves. A failure is logged with its reason.
    ErrorCode open(const UDPOutConfig& config);

    void ingestFrame(const std::uint8_t* yuyv, Timestamp timestamp,
                     const kvfrw::kvfSampleMetadata& metadata);
    void ingestIMU(const IMUPacket& packet);
    void close();

    /// Counts since the opening; all zero while closed.
    SenderStatistics statistics() const;

private:
    ErrorCode start(const UDPOutConfig& config, std::string& reason);

    const bool verbose;
    std::string name;
    std::shared_ptr<StreamFeed> feed;
    std::unique_ptr<StreamServer> server;
};

}  // namespace tq::stream
