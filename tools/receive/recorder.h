// SPDX-License-Identifier: Apache-2.0
// Writes what arrives to a file, not coded anew.
#pragma once

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sdk/core/glibptr.h"
#include "tools/receive/session.h"

namespace receive {

/// Writes MPEG-TS with both streams, or, to a file whose name does not end in ".ts", Matroska with
/// the video. Times in the file are capture times, to 1/90000 s, from its beginning. Thread safe.
class Recorder {
public:
    /// @param file   to write
    /// @param failed called at most once with the reason when the file cannot be written
    Recorder(std::string file, std::function<void(const std::string&)> failed)
        : path(std::move(file)), onFailure(std::move(failed))
    {
    }

    /// Takes a coded frame. Waits as long as much is not written yet.
    /// @param withData there is a data stream beside the video
    /// @return false when it is too late for it
    bool add(const Frame& frame, bool withData);

    /// Takes a unit of the data stream.
    /// @return false when it is too late for it
    bool add(const DataUnit& unit);

    /// Completes the file.
    /// @return false when that took too long
    bool finish(std::chrono::seconds patience);

    /// Lets go of the file.
    void stop();

private:
    void begin(const Frame& first, bool withData);
    bool push(const DataUnit& unit);
    void bridgeSilence(GstClockTime now);
    GstClockTime fileTime(std::uint32_t time);
    static void onNeedData(GstAppSrc*, guint, gpointer self);
    static GstBusSyncReply onMessage(GstBus*, GstMessage* message, gpointer self);

    const std::string path;
    const std::function<void(const std::string&)> onFailure;

    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    bool over = false;  // complete, or failed
    struct EarlyUnit {
        std::vector<std::uint8_t> bytes;
        std::uint32_t time;
    };
    std::vector<EarlyUnit> early;            // before the first frame
    std::uint32_t reference = 0;             // time of the first frame
    std::int64_t newest = 0;                 // of the times, from there
    std::optional<GstClockTime> lastRecord;  // of a frame, in the file
    GstClockTime lastData = 0;
    tq::GObjectPtr<GstElement> pipeline;
    tq::GObjectPtr<GstElement> video;
    tq::GObjectPtr<GstElement> data;  // null: not recorded
};

}  // namespace receive
