// SPDX-License-Identifier: Apache-2.0
// A scripted camera SDK: the test decides what the cameras deliver and sees every call.
//
// The fake implements the declarations of the camera SDK, so a test links it in the library's
// place and runs the program's own classes on it:
//
//     sdkfake::reset();
//     sdkfake::CameraSetup setup;
//     setup.serial = 30123456;
//     sdkfake::addCamera(setup);
//     KTCamera camera;
//     camera.open(0, tq::Resolution(4, 2), 30, false);
//     sdkfake::pushFrame(30123456, 1000, 0x55);  // delivered at the next poll
//     QTRY_COMPARE(received.size(), 1);
//     QCOMPARE(sdkfake::callTexts(), ...);
//
// Frames are pushed one by one and then delivered in order, none skipped, or the camera runs free
// at a rate and a reader that is late misses frames, as with a real camera.
//
// All functions may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture/sdk.h"

namespace sdkfake {

/// Forgets cameras, scripts, calls, senders and misuses. No SDK object may exist.
void reset();

// ---- Calls ---------------------------------------------------------------------------------

/// What a call is for. The values are bits, to be combined as a filter.
enum Kind : unsigned {
    Control = 1,  ///< enumeration, constructors and destructors, setters, setUp, open, close
    Query = 2,    ///< descriptions of a camera: size, rate, serial, model, hasMCU, getMCU
    Frame = 4,    ///< frames and IMU packets, in and out; getFrameStatus only when it returned 1
    Everything = 7,
    Image = 8,  ///< Mat.alloc, Mat.free and Mat.clone (argument: capture time) of all images, also
                ///< the test's own: not in Everything
};

/// One call to the SDK.
struct Call {
    Kind kind = Control;
    std::string object;     ///< class and number in order of construction: "UDPOutput#2"
    std::string function;   ///< the class's name for a constructor, with ~ for a destructor
    std::string arguments;  ///< decimal numbers, true or false, separated by ", "
    std::string result;     ///< empty when the function returns nothing
    std::thread::id thread;

    /// "UDPOutput#2.open(port 30000) = 0"
    std::string text() const;
};

/// The calls so far, oldest first. A call that returns something is recorded as it returns.
std::vector<Call> calls(unsigned kinds = Everything);

/// The same as text, for comparison with a list.
std::vector<std::string> callTexts(unsigned kinds = Control);

/// Forgets the calls so far.
void clearCalls();

/// Writes the text of each Control call to @p stream as well, at once, so that the calls of a
/// process that ends abruptly are known. Null stops it.
void mirrorCalls(std::FILE* stream);

/// Uses that a real SDK would punish: a frame given to a sender that is not open, an object
/// destroyed while another thread is inside it, pixels asked for before the first frame, ...
std::vector<std::string> misuses();

// ---- Cameras -------------------------------------------------------------------------------

/// One scripted camera.
struct CameraSetup {
    int id = 0;
    int serial = 0;
    tq::MODEL model = tq::MODEL::KOR_TSOLO_GS;
    bool hasMcu = true;
    int idleStatus = 0;                 ///< what getFrameStatus returns while there is no new frame
    int setUpResult = 0;                ///< what setUp returns
    std::optional<int> ownSerial;       ///< what the opened camera calls itself
    std::optional<int> rewrittenId;     ///< what setUp makes of the id
    std::optional<int> effectiveWidth;  ///< rather than the size asked for
    std::optional<int> effectiveHeight;
    std::optional<int> effectiveFps;
    tq::DeviceState state = tq::DeviceState::AVAILABLE;  ///< what the enumeration says
};

/// Attaches a camera; cameras are enumerated in the order in which they were added.
void addCamera(const CameraSetup& setup);

/// Changes an attached camera; takes effect at the next setUp.
void changeCamera(const CameraSetup& setup);

/// An IMU packet whose 360 bytes all depend on @p sequence, but for its timestamp.
tq::IMUPacket makeImuPacket(std::uint64_t sequence, tq::Timestamp timestamp);

/// Queues a frame whose bytes are all @p value.
/// @param latestImu what getIMUPacket() returns with this frame
void pushFrame(int serial, tq::Timestamp timestamp, std::uint8_t value,
               const tq::IMUPacket& latestImu = {});

/// Queues a frame with given pixels; their number must be width × height × 2 of the opened camera.
void pushFrame(int serial, tq::Timestamp timestamp, std::vector<std::uint8_t> pixels,
               const tq::IMUPacket& latestImu = {});

/// How many pushed frames have not been delivered yet.
std::size_t waitingFrames(int serial);

/// Puts a packet into the history of the camera's micro-controller.
void pushImu(int serial, const tq::IMUPacket& packet);

/// A camera that runs by itself from the call on. Frame n has the timestamp base + n × period and
/// bytes that are all patternOf(n). IMU packet m has the timestamp base + m × period / imuPerFrame
/// and is makeImuPacket(m, ...).
struct FreeRun {
    double fps = 60;
    tq::Timestamp base = 1'000'000'000;
    int imuPerFrame = 0;

    tq::Timestamp period() const { return static_cast<tq::Timestamp>(1e9 / fps); }
    std::uint64_t numberOf(tq::Timestamp timestamp) const { return (timestamp - base) / period(); }
    static std::uint8_t patternOf(std::uint64_t number)
    {
        return static_cast<std::uint8_t>(1 + number % 251);
    }
};
void startFreeRun(int serial, const FreeRun& run);
void stopFreeRun(int serial);

/// How often getFrameStatus of a camera has returned, whatever it returned.
int polls(int serial);

/// Holds every call of getFrameStatus of a camera until it is called with false. The thread inside
/// can be cancelled.
void blockFrameStatus(int serial, bool block);

// ---- Senders -------------------------------------------------------------------------------

/// One frame as the sender got it.
struct IngestedFrame {
    std::vector<std::uint8_t> pixels;  ///< empty while keepPixels(false)
    tq::Timestamp timestamp = 0;
    std::array<std::uint8_t, 256> metadata{};
    std::thread::id thread;
};

/// One sender, living or destroyed.
struct Sender {
    int number = 0;  ///< 1 for the first one constructed since reset()
    int mode = -1;
    bool verbose = false;
    std::array<std::uint8_t, 96> config{};  ///< as given to open
    bool opened = false;                    ///< open was called and returned 0
    bool closed = false;                    ///< close was called
    bool destroyed = false;
    std::vector<std::shared_ptr<const IngestedFrame>> frames;
    std::vector<tq::IMUPacket> imuPackets;

    int port() const;
    int serialNumber() const;
};

/// All senders in order of construction.
std::vector<Sender> senders();

/// The sender constructed last; number 0 when there is none.
Sender lastSender();

/// The sender opened last on a port; number 0 when there is none.
Sender senderOnPort(int port);

/// What UDPOutput::open returns from now on.
void setSenderResult(int code);

/// What UDPOutput::open returns for one port from now on.
void setSenderResult(int port, int code);

/// Whether ingested pixels are copied (at the start: yes). Long tests would fill the memory.
void keepPixels(bool keep);

/// Called with every ingested frame on the thread that ingests it; null to stop.
void onFrame(
    std::function<void(const Sender& sender, const unsigned char* pixels, tq::Timestamp timestamp)>
        function);

/// How many calls blockFrameStatus, blockIngest and blockOpen hold at this moment.
int heldCalls();

/// Holds every call of ingestYUVFrame until it is called with false. The thread inside can be
/// cancelled.
void blockIngest(bool block);

/// Holds every call of UDPOutput::open until it is called with false.
void blockOpen(bool block);

}  // namespace sdkfake
