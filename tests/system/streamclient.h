// SPDX-License-Identifier: Apache-2.0
// A client of the streams, written from docs/stream-format.md.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

/// What a frame record of the data stream says, as far as the tests look at it.
struct FrameRecord {
    std::uint32_t serial = 0;
    std::uint64_t counter = 0;
    std::uint64_t captureTime = 0;  ///< ns
    std::uint64_t dropped = 0;
    std::uint32_t eyeWidth = 0;   ///< pixels
    std::uint32_t eyeHeight = 0;  ///< pixels
    std::uint64_t imuTimestamp = 0;
};

/// What an IMU record of the data stream says, as far as the tests look at it.
struct ImuRecord {
    std::uint32_t serial = 0;
    std::uint64_t timestamp = 0;  ///< ns
    std::uint64_t sequence = 0;
    double acceleration[3] = {};
};

/// Luma of one decoded frame.
struct Picture {
    int width = 0;
    int height = 0;
    QByteArray luma;  ///< width × height bytes

    const unsigned char* at(int x, int y) const
    {
        return reinterpret_cast<const unsigned char*>(luma.constData()) + y * width + x;
    }
};

/// Plays one stream and keeps what arrives. The streaming threads of the library fill it; the
/// accessors may be called from any thread.
class StreamClient {
public:
    /// @param protocols "tcp" or "udp"
    explicit StreamClient(const QString& url, const QString& protocols = "tcp");
    ~StreamClient();
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    std::vector<Picture> pictures() const;
    std::vector<FrameRecord> frames() const;
    std::vector<ImuRecord> imu() const;

    /// Packets that did not arrive so far, of all streams.
    std::uint64_t lost() const;

    /// Error of the pipeline so far; empty while there is none.
    QString error() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
