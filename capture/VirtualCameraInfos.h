// SPDX-License-Identifier: Apache-2.0
// One virtual stereo camera, as configured by the operator.
#pragma once

#include <cstdint>

/// Record of one virtual stereo camera; copied by value.
struct VirtualCameraInfos {
    std::uint64_t virtualSerialNumber = 0;  ///< serial under which the joined stream is announced
    std::uint64_t leftSerialNumber = 0;     ///< physical serial of the left eye
    std::uint64_t rightSerialNumber = 0;    ///< physical serial of the right eye
    bool imu = false;                       ///< stream IMU data with the images
    std::int32_t width = 0;                 ///< width of one eye, pixels
    std::int32_t height = 0;                ///< height of one eye, pixels
    std::int32_t fps = 0;                   ///< frames per second
    std::uint32_t port = 0;                 ///< network port of the stream
    std::int32_t hdr = 0;                   ///< HDR mode: 0 = off, else on
    bool reserved = false;                  ///< false in every record; not stored in the file
};
