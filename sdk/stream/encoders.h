// SPDX-License-Identifier: Apache-2.0
// The picture that a sender encodes, and the encoder that does it on this machine.
#pragma once

#include <gst/video/video.h>

#include <optional>
#include <string>

#include "sdk/rig/rig.h"

namespace tq::stream {

enum class Codec { H264, H265 };

/// Display name, "H.264" or "H.265".
inline const char* toString(Codec codec)
{
    return codec == Codec::H264 ? "H.264" : "H.265";
}

/// A side-by-side picture and how it is to be encoded.
struct VideoFormat {
    int width = 0;             ///< pixels of both eyes together, even
    int height = 0;            ///< pixels
    int fps = 0;               ///< nominal frames per second
    int bitrate = 0;           ///< kbit/s
    int keyFrameInterval = 0;  ///< frames

    /// Rows that are encoded: 4:2:0 needs an even number, an odd last row is sent twice.
    int codedHeight() const { return height + height % 2; }
};

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
