// SPDX-License-Identifier: Apache-2.0
// How pictures, records and inertial data come together.
#include "python/framequeue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace receive {

using Lock = std::lock_guard<std::mutex>;

namespace {

constexpr std::size_t kMostEarly = 4;  // pictures that wait for their record
constexpr std::size_t kMostRecords = 512;
constexpr std::size_t kMostImu = 50000;  // 25 s of the fastest unit, 18 MB

/// ns since 1970
std::uint64_t realTime()
{
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(now.count());
}

/// Whether one time of 90000 ticks per second, which wrap, is after another.
bool isAfter(std::uint32_t time, std::uint32_t other)
{
    return static_cast<std::int32_t>(time - other) > 0;
}

}  // namespace

Picture::Picture(const Frame& frame)
{
    GstVideoInfo info;
    mapped = gst_video_info_from_caps(&info, frame.caps) &&
             gst_video_frame_map(&video, &info, frame.buffer, GST_MAP_READ);
}

Picture::~Picture()
{
    if (mapped) {
        gst_video_frame_unmap(&video);
    }
}

FrameQueue::FrameQueue(std::size_t most, bool waits)
    : limit(std::max<std::size_t>(most, 1)),
      patient(waits),
      event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

FrameQueue::~FrameQueue()
{
    close(event);
}

void FrameQueue::picture(const Frame& frame, bool withData)
{
    auto pixels = std::make_shared<const Picture>(frame);
    if (!pixels->isMapped()) {
        return;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (patient) {
        changed.wait(lock, [this] { return over || ready.size() < limit; });
    }
    if (over) {
        return;
    }
    Waiting waiting;
    waiting.frame.width = GST_VIDEO_FRAME_WIDTH(&pixels->pixels()) / 2;
    waiting.frame.height = GST_VIDEO_FRAME_HEIGHT(&pixels->pixels());
    waiting.frame.picture = std::move(pixels);
    waiting.time = frame.time;
    early.push_back(std::move(waiting));
    settle(withData);
}

void FrameQueue::record(const FrameRecord& content, std::uint32_t time)
{
    const Lock lock(mutex);
    records.push_back({time, content, imuBegin + imu.size()});
    if (records.size() > kMostRecords) {
        records.pop_front();
    }
    settle(true);
}

void FrameQueue::packet(const ImuRecord& content)
{
    const Lock lock(mutex);
    imu.push_back(content);
    if (imu.size() > kMostImu) {
        imu.pop_front();
        ++imuBegin;
    }
}

/// Completes the pictures whose records are here, or will not come. The mutex is held.
void FrameQueue::settle(bool withRecords)
{
    while (!early.empty() &&
           !(withRecords && early.size() <= kMostEarly && isWaitedFor(early.front().time))) {
        Waiting waiting = std::move(early.front());
        early.pop_front();
        complete(std::move(waiting));
    }
}

/// Whether the record of this time can still come: it is not here, and none of a later frame is.
bool FrameQueue::isWaitedFor(std::uint32_t time) const
{
    return std::none_of(records.begin(), records.end(), [time](const Record& record) {
        return record.time == time || isAfter(record.time, time);
    });
}

/// The mutex is held.
void FrameQueue::complete(Waiting waiting)
{
    const auto found = std::find_if(records.begin(), records.end(), [&](const Record& record) {
        return record.time == waiting.time;
    });
    if (found == records.end()) {
        waiting.frame.captureTime = timeWithoutRecord(waiting.time);
    } else {
        last = *found;
        waiting.frame.record = found->content;
        waiting.frame.captureTime = found->content.captureTime;
        waiting.imuEnd = found->imuEnd;
        // Those before it belong to pictures that were lost.
        records.erase(records.begin(), found + 1);
    }
    // A row that only makes the height even is left out.
    const int eyeHeight = last ? static_cast<int>(last->content.eyeHeight) : waiting.frame.height;
    if (waiting.frame.height == eyeHeight + 1) {
        waiting.frame.height = eyeHeight;
    }
    if (!patient && ready.size() >= limit) {
        ready.pop_front();
        ++overflowed;
    }
    ready.push_back(std::move(waiting));
    signal();
}

std::uint64_t FrameQueue::timeWithoutRecord(std::uint32_t time) const
{
    if (!last) {
        return captureTimeFromRtp(time, realTime());
    }
    const std::int64_t ticks{static_cast<std::int32_t>(time - last->time)};
    return last->content.captureTime + static_cast<std::uint64_t>(ticks * 100000 / 9);
}

void FrameQueue::finish()
{
    const Lock lock(mutex);
    settle(false);
    over = true;
    changed.notify_all();
    signal();
}

std::optional<StereoFrame> FrameQueue::take(bool newest)
{
    const Lock lock(mutex);
    if (ready.empty()) {
        return std::nullopt;
    }
    if (newest && !patient) {
        ready.erase(ready.begin(), ready.end() - 1);
        overflowed = 0;
    }
    lost += std::exchange(overflowed, 0);
    Waiting waiting = std::move(ready.front());
    ready.pop_front();
    takeImu(waiting.frame, waiting.imuEnd);
    if (ready.empty() && !over) {
        eventfd_t none = 0;
        eventfd_read(event, &none);
    }
    changed.notify_all();
    return std::move(waiting.frame);
}

/// Gives the packets that came before the frame's record. The mutex is held.
void FrameQueue::takeImu(StereoFrame& frame, std::uint64_t end)
{
    const std::uint64_t count = std::min<std::uint64_t>(end - std::min(end, imuBegin), imu.size());
    const auto stop = imu.begin() + static_cast<std::ptrdiff_t>(count);
    frame.imu.assign(imu.begin(), stop);
    imu.erase(imu.begin(), stop);
    imuBegin += count;
}

bool FrameQueue::isEmpty() const
{
    const Lock lock(mutex);
    return ready.empty();
}

std::uint64_t FrameQueue::dropped() const
{
    const Lock lock(mutex);
    return lost;
}

void FrameQueue::signal() const
{
    eventfd_write(event, 1);
}

}  // namespace receive
