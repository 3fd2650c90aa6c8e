// SPDX-License-Identifier: Apache-2.0
// Counting, status line and JSON of vistrel-receive.
#include "tools/receive/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

namespace receive {

namespace {

constexpr double kBucketsPerMs = 10;
constexpr std::size_t kBuckets = 100000;  // ten seconds; what lies beyond counts as that
constexpr std::size_t kRememberedFrames = 256;
constexpr double kDarkLuma = 4;  // mean below which an eye counts as black

nlohmann::json orNull(const std::optional<double>& value)
{
    return value ? nlohmann::json(*value) : nlohmann::json();
}

std::string fixed(double value, int decimals)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

}  // namespace

LatencyHistogram::LatencyHistogram() : buckets(kBuckets) {}

void LatencyHistogram::add(double milliseconds)
{
    smallest = count == 0 ? milliseconds : std::min(smallest, milliseconds);
    largest = count == 0 ? milliseconds : std::max(largest, milliseconds);
    ++count;
    const double index = std::clamp(milliseconds * kBucketsPerMs, 0.0, double{kBuckets - 1});
    ++buckets[static_cast<std::size_t>(index)];
}

std::optional<double> LatencyHistogram::percentile(double share) const
{
    if (count == 0) {
        return std::nullopt;
    }
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
        seen += buckets[i];
        if (seen >= std::max<std::uint64_t>(wanted, 1)) {
            return (static_cast<double>(i) + 1) / kBucketsPerMs;
        }
    }
    return largest;
}

std::optional<double> LatencyHistogram::least() const
{
    return count ? std::optional<double>(smallest) : std::nullopt;
}

std::optional<double> LatencyHistogram::most() const
{
    return count ? std::optional<double>(largest) : std::nullopt;
}

const char* toString(EyeState state)
{
    switch (state) {
        case EyeState::NONE: return "none";
        case EyeState::DARK: return "dark";
        case EyeState::STILL: return "still";
        case EyeState::MOVING: return "moving";
    }
    return "none";
}

void Statistics::Eye::update(EyeSample sample)
{
    if (sample.luma.empty()) {
        return;
    }
    const auto sum = std::accumulate(sample.luma.begin(), sample.luma.end(), std::uint64_t{0});
    mean = static_cast<double>(sum) / static_cast<double>(sample.luma.size());
    const EyeState state = mean < kDarkLuma           ? EyeState::DARK
                           : sample.luma == last.luma ? EyeState::STILL
                                                      : EyeState::MOVING;
    interval = std::max(interval, state);
    last = std::move(sample);
}

void Statistics::videoPacket(std::size_t bytes)
{
    const std::lock_guard<std::mutex> lock(mutex);
    interval.videoBytes += bytes;
    videoBytes += bytes;
}

void Statistics::codedFrame(bool keyFrame)
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++framesReceived;
    if (keyFrame) {
        ++keyFrames;
    }
}

void Statistics::finishedFrame(std::uint32_t rtpTime, std::uint64_t now)
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++framesFinished;
    ++interval.frames;
    if (captureTimes.find(rtpTime) == captureTimes.end()) {
        ++framesWithoutRecord;
    }
    const std::uint64_t captured = captureTimeOf(rtpTime, now);
    const double milliseconds =
        static_cast<double>(static_cast<std::int64_t>(now - captured)) / 1e6;
    latency.add(milliseconds);
    interval.latencySum += milliseconds;
    ++interval.latencyCount;
}

void Statistics::pictureSize(int pictureWidth, int pictureHeight)
{
    const std::lock_guard<std::mutex> lock(mutex);
    width = pictureWidth;
    height = pictureHeight;
}

void Statistics::eyes(EyeSample leftSample, EyeSample rightSample)
{
    const std::lock_guard<std::mutex> lock(mutex);
    left.update(std::move(leftSample));
    right.update(std::move(rightSample));
}

void Statistics::codecName(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex);
    codec = name;
}

void Statistics::frameRecord(const FrameRecord& record, std::uint32_t rtpTime)
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++frameRecords;
    // A counter that runs backwards belongs to a sender that was started again.
    if (lastRecord && record.serial == lastRecord->serial && record.counter > lastRecord->counter) {
        framesLost += record.counter - lastRecord->counter - 1;
    }
    if (!lastRecord) {
        firstCaptureTime = record.captureTime;
    }
    lastRecord = record;

    if (captureOrder.size() < kRememberedFrames) {
        captureOrder.push_back(rtpTime);
    } else {
        captureTimes.erase(captureOrder[captureNext]);
        captureOrder[captureNext] = rtpTime;
        captureNext = (captureNext + 1) % kRememberedFrames;
    }
    captureTimes[rtpTime] = record.captureTime;
}

void Statistics::imuRecord(const ImuRecord& record)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (lastImuSequence && record.sequence > *lastImuSequence) {
        imuGaps += record.sequence - *lastImuSequence - 1;
    }
    lastImuSequence = record.sequence;
    if (imuPackets == 0) {
        firstImuTime = record.timestamp;
    }
    lastImuTime = record.timestamp;
    ++imuPackets;
    ++interval.imuPackets;
}

void Statistics::malformedRecord()
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++malformedRecords;
}

std::uint64_t Statistics::frames() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return framesFinished;
}

std::uint64_t Statistics::captureTimeOf(std::uint32_t rtpTime, std::uint64_t now) const
{
    const auto known = captureTimes.find(rtpTime);
    return known != captureTimes.end() ? known->second : captureTimeFromRtp(rtpTime, now);
}

std::string Statistics::eyeText(const char* name, const Eye& eye) const
{
    std::string text = std::string(name) + ' ';
    if (eye.shown == EyeState::NONE) {
        return text + "none";
    }
    const int eyeWidth = lastRecord ? static_cast<int>(lastRecord->eyeWidth) : width / 2;
    const int eyeHeight = lastRecord ? static_cast<int>(lastRecord->eyeHeight) : height;
    return text + std::to_string(eyeWidth) + 'x' + std::to_string(eyeHeight) + ' ' +
           toString(eye.shown);
}

std::string Statistics::statusLine(double seconds)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (Eye* eye : {&left, &right}) {
        eye->shown = std::exchange(eye->interval, EyeState::NONE);
    }
    const Interval done = std::exchange(interval, Interval{});
    std::string line = lastRecord ? std::to_string(lastRecord->serial) : std::string("no serial");
    line += "  " + std::to_string(width) + 'x' + std::to_string(height);
    line += "  " + fixed(static_cast<double>(done.frames) / seconds, 1) + " fps";
    line += "  " + fixed(static_cast<double>(done.videoBytes) * 8e-6 / seconds, 1) + " Mbit/s";
    line += "  latency " +
            (done.latencyCount
                 ? fixed(done.latencySum / static_cast<double>(done.latencyCount), 1) + " ms"
                 : std::string("-"));
    line += "  lost " + std::to_string(framesLost);
    line += "  IMU " + fixed(static_cast<double>(done.imuPackets) / seconds, 0) + "/s";
    return line + "  " + eyeText("left", left) + "  " + eyeText("right", right);
}

std::string Statistics::json(const std::string& url, double seconds) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto perSecond = [&](double amount) { return seconds > 0 ? amount / seconds : 0.0; };
    const auto eye = [](const Eye& which) {
        return nlohmann::json{{"state", toString(std::max(which.shown, which.interval))},
                              {"meanLuma", std::round(which.mean * 10) / 10}};
    };
    const double imuSeconds = static_cast<double>(lastImuTime - firstImuTime) / 1e9;
    nlohmann::json document = {
        {"url", url},
        {"codec", codec},
        {"width", width},
        {"height", height},
        {"seconds", seconds},
        {"frames", framesFinished},
        {"framesReceived", framesReceived},
        {"keyFrames", keyFrames},
        {"framesLost", framesLost},
        {"frameRecords", frameRecords},
        {"framesWithoutRecord", framesWithoutRecord},
        {"malformedRecords", malformedRecords},
        {"fps", perSecond(framesFinished > 1 ? static_cast<double>(framesFinished - 1) : 0)},
        {"bitrate", perSecond(static_cast<double>(videoBytes) * 8)},
        {"latencyMs",
         {{"p50", orNull(latency.percentile(0.5))},
          {"p99", orNull(latency.percentile(0.99))},
          {"min", orNull(latency.least())},
          {"max", orNull(latency.most())}}},
        {"imuPackets", imuPackets},
        {"imuPacketsLost", imuGaps},
        {"imuRate", imuSeconds > 0 ? static_cast<double>(imuPackets - 1) / imuSeconds : 0.0},
        {"left", eye(left)},
        {"right", eye(right)},
    };
    if (lastRecord) {
        document["serial"] = lastRecord->serial;
        document["eyeWidth"] = lastRecord->eyeWidth;
        document["eyeHeight"] = lastRecord->eyeHeight;
        document["nominalFps"] = lastRecord->fps;
        document["framesDroppedBySender"] = lastRecord->framesDropped;
        document["firstCaptureTime"] = firstCaptureTime;
        document["lastCaptureTime"] = lastRecord->captureTime;
    }
    return document.dump(2);
}

std::uint64_t captureTimeFromRtp(std::uint32_t rtpTime, std::uint64_t near)
{
    // In 1/90000 s; whole seconds and rest apart, so that nothing overflows.
    const std::uint64_t nearTicks = near / 1000000000u * 90000u + near % 1000000000u * 9u / 100000u;
    const auto distance =
        static_cast<std::int32_t>(rtpTime - static_cast<std::uint32_t>(nearTicks));
    const std::uint64_t ticks = nearTicks + static_cast<std::uint64_t>(std::int64_t{distance});
    return ticks / 90000u * 1000000000u + ticks % 90000u * 100000u / 9u;
}

}  // namespace receive
