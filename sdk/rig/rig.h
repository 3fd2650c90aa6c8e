// SPDX-License-Identifier: Apache-2.0
// The rig: which cameras exist and how the sender works. Every key is described in docs/rig.md.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tq_kor/types.h"

namespace tq::rig {

/// Which video codec the sender uses.
enum class CodecChoice {
    AUTO,  ///< H.264, or H.265 for pictures that H.264 encoders seldom take
    H264,
    H265,
};

/// The rig's `stream` object.
struct StreamSettings {
    std::string bindAddress = "0.0.0.0";    ///< numeric address to serve on
    std::string user;                       ///< empty: no authentication
    std::string password;                   ///< never logged
    std::string certificate;                ///< PEM file, absolute; empty: no encryption
    std::string key;                        ///< PEM file, absolute, of the certificate's key
    int maxClients = 8;                     ///< clients served at once
    int maxPerAddress = 0;                  ///< ... of one address, 0: half of them
    int sessionTimeout = 60;                ///< seconds without a sign of life of a client
    CodecChoice codec = CodecChoice::AUTO;  ///< video codec
    std::string encoder;                    ///< GStreamer element, empty: first that works
    int bitrate = 0;                        ///< kbit/s, 0: what the sender is opened with
    int keyFrameInterval = 0;               ///< frames, 0: what the sender is opened with
    int mtu = 1400;                         ///< largest RTP packet, bytes
    int latency = 200;                      ///< declared latency of the media, ms

    /// Clients of one address that are served at once.
    int clientShare() const { return maxPerAddress > 0 ? maxPerAddress : (maxClients + 1) / 2; }
};

/// Which eye of the simulated scene a camera sees.
enum class Eye { LEFT, RIGHT };

/// What a simulated camera sees.
enum class SceneKind { DISCS, CHESSBOARD };

/// A pause in the delivery of a simulated camera.
struct Stall {
    double at = 0;        ///< seconds after the opening
    double duration = 0;  ///< seconds
};

/// Source `simulated`.
struct SimulatedSettings {
    Eye eye = Eye::LEFT;
    SceneKind scene = SceneKind::DISCS;
    double phase = 0;                   ///< offset from the common frame grid, µs
    double jitter = 0;                  ///< largest deviation of a frame from its instant, µs
    double drift = 0;                   ///< growth of the offset, ppm of the time since the opening
    double drop = 0;                    ///< probability that a frame is lost
    std::optional<Stall> stall;         ///< no frames for a while
    std::optional<double> deathAfter;   ///< no frames any more, seconds after the opening
    std::optional<double> reviveAfter;  ///< frames again, seconds after the death; absent: never
    std::uint64_t seed = 1;             ///< of jitter and lost frames
};

/// Source `recording`.
struct RecordingSettings {
    std::string path;  ///< absolute; the folder that holds `mav0`, `mav0` itself, or a file
    std::string camera = "cam0";  ///< folder of this camera; of a file cam0: left, cam1: right
    bool loop = true;             ///< begins again at its end
};

/// Source `gstreamer`.
struct GStreamerSettings {
    std::string pipeline;  ///< description ending in raw video; {width}, {height}, {fps} replaced
    double timeout = 10;   ///< seconds until the first frame, and between two frames
};

using SourceSettings = std::variant<SimulatedSettings, RecordingSettings, GStreamerSettings>;

/// What the frames of a source are stamped with.
enum class Timestamps {
    CAPTURE,  ///< when they were captured
    GRID,     ///< the nearest instant of the common frame grid
};

/// Where a camera's inertial data come from.
enum class ImuKind { NONE, SIMULATED, RECORDED };

/// A camera's `imu` object.
struct ImuSettings {
    ImuKind kind = ImuKind::NONE;
    int rate = 200;  ///< packets per second of the simulated unit
};

/// One element of the rig's `cameras`.
struct CameraSettings {
    int id = 0;  ///< number to open the camera with
    int serial = 0;
    MODEL model = MODEL::LAST;
    std::string bus;   ///< at most 15 bytes
    std::string name;  ///< at most 111 bytes
    SourceSettings source;
    Timestamps timestamps = Timestamps::CAPTURE;  ///< key of the source, whatever its type
    ImuSettings imu;
};

/// A whole rig.
struct Rig {
    std::vector<CameraSettings> cameras;
    StreamSettings stream;

    /// The camera with this id, or null.
    const CameraSettings* find(int id) const;
};

/// A rig, or the reason why there is none.
struct RigResult {
    std::optional<Rig> rig;
    std::string error;    ///< one line "file: key: reason" when there is no rig
    std::string warning;  ///< one line of the same form although there is one, or empty
    std::string file;     ///< that it was read from; empty: the built-in rig

    explicit operator bool() const { return rig.has_value(); }
};

/// Where a rig is looked for when the environment names none.
inline constexpr const char* kInstalledRig = "/usr/local/kor/settings/rig.json";

/// The rig of this machine: the file named by the environment variable KOR_RIG, else the installed
/// one, else the built-in rig of two simulated cameras. A link that leads nowhere is a file that
/// cannot be read. Reads the file anew on every call and logs nothing. Thread safe as long as
/// nobody changes the environment.
RigResult loadRig(const std::string& installed = kInstalledRig);

/// Reads one file, and warns when it holds a password that everybody on this machine may read.
RigResult readRig(const std::string& path);

/// Reads a rig from its text.
/// @param origin name to use in errors; relative paths are taken from its folder
RigResult parseRig(const std::string& text, const std::string& origin);

}  // namespace tq::rig
