// SPDX-License-Identifier: Apache-2.0
// What the scripted SDK's objects share. Private to the fake.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>

#include "tests/sdk_fake/sdk_fake.h"

namespace sdkfake {

/// A pushed frame: either explicit pixels or one value for all of them.
struct PushedFrame {
    std::vector<std::uint8_t> pixels;
    std::uint8_t value = 0;
    tq::Timestamp timestamp = 0;
    tq::IMUPacket imu{};
};

struct CameraState {
    CameraSetup setup;
    std::deque<PushedFrame> pushed;
    std::deque<tq::IMUPacket> imuHistory;
    std::optional<FreeRun> freeRun;
    std::chrono::steady_clock::time_point freeRunStart;
    std::int64_t lastDelivered = -1;
    std::atomic<bool> blocked{false};
    std::atomic<int> polls{0};
};

struct SenderState {
    Sender record;
    std::atomic<int> inside{0};
};

/// All state of the fake, behind one mutex.
struct World {
    std::mutex mutex;
    std::vector<Call> calls;
    std::vector<std::string> misuses;
    std::FILE* mirror = nullptr;
    std::vector<std::shared_ptr<CameraState>> cameras;
    std::vector<std::shared_ptr<SenderState>> senders;
    std::map<int, int> resultByPort;
    int senderResult = 0;
    int grabbers = 0;
    int livingObjects = 0;
    bool keepPixels = true;
    std::function<void(const Sender&, const unsigned char*, tq::Timestamp)> onFrame;
    std::atomic<bool> ingestBlocked{false};
    std::atomic<bool> openBlocked{false};
    std::atomic<int> heldCalls{0};
};

World& world();

/// Null when no camera has this serial. The mutex must be held.
std::shared_ptr<CameraState> cameraBySerial(int serial);
std::shared_ptr<CameraState> cameraById(int id);

/// Appends to the record of calls.
void record(Kind kind, const std::string& object, const std::string& function,
            const std::string& arguments, const std::string& result = {});
void misuse(const std::string& text);

/// Arguments as text, separated by ", ".
template <typename... Values>
std::string join(const Values&... values)
{
    std::ostringstream text;
    text << std::boolalpha;
    const char* separator = "";
    ((text << separator << values, separator = ", "), ...);
    return text.str();
}

/// Notes that a thread is inside an object.
class Inside {
public:
    explicit Inside(std::atomic<int>& counter) : count(counter) { ++count; }
    ~Inside() { --count; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    std::atomic<int>& count;
};

/// Sleeps while @p flag is set; a cancellation point.
void waitWhile(const std::atomic<bool>& flag);

}  // namespace sdkfake
