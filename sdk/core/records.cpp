// SPDX-License-Identifier: Apache-2.0
// Names of models and results, and the conversion between records.
#include "tq_kor/types.h"

#include <algorithm>
#include <iterator>

namespace tq {

String toString(const MODEL& model)
{
    switch (model) {
        case MODEL::KOR_T: return String("KOR T");
        case MODEL::KOR_T_MINI: return String("KOR T Mini");
        case MODEL::KOR_TSOLO_GS: return String("KOR T Solo GS");
        case MODEL::KOR_TSOLO_UHD: return String("KOR T Solo UHD");
        case MODEL::LAST: break;
    }
    return String("N/A");
}

String toString(ErrorCode code)
{
    switch (code) {
        case ErrorCode::SUCCESS: return String("success");
        case ErrorCode::CAMERA_NOT_FOUND: return String("no camera with this id");
        case ErrorCode::CAMERA_BUSY: return String("the camera is used by another process");
        case ErrorCode::CAMERA_LOCK_FAILED:
            return String("the camera's lock file cannot be created");
        case ErrorCode::INVALID_RESOLUTION: return String("invalid size or frame rate");
        case ErrorCode::SOURCE_UNAVAILABLE: return String("the camera's source cannot be opened");
        case ErrorCode::SOURCE_INVALID:
            return String("the camera's source delivers no usable video");
        case ErrorCode::INVALID_RIG: return String("the rig description is not usable");
        case ErrorCode::ALREADY_OPEN: return String("already open");
        case ErrorCode::INVALID_CONFIGURATION:
            return String("the stream's configuration is invalid");
        case ErrorCode::PORT_TAKEN: return String("the port is already in use");
        case ErrorCode::NO_ENCODER: return String("no video encoder is available");
        case ErrorCode::SERVER_FAILED: return String("the stream server cannot be started");
    }
    return String("unknown error");
}

namespace kvfrw {

void convertMetadataFromMCUData(kvfSampleMetadata& metadata, IMUPacket packet)
{
    metadata.imuTimestamp = packet.timestamp;
    metadata.imuSequence = packet.sequence;
    std::copy(std::begin(packet.acceleration), std::end(packet.acceleration),
              std::begin(metadata.acceleration));
    std::copy(std::begin(packet.angularRate), std::end(packet.angularRate),
              std::begin(metadata.angularRate));
    std::copy(std::begin(packet.magneticField), std::end(packet.magneticField),
              std::begin(metadata.magneticField));
    std::copy(std::begin(packet.orientation), std::end(packet.orientation),
              std::begin(metadata.orientation));
    metadata.temperature = packet.temperature;
    metadata.pressure = packet.pressure;
    metadata.validFields = packet.validFields;
}

}  // namespace kvfrw
}  // namespace tq
