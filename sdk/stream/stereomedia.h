// SPDX-License-Identifier: Apache-2.0
// The media that clients of a sender receive: coded video and the data stream.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <memory>

#include "sdk/core/glibptr.h"
#include "sdk/rig/rig.h"
#include "sdk/stream/encoders.h"
#include "sdk/stream/streamfeed.h"

namespace tq::stream {

/// RTP synchronisation source of the video stream: the virtual serial number.
inline std::uint32_t videoSsrc(std::uint32_t serial)
{
    return serial;
}

/// RTP synchronisation source of the data stream.
inline std::uint32_t dataSsrc(std::uint32_t serial)
{
    return serial ^ 0x80000000u;
}

/// Makes the factory of one stream's media. All clients share one media; it exists only while
/// somebody is connected to it.
/// @param feed gets told which media to feed; its identity goes into the session description
GObjectPtr<GstRTSPMediaFactory> makeStereoMediaFactory(const EncoderChoice& encoder,
                                                       const rig::StreamSettings& settings,
                                                       const std::shared_ptr<StreamFeed>& feed);

}  // namespace tq::stream
