// SPDX-License-Identifier: Apache-2.0
// What the tests of the network sender share: a sender of test frames, a plain RTSP client, and a
// reader of the data stream that knows docs/stream-format.md only.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "tests/sdk/sdktesting.h"
#include "tests/support/freeport.h"
#include "tests/support/senderconfig.h"
#include "tq_kor/tq_kor.h"

namespace streamtest {

/// A rig for this process, with the given text as its stream object.
class StreamRig {
public:
    explicit StreamRig(const QByteArray& stream = "{}") { use(stream); }
    ~StreamRig()
    {
        ArgusCamera::deleteProviderInstance();
        qunsetenv("KOR_RIG");
    }

    QString path() const { return folder.filePath("rig.json"); }

    void use(const QByteArray& stream) { write("{\"cameras\": [], \"stream\": " + stream + "}"); }

    void write(const QByteArray& text)
    {
        QFile file(path());
        if (file.open(QIODevice::WriteOnly))
            file.write(text);
        qputenv("KOR_RIG", path().toLocal8Bit());
        ArgusCamera::deleteProviderInstance();
    }

private:
    QTemporaryDir folder;
};

/// The configuration as the application fills it.
inline tq::UDPOutConfig configuration(int port, int eyeWidth = 160, int eyeHeight = 120,
                                      int serial = 100000001, int fps = 30)
{
    return programsSenderConfig(port, eyeWidth, eyeHeight, serial, fps, 2000);
}

inline tq::Timestamp realTime()
{
    return tq::systemClock().now();
}

inline tq::IMUPacket imuPacket(tq::Timestamp time, std::uint64_t sequence)
{
    tq::IMUPacket packet{};
    packet.timestamp = time;
    packet.sequence = sequence;
    packet.acceleration[0] = 0.125 * static_cast<double>(sequence);
    packet.acceleration[2] = 9.80665;
    packet.angularRate[1] = -0.5;
    packet.magneticField[2] = 48.25;
    packet.orientation[3] = 1;
    packet.temperature = 36.5;
    packet.pressure = 1013.25;
    packet.accelerationCovariance[0] = 1e-4;
    packet.angularRateCovariance[4] = 2e-4;
    packet.orientationCovariance[8] = 3e-4;
    packet.validFields = 0x3F;
    return packet;
}

/// A picture with some structure: the left eye is bright, the right eye is dark.
inline std::vector<unsigned char> picture(int eyeWidth, int eyeHeight, int shift = 0)
{
    const int rowBytes = eyeWidth * 4;
    std::vector<unsigned char> pixels(static_cast<std::size_t>(rowBytes) *
                                      static_cast<std::size_t>(eyeHeight));
    for (int row = 0; row < eyeHeight; ++row) {
        for (int x = 0; x < rowBytes; x += 2) {
            const auto at = static_cast<std::size_t>(row * rowBytes + x);
            const int base = x < rowBytes / 2 ? 180 : 40;
            pixels[at] = static_cast<unsigned char>(base + ((x / 8 + row / 4 + shift) % 16));
            pixels[at + 1] = 128;
        }
    }
    return pixels;
}

/// A picture that no encoder makes small.
inline std::vector<unsigned char> noisePicture(int eyeWidth, int eyeHeight, int seed)
{
    std::vector<unsigned char> pixels = picture(eyeWidth, eyeHeight);
    std::mt19937 random(static_cast<unsigned>(seed));
    for (unsigned char& value : pixels)
        value = static_cast<unsigned char>(random());
    return pixels;
}

/// Feeds a sender with frames and three IMU packets per frame on a thread of its own.
class Feeder {
public:
    /// @param noisy pictures that fill the bit rate
    Feeder(tq::UDPOutput& senderOutput, const tq::UDPOutConfig& config, bool noisy = false)
        : output(senderOutput), setup(config), noise(noisy), thread([this] { run(); })
    {
    }

    ~Feeder() { stop(); }

    void stop()
    {
        stopped = true;
        if (thread.joinable())
            thread.join();
    }

    /// Frames given to the sender so far.
    std::size_t framesFed() const { return fed; }

    /// After stop() only.
    const std::vector<tq::Timestamp>& frameTimes() const { return frames; }
    const std::vector<tq::IMUPacket>& imuPackets() const { return packets; }

private:
    void run()
    {
        std::vector<std::vector<unsigned char>> pictures;
        for (int shift = 0; shift < 4; ++shift)
            pictures.push_back(noise ? noisePicture(setup.width, setup.height, shift)
                                     : picture(setup.width, setup.height, shift));
        const tq::Timestamp period = 1000000000u / static_cast<unsigned>(setup.fps);
        tq::Timestamp time = realTime() + 1234567;
        for (std::size_t n = 0; !stopped; ++n) {
            // Odd nanoseconds, so that rounding on the way would show.
            time += period + 1;
            while (!stopped && realTime() < time)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            tq::kvfrw::kvfSampleMetadata metadata;
            std::memset(&metadata, 0, sizeof metadata);
            for (unsigned i = 3; i-- > 0;) {
                packets.push_back(imuPacket(time - i * (period / 4), packets.size()));
                output.ingestIMU(packets.back());
            }
            output.ingestIMU(tq::IMUPacket{});  // a default packet, as the streamer forwards it
            tq::kvfrw::convertMetadataFromMCUData(metadata, packets.back());
            frames.push_back(time);
            output.ingestYUVFrame(pictures[n % pictures.size()].data(), time, metadata);
            fed = n + 1;
        }
    }

    tq::UDPOutput& output;
    const tq::UDPOutConfig setup;
    const bool noise;
    std::atomic<bool> stopped{false};
    std::atomic<std::size_t> fed{0};
    std::vector<tq::Timestamp> frames;
    std::vector<tq::IMUPacket> packets;
    std::thread thread;
};

/// One RTP or RTCP packet as it came.
struct Packet {
    int channel = 0;  ///< 0 video, 1 its RTCP, 2 data, 3 its RTCP
    QByteArray bytes;

    std::uint32_t u32(int at) const
    {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | static_cast<std::uint8_t>(bytes[at + i]);
        return value;
    }
    bool hasExtension() const { return bytes[0] & 0x10; }
    bool marker() const { return bytes[1] & 0x80; }
    int payloadType() const { return bytes[1] & 0x7F; }
    std::uint16_t sequence() const { return static_cast<std::uint16_t>(u32(0)); }
    std::uint32_t timestamp() const { return u32(4); }
    std::uint32_t ssrc() const { return u32(8); }

    /// The elements of the header extension, or nothing.
    QByteArray extension() const
    {
        return hasExtension() ? bytes.mid(16, static_cast<int>(u32(12) & 0xFFFF) * 4)
                              : QByteArray();
    }
    QByteArray payload() const { return bytes.mid(hasExtension() ? 16 + extension().size() : 12); }

    /// Whether a key picture of H.264 begins here.
    bool beginsKeyFrame() const
    {
        const QByteArray unit = payload();
        const int type = unit.size() > 1 ? unit[0] & 0x1F : 0;
        return type == 5 || (type == 28 && (unit[1] & 0x9F) == 0x85);
    }
};

/// A UDP socket that a stream's packets are sent to.
class UdpPort {
public:
    UdpPort() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t size = sizeof address;
        bind(fd, reinterpret_cast<sockaddr*>(&address), size);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
        number = ntohs(address.sin_port);
    }
    ~UdpPort() { close(fd); }
    UdpPort(const UdpPort&) = delete;
    UdpPort& operator=(const UdpPort&) = delete;

    int port() const { return number; }

    /// The next packet; its bytes are empty when none comes in time.
    Packet packet(int milliseconds) const
    {
        pollfd ready{fd, POLLIN, 0};
        QByteArray bytes(65536, '\0');
        const ssize_t size = poll(&ready, 1, milliseconds) > 0
                                 ? recv(fd, bytes.data(), static_cast<std::size_t>(bytes.size()), 0)
                                 : 0;
        return {0, bytes.left(static_cast<int>(std::max<ssize_t>(size, 0)))};
    }

    /// Waits for a packet and takes all that are there.
    bool receives(int milliseconds) const
    {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, milliseconds) <= 0)
            return false;
        char bytes[65536];
        while (recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
        return true;
    }

private:
    int fd;
    int number = 0;
};

struct Response {
    int status = 0;
    QMap<QString, QString> headers;  // names in lower case
    QByteArray body;
};

/// A plain RTSP client; media come through the RTSP connection.
class RtspClient {
public:
    /// @param receiveBuffer bytes that the system keeps for this client, 0: as many as it likes
    /// @param own           address to connect from
    explicit RtspClient(int serverPort, int receiveBuffer = 0, const char* own = "127.0.0.1")
        : port(serverPort)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receiveBuffer > 0)
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, own, &address.sin_addr);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~RtspClient() { close(fd); }
    RtspClient(const RtspClient&) = delete;
    RtspClient& operator=(const RtspClient&) = delete;

    bool isConnected() const { return connected; }
    int descriptor() const { return fd; }

    QByteArray url(const QByteArray& path = {}) const
    {
        return "rtsp://127.0.0.1:" + QByteArray::number(port) + "/stereo" + path;
    }

    bool send(const QByteArray& bytes)
    {
        return ::send(fd, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                      MSG_NOSIGNAL) == bytes.size();
    }

    /// Sends when there is room for it within this time, if only a part; false when the connection
    /// has ended.
    bool sendSome(const QByteArray& bytes, int milliseconds)
    {
        pollfd ready{fd, POLLOUT, 0};
        return poll(&ready, 1, milliseconds) == 0 ||
               ::send(fd, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                      MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
    }

    /// The next SETUP asks for a session of its own.
    void forgetSession() { session.clear(); }

    Response request(const QByteArray& method, const QByteArray& target,
                     const QByteArray& headers = {})
    {
        QByteArray text = method + ' ' + target +
                          " RTSP/1.0\r\nCSeq: " + QByteArray::number(++sequence) + "\r\n" + headers;
        if (!session.isEmpty())
            text += "Session: " + session + "\r\n";
        send(text + "\r\n");
        return readResponse();
    }

    Response describe() { return request("DESCRIBE", url(), "Accept: application/sdp\r\n"); }

    Response setup(int stream)
    {
        const QByteArray channels =
            QByteArray::number(2 * stream) + '-' + QByteArray::number(2 * stream + 1);
        const Response response =
            request("SETUP", url("/stream=" + QByteArray::number(stream)),
                    "Transport: RTP/AVP/TCP;unicast;interleaved=" + channels + "\r\n");
        session = response.headers.value("session").section(';', 0, 0).toLatin1();
        return response;
    }

    /// Media of this stream come by UDP.
    Response setupUdp(int stream, int clientPort)
    {
        const Response response =
            request("SETUP", url("/stream=" + QByteArray::number(stream)),
                    "Transport: RTP/AVP;unicast;client_port=" + QByteArray::number(clientPort) +
                        '-' + QByteArray::number(clientPort + 1) + "\r\n");
        session = response.headers.value("session").section(';', 0, 0).toLatin1();
        return response;
    }

    Response play() { return request("PLAY", url()); }

    /// DESCRIBE, both SETUPs and PLAY.
    bool start()
    {
        return describe().status == 200 && setup(0).status == 200 && setup(1).status == 200 &&
               play().status == 200;
    }

    /// The next packet; its bytes are empty when none comes in time.
    Packet packet(int milliseconds = 10000)
    {
        if (!queued.empty()) {
            const Packet first = queued.front();
            queued.erase(queued.begin());
            return first;
        }
        deadline(milliseconds);
        return fill(4) && buffer[0] == '$' ? takePacket() : Packet();
    }

    /// Reads packets until the function is satisfied; false when time runs out.
    bool packetsUntil(const std::function<bool(const Packet&)>& satisfied, int milliseconds = 15000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (std::chrono::steady_clock::now() < end) {
            const Packet next = packet(milliseconds);
            if (next.bytes.isEmpty())
                return false;
            if (satisfied(next))
                return true;
        }
        return false;
    }

    /// Whether the server closes the connection within this time.
    bool closedByServer(int milliseconds)
    {
        deadline(milliseconds);
        while (fill(buffer.size() + 1)) {
        }
        return ended;
    }

private:
    void deadline(int milliseconds)
    {
        limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    }

    /// Reads until so many bytes are there.
    bool fill(int count)
    {
        while (buffer.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                limit - std::chrono::steady_clock::now());
            pollfd ready{fd, POLLIN, 0};
            if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0)
                return false;
            char bytes[65536];
            const ssize_t size = recv(fd, bytes, sizeof bytes, 0);
            if (size <= 0) {
                ended = true;
                return false;
            }
            buffer.append(bytes, static_cast<int>(size));
        }
        return true;
    }

    Packet takePacket()
    {
        const int size =
            static_cast<std::uint8_t>(buffer[2]) << 8 | static_cast<std::uint8_t>(buffer[3]);
        if (!fill(4 + size))
            return Packet();
        const Packet packet{buffer[1], buffer.mid(4, size)};
        buffer.remove(0, 4 + size);
        return packet;
    }

    Response readResponse()
    {
        deadline(20000);
        Response response;
        while (fill(4) && buffer[0] == '$')
            queued.push_back(takePacket());
        while (buffer.indexOf("\r\n\r\n") < 0) {
            if (!fill(buffer.size() + 1))
                return response;
        }
        const int end = buffer.indexOf("\r\n\r\n");
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        buffer.remove(0, end + 4);
        response.status = lines[0].split(' ').value(1).toInt();
        for (const QByteArray& line : lines.mid(1)) {
            const int colon = line.indexOf(':');
            response.headers[QString(line.left(colon)).toLower()] = line.mid(colon + 1).trimmed();
        }
        const int size = response.headers.value("content-length").toInt();
        if (fill(size)) {
            response.body = buffer.left(size);
            buffer.remove(0, size);
        }
        return response;
    }

    int port;
    int fd = -1;
    bool connected = false;
    bool ended = false;
    int sequence = 0;
    QByteArray session;
    QByteArray buffer;
    std::vector<Packet> queued;
    std::chrono::steady_clock::time_point limit;
};

/// A record of the data stream with its value, written from docs/stream-format.md.
struct Record {
    int kind = 0;
    int version = 0;
    QByteArray value;

    std::uint64_t number(int at, int size) const
    {
        std::uint64_t result = 0;
        for (int i = 0; i < size; ++i)
            result = result * 256 + static_cast<std::uint8_t>(value[at + i]);
        return result;
    }
    double real(int at) const
    {
        const std::uint64_t bits = number(at, 8);
        double result = 0;
        std::memcpy(&result, &bits, sizeof result);
        return result;
    }
};

/// Splits a unit into its records; nothing when it is malformed.
inline std::vector<Record> records(QByteArray unit)
{
    const QByteArray begin = QByteArray::fromHex("060E2B34020501010F4B4F5201");
    std::vector<Record> result;
    while (!unit.isEmpty()) {
        if (!unit.startsWith(begin) || unit.size() < 17)
            return {};
        Record record;
        record.kind = unit[13];
        record.version = unit[14];
        int length = static_cast<std::uint8_t>(unit[16]);
        int header = 17;
        if (length >= 0x80) {
            const int count = length - 0x80;
            length = 0;
            for (int i = 0; i < count; ++i)
                length = length * 256 + static_cast<std::uint8_t>(unit[header++]);
        }
        record.value = unit.mid(header, length);
        if (record.value.size() != length)
            return {};
        unit.remove(0, header + length);
        result.push_back(record);
    }
    return result;
}

/// The RTP timestamp of a capture time, as the page says.
inline std::uint32_t rtpTime(tq::Timestamp t)
{
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint32_t>(Wide{t} * 90000u / 1000000000u);
}

/// Waits until a condition holds.
inline bool waitFor(const std::function<bool()>& condition, int milliseconds = 10000)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

inline int entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

/// Of this process.
inline int openFiles()
{
    return entries("/proc/self/fd");
}

/// What stands on standard error while a function runs.
inline QByteArray errorOutput(const std::function<void()>& function)
{
    const ErrorLog log;
    function();
    return log.text();
}

/// Does something again and again on a thread of its own, with a pause after each time.
class Repeater {
public:
    Repeater(std::function<void()> action, std::chrono::milliseconds pause)
        : thread([this, action = std::move(action), pause] {
              while (!stopped) {
                  action();
                  std::this_thread::sleep_for(pause);
              }
          })
    {
    }
    ~Repeater()
    {
        stopped = true;
        thread.join();
    }
    Repeater(const Repeater&) = delete;
    Repeater& operator=(const Repeater&) = delete;

private:
    std::atomic<bool> stopped{false};
    std::thread thread;
};

}  // namespace streamtest
