// SPDX-License-Identifier: Apache-2.0
// What a client says to the stream server, which must go on serving others.
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "tests/fuzz/fuzz.h"
#include "tests/support/freeport.h"
#include "tq_kor/tq_kor.h"

namespace {

constexpr int kEye = 16;           // pixels
constexpr int kPatience = 100000;  // ms; longer than anything on a busy machine

/// A sender of small pictures.
class Sender {
public:
    Sender()
    {
        // The server keeps what has closed for a moment.
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = descriptors.rlim_max;
        setrlimit(RLIMIT_NOFILE, &descriptors);
        setenv("KOR_RIG", folder.write("rig.json", kRig).c_str(), 1);
        tq::UDPOutConfig config;
        std::memset(&config, 0, sizeof config);
        config.layout = 1;
        config.port = static_cast<std::uint16_t>(port);
        config.width = kEye;
        config.height = kEye;
        config.fps = 100;
        config.serialNumber = 100000001;
        config.eyes = 2;
        fuzz::require(output.open(config) == 0, "the stream is served");
        frames = std::thread([this] { send(); });
    }
    ~Sender()
    {
        over = true;
        frames.join();
        output.close();
    }

    const int port = freePort();

private:
    static constexpr const char* kRig =
        R"({"cameras": [], "stream": {"bindAddress": "127.0.0.1"}})";

    void send()
    {
        using Clock = std::chrono::system_clock;
        std::vector<unsigned char> picture(2 * kEye * kEye * 2, 128);
        for (Clock::time_point next = Clock::now(); !over; next += std::chrono::milliseconds(10)) {
            std::this_thread::sleep_until(next);
            tq::kvfrw::kvfSampleMetadata metadata;
            std::memset(&metadata, 0, sizeof metadata);
            const std::chrono::nanoseconds time = next.time_since_epoch();
            output.ingestYUVFrame(picture.data(), static_cast<tq::Timestamp>(time.count()),
                                  metadata);
        }
    }

    fuzz::Folder folder;
    tq::UDPOutput output{tq::STREAMING_MODE::LIVE, true};
    std::atomic<bool> over{false};
    std::thread frames;
};

/// A connection that is reset when it ends, so that no port is kept waiting for stragglers.
class Connection {
public:
    explicit Connection(int port) : client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        const linger off{1, 0};
        setsockopt(client, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    }
    ~Connection() { close(client); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void say(const void* bytes, std::size_t size) { send(client, bytes, size, MSG_NOSIGNAL); }

    /// Whether there is an answer, and not the end of the connection.
    bool isAnswered()
    {
        pollfd wait{client, POLLIN, 0};
        int ready = 0;
        do {
            ready = poll(&wait, 1, kPatience);
        } while (ready < 0 && errno == EINTR);  // by the fuzzer's own timer
        fuzz::require(ready == 1, "the server answers or hangs up");
        char answer[4096];
        return recv(client, answer, sizeof answer, 0) > 0;
    }

private:
    const int client;
};

/// Whether the server answers an honest client, who has a new connection at most.
bool serves(int port)
{
    constexpr std::string_view kRequest = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    static std::unique_ptr<Connection> honest;
    const auto ask = [&] {
        honest->say(kRequest.data(), kRequest.size());
        return honest->isAnswered();
    };
    if (honest && ask()) {
        return true;
    }
    honest = std::make_unique<Connection>(port);
    return ask();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const Sender sender;
    Connection client(sender.port);
    client.say(bytes, size);
    // The answers come from one thread, so what the client said has been looked at by then.
    fuzz::require(serves(sender.port) && serves(sender.port), "the server serves others");
    return 0;
}
