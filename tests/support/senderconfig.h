// SPDX-License-Identifier: Apache-2.0
// The sender's configuration as the program fills it, for tests and conformance suite alike.
#pragma once

#include <cstdint>
#include <cstring>

#include "capture/sdk.h"

/// @param eyeWidth,eyeHeight pixels
/// @param imuRate            packets per second announced, 0: no IMU data
inline tq::UDPOutConfig programsSenderConfig(int port, int eyeWidth, int eyeHeight, int serial,
                                             int fps, int imuRate)
{
    tq::UDPOutConfig config;
    std::memset(&config, 0, sizeof config);
    config.layout = 1;
    config.port = static_cast<std::uint16_t>(port);
    config.bitrate = 20000;
    config.keyFrameInterval = 120;
    config.chunkSize = 16000;
    config.width = eyeWidth;
    config.height = eyeHeight;
    config.fps = fps;
    config.serialNumber = serial;
    config.deviceVersion = 1523;
    config.imuRate = imuRate;
    config.modelCode = 11;
    config.eyes = 2;
    return config;
}
