// SPDX-License-Identifier: Apache-2.0
// The network sender: checks its configuration and joins encoder, feed and server.
#include "sdk/stream/streamsender.h"

#include <gst/gst.h>

#include <cstdlib>
#include <limits>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/rig/currentrig.h"
#include "sdk/stream/certificate.h"
#include "sdk/stream/encoders.h"
#include "sdk/stream/stereomedia.h"
#include "tq_kor/sender.h"

namespace tq::stream {

namespace {

constexpr double kBytesPerKilobit = 125;
constexpr int kDefaultBitrate = 20000;         // kbit/s
constexpr int kDefaultKeyFrameInterval = 120;  // frames
// What H.264 level 6 and H.265 level 6 can describe, less a margin.
constexpr int kLargestEye = 8192;
constexpr int kSmallestEye = 16;
constexpr int kHighestRate = 1000;

/// Why this configuration makes no sense, or empty.
std::string objection(const UDPOutConfig& config)
{
    constexpr int kAny = std::numeric_limits<std::int32_t>::max();
    struct Range {
        const char* what;
        int value;
        int least;
        int most;
    };
    for (const Range& range : {
             Range{"layout", config.layout, 1, 1},
             Range{"number of eyes", config.eyes, 2, 2},
             Range{"port", config.port, 1, 65535},
             Range{"eye width", config.width, kSmallestEye, kLargestEye},
             Range{"eye height", config.height, kSmallestEye, kLargestEye},
             Range{"frame rate", config.fps, 1, kHighestRate},
             Range{"bit rate", config.bitrate, 0, 1000000},
             Range{"key-frame interval", config.keyFrameInterval, 0, kAny},
             Range{"IMU rate", config.imuRate, 0, kAny},
         }) {
        if (range.value < range.least || range.value > range.most) {
            return std::string(range.what) + " is " + std::to_string(range.value) + ", must be " +
                   std::to_string(range.least) + " to " + std::to_string(range.most);
        }
    }
    return {};
}

int firstPositive(int a, int b, int c)
{
    return a > 0 ? a : (b > 0 ? b : c);
}

VideoFormat videoFormat(const UDPOutConfig& config, const rig::StreamSettings& settings)
{
    VideoFormat format;
    format.width = config.width * config.eyes;
    format.height = config.height;
    format.fps = config.fps;
    format.bitrate = firstPositive(settings.bitrate, config.bitrate, kDefaultBitrate);
    format.keyFrameInterval =
        firstPositive(settings.keyFrameInterval, config.keyFrameInterval, kDefaultKeyFrameInterval);
    return format;
}

FrameRecord identityOf(const UDPOutConfig& config)
{
    FrameRecord identity;
    identity.serial = static_cast<std::uint32_t>(config.serialNumber);
    identity.layout = static_cast<std::uint16_t>(config.layout);
    identity.eyes = static_cast<std::uint16_t>(config.eyes);
    identity.eyeWidth = static_cast<std::uint32_t>(config.width);
    identity.eyeHeight = static_cast<std::uint32_t>(config.height);
    identity.fps = static_cast<std::uint32_t>(config.fps);
    identity.imuRate = static_cast<std::uint32_t>(config.imuRate);
    identity.deviceVersion = static_cast<std::uint32_t>(config.deviceVersion);
    identity.modelCode = static_cast<std::uint32_t>(config.modelCode);
    return identity;
}

/// Where clients find the stream.
std::string address(const rig::StreamSettings& settings, std::uint16_t port)
{
    const bool six = settings.bindAddress.find(':') != std::string::npos;
    return (settings.certificate.empty() ? "rtsp://" : "rtsps://") + std::string(six ? "[" : "") +
           settings.bindAddress + (six ? "]:" : ":") + std::to_string(port) + "/stereo";
}

/// What every stream needs and this machine lacks, or empty.
std::string missingPart()
{
    std::string problem = initialiseGStreamer();
    if (!problem.empty()) {
        return problem;
    }
    for (const char* element :
         {"appsrc", "queue", "rtpbin", "rtph264pay", "rtph265pay", "rtpklvpay", "udpsink"}) {
        const GObjectPtr<GstElementFactory> factory(gst_element_factory_find(element));
        if (!factory) {
            return std::string("the GStreamer element ") + element + " is not installed";
        }
    }
    return {};
}

std::string wantedEncoder(const rig::StreamSettings& settings)
{
    const char* override = std::getenv("KOR_ENCODER");
    return override && *override ? override : settings.encoder;
}

}  // namespace

StreamSender::StreamSender(bool logStates) : verbose(logStates) {}

StreamSender::~StreamSender()
{
    close();
}

ErrorCode StreamSender::open(const UDPOutConfig& config)
{
    name = "stream " + std::to_string(config.serialNumber);
    std::string reason;
    const ErrorCode result = server ? ErrorCode::ALREADY_OPEN : start(config, reason);
    if (result != ErrorCode::SUCCESS) {
        logLine(name + ": " + toString(result).c_str() + (reason.empty() ? "" : ": ") + reason);
    }
    return result;
}

ErrorCode StreamSender::start(const UDPOutConfig& config, std::string& reason)
{
    reason = objection(config);
    if (!reason.empty()) {
        return ErrorCode::INVALID_CONFIGURATION;
    }
    const rig::SharedRig rig = rig::currentRig();
    if (!*rig) {
        reason = rig->error;
        return ErrorCode::INVALID_RIG;
    }
    const rig::StreamSettings& settings = rig->rig->stream;
    reason = missingPart();
    if (!reason.empty()) {
        return ErrorCode::SERVER_FAILED;
    }
    CertificateResult encryption;
    if (!settings.certificate.empty()) {
        encryption = readCertificate(settings.certificate, settings.key);
        if (!encryption.certificate) {
            reason = rig->file + ": " + encryption.error;
            return ErrorCode::INVALID_RIG;
        }
    }
    const VideoFormat format = videoFormat(config, settings);
    const auto encoder = chooseEncoder(format, settings.codec, wantedEncoder(settings), reason);
    if (!encoder) {
        return ErrorCode::NO_ENCODER;
    }
    auto newFeed = std::make_shared<StreamFeed>(format, encoder->inputFormat, identityOf(config));
    auto newServer =
        std::make_unique<StreamServer>(name, verbose, settings, std::move(encryption.certificate),
                                       format.bitrate * kBytesPerKilobit, newFeed);
    const ErrorCode result =
        newServer->start(config.port, makeStereoMediaFactory(*encoder, settings, newFeed), reason);
    if (result != ErrorCode::SUCCESS) {
        return result;
    }
    feed = std::move(newFeed);
    server = std::move(newServer);
    if (!encryption.warning.empty()) {
        logLine(name + ": " + encryption.warning);
    }
    if (verbose) {
        logLine(name + ": " + address(settings, config.port) + ", " + toString(encoder->codec) +
                " by " + encoder->element + ", " + std::to_string(format.width) + "x" +
                std::to_string(format.height) + "@" + std::to_string(format.fps) + ", " +
                std::to_string(format.bitrate) + " kbit/s");
    }
    return ErrorCode::SUCCESS;
}

void StreamSender::ingestFrame(const std::uint8_t* yuyv, Timestamp timestamp,
                               const kvfrw::kvfSampleMetadata& metadata)
{
    if (feed && yuyv) {
        feed->ingestFrame(yuyv, timestamp, metadata);
    }
}

void StreamSender::ingestIMU(const IMUPacket& packet)
{
    if (feed) {
        feed->ingestIMU(packet);
    }
}

void StreamSender::close()
{
    if (!server) {
        return;
    }
    feed->shutdown();
    server->stop();
    const SenderStatistics total = feed->statistics();
    if (verbose || total.framesDropped > 0) {
        logLine(name + ": closed after " + std::to_string(total.framesIngested) +
                " frames: " + std::to_string(total.framesEncoded) + " encoded, " +
                std::to_string(total.framesDropped) + " dropped, " +
                std::to_string(total.framesUnwanted) + " with nobody watching; " +
                std::to_string(total.imuSent) + " IMU packets sent");
    }
    server.reset();
    feed.reset();
}

SenderStatistics StreamSender::statistics() const
{
    return feed ? feed->statistics() : SenderStatistics{};
}

}  // namespace tq::stream

namespace tq {

struct UDPOutput::Private : stream::StreamSender {
    using StreamSender::StreamSender;
};

UDPOutput::UDPOutput(STREAMING_MODE, bool verbose) : d(std::make_unique<Private>(verbose)) {}

UDPOutput::~UDPOutput() = default;

int UDPOutput::open(UDPOutConfig config)
{
    return static_cast<int>(d->open(config));
}

void UDPOutput::ingestYUVFrame(unsigned char* yuyv, Timestamp timestamp,
                               kvfrw::kvfSampleMetadata metadata)
{
    d->ingestFrame(yuyv, timestamp, metadata);
}

void UDPOutput::ingestIMU(IMUPacket packet)
{
    d->ingestIMU(packet);
}

void UDPOutput::close()
{
    d->close();
}

}  // namespace tq
