// SPDX-License-Identifier: Apache-2.0
// The picture that a sender encodes.
#pragma once

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

}  // namespace tq::stream
