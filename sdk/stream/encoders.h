// SPDX-License-Identifier: Apache-2.0
// Finds a video encoder that works on this machine.
#pragma once

#include <gst/video/video.h>

#include <optional>
#include <string>

#include "sdk/rig/rig.h"
#include "sdk/stream/videoformat.h"

namespace tq::stream {

/// An encoder that has proved itself.
struct EncoderChoice {
    std::string element;                                    ///< name of the GStreamer element
    Codec codec = Codec::H264;                              ///< what it makes
    GstVideoFormat inputFormat = GST_VIDEO_FORMAT_UNKNOWN;  ///< what it is fed with
    std::string description;  ///< launch line from raw video to coded video; the encoder's name in
                              ///< it is "encoder"
};

/// Raw video as the encoder is fed with it.
GstVideoInfo inputInfo(const VideoFormat& format, GstVideoFormat pixelFormat);

/// Takes the first encoder of the preference list that codes a picture of this very size: Jetson
/// hardware, VA-API, x264, OpenH264; pictures wider than 4096 columns prefer H.265 hardware.
/// What a trial shows is kept for the life of the process; one that times out shows nothing. Any
/// thread; takes up to some seconds.
/// @param codec   restricts the list
/// @param element restricts the list to one element; empty: no restriction
/// @param reason  filled when there is none
std::optional<EncoderChoice> chooseEncoder(const VideoFormat& format, rig::CodecChoice codec,
                                           const std::string& element, std::string& reason);

}  // namespace tq::stream
