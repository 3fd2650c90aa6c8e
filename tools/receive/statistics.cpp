// SPDX-License-Identifier: Apache-2.0
// Counting, status line and JSON of vistrel-receive.
#include "tools/receive/statistics.h"

#include <iomanip>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>

namespace receive {

namespace {

constexpr std::uint64_t kSettlingTime = 1000000000;  // ns
constexpr double kDarkLuma = 4;                      // mean below which an eye counts as black

const char* toString(EyeState state)
{
    constexpr const char* kNames[] = {"none", "dark", "still", "moving"};
    return kNames[static_cast<int>(state)];
}

}  // namespace

void LatencyHistogram::add(double milliseconds)
{
    // Of a number and NaN, these give the number.
    least = std::fmin(least, milliseconds);
    most = std::fmax(most, milliseconds);
    ++count;
    const double last = static_cast<double>(buckets.size() - 1);
    ++buckets[static_cast<std::size_t>(std::clamp(milliseconds * kBucketsPerMs, 0.0, last))];
}

double LatencyHistogram::percentile(double share) const
{
    const double wanted = std::max(1.0, std::ceil(share * static_cast<double>(count)));
    double seen = 0;
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        seen += buckets[i];
        if (seen >= wanted) {
            return static_cast<double>(i + 1) / kBucketsPerMs;
        }
    }
    return NAN;
}

void LossCounter::add(std::uint64_t counter, double elapsed)
{
    const std::uint64_t gap = last && counter > *last ? counter - *last - 1 : 0;
    // A second more, as what was lost may have been on its way.
    if (static_cast<double>(lost) + static_cast<double>(gap) <= rate * (elapsed + 1)) {
        lost += gap;
    }
    last = counter;
}

void Eye::update(std::vector<std::uint8_t> sample)
{
    mean = std::accumulate(sample.begin(), sample.end(), 0.0) / static_cast<double>(sample.size());
    const EyeState state = mean < kDarkLuma ? EyeState::DARK
                           : sample == last ? EyeState::STILL
                                            : EyeState::MOVING;
    interval = std::max(interval, state);
    last = std::move(sample);
}

void Statistics::finishedFrame(std::uint32_t rtpTime, std::uint64_t now)
{
    const std::optional<Place> recorded = places.find(rtpTime);
    ++totals.frames;
    if (!recorded) {
        ++framesWithoutRecord;
    } else {
        extendSpan(*recorded);
    }
    if (now == 0) {
        return;
    }
    const std::uint64_t captured =
        recorded ? recorded->captureTime : captureTimeFromRtp(rtpTime, now);
    const double milliseconds =
        static_cast<double>(static_cast<std::int64_t>(now - captured)) / 1e6;
    latency.add(milliseconds);
    totals.latency += milliseconds;
    ++totals.timedFrames;
}

void Statistics::extendSpan(const Place& place)
{
    if (!firstPlace || place.counter < lastPlace.counter) {
        firstPlace = place;
        span.reset();
    }
    lastPlace = place;
    if (!span && place.captureTime >= firstPlace->captureTime + kSettlingTime) {
        span = Span{place, place, 0};
        framesBeforeSpan = totals.frames - 1;
    }
    if (span) {
        span->last = place;
        span->frames = totals.frames - framesBeforeSpan;
    }
}

void Statistics::frameRecord(const FrameRecord& record, std::uint32_t rtpTime, double elapsed)
{
    if (lastRecord && record.serial != lastRecord->serial) {
        framesLost.restart();
    }
    framesLost.add(record.counter, elapsed);
    if (frameRecords++ == 0) {
        firstCaptureTime = record.captureTime;
    }
    eyesApart = std::max(eyesApart, std::abs(record.eyeOffset * 1e-6));
    mostEyesApart = std::max(mostEyesApart, eyesApart);
    lastRecord = record;
    places.add(rtpTime, {record.counter, record.captureTime, record.framesDropped});
}

void Statistics::imuRecord(const ImuRecord& record, double elapsed)
{
    imuPacketsLost.add(record.sequence, elapsed);
    if (totals.imuPackets++ == 0) {
        firstImuTime = record.timestamp;
    }
    lastImu = record;
}

std::string Statistics::statusLine(double seconds)
{
    const Totals before = std::exchange(shown, totals);
    const auto frames = static_cast<double>(totals.frames - before.frames);
    const auto bytes = static_cast<double>(totals.videoBytes - before.videoBytes);
    const auto imuPackets = static_cast<double>(totals.imuPackets - before.imuPackets);
    std::ostringstream line;
    line << (lastRecord ? std::to_string(lastRecord->serial) : "no serial") << "  " << width << 'x'
         << height << "  " << std::fixed << std::setprecision(1) << frames / seconds << " fps  "
         << bytes * 8e-6 / seconds << " Mbit/s  latency ";
    if (totals.timedFrames > before.timedFrames) {
        line << (totals.latency - before.latency) /
                    static_cast<double>(totals.timedFrames - before.timedFrames)
             << " ms";
    } else {
        line << '-';
    }
    line << "  lost " << framesLost.lost << "  IMU " << std::setprecision(0) << imuPackets / seconds
         << "/s";
    if (const double apart = std::exchange(eyesApart, 0); apart > 0) {
        line << "  eyes " << std::setprecision(1) << apart << " ms apart";
    }
    const auto addEye = [&](const char* name, Eye& eye) {
        eye.shown = std::exchange(eye.interval, EyeState::NONE);
        line << "  " << name << ' ';
        if (eye.shown != EyeState::NONE) {
            line << (lastRecord ? lastRecord->eyeWidth : static_cast<unsigned>(width) / 2) << 'x'
                 << (lastRecord ? lastRecord->eyeHeight : static_cast<unsigned>(height)) << ' ';
        }
        line << toString(eye.shown);
    };
    addEye("left", left);
    addEye("right", right);
    return line.str();
}

std::string Statistics::json(const std::string& url, double seconds) const
{
    const auto perSecond = [](double amount, double time) {
        return time > 0 ? amount / time : 0.0;
    };
    const auto allButFirst = [](std::uint64_t count) {
        return count > 0 ? static_cast<double>(count - 1) : 0.0;
    };
    const auto eye = [](const Eye& which) {
        return nlohmann::json{{"state", toString(std::max(which.shown, which.interval))},
                              {"meanLuma", std::round(which.mean * 10) / 10}};
    };
    const std::uint64_t imuTime = lastImu ? lastImu->timestamp - firstImuTime : 0;
    nlohmann::json document = {
        {"url", url},
        {"codec", codec},
        {"width", width},
        {"height", height},
        {"seconds", seconds},
        {"frames", totals.frames},
        {"framesReceived", framesReceived},
        {"videoPacketsLost", videoPacketsLost},
        {"keyFrames", keyFrames},
        {"framesLost", framesLost.lost},
        {"frameRecords", frameRecords},
        {"framesWithoutRecord", framesWithoutRecord},
        {"malformedRecords", malformedRecords},
        {"pairsWritten", pairsWritten},
        {"pairsLeftOut", pairsLeftOut},
        {"fps", perSecond(allButFirst(totals.frames), seconds)},
        {"bitrate", perSecond(static_cast<double>(totals.videoBytes) * 8, seconds)},
        // NaN is written as null.
        {"latencyMs",
         {{"p50", latency.percentile(0.5)},
          {"p99", latency.percentile(0.99)},
          {"min", latency.least},
          {"max", latency.most}}},
        {"imuPackets", totals.imuPackets},
        {"imuPacketsLost", imuPacketsLost.lost},
        {"imuRate", perSecond(allButFirst(totals.imuPackets), static_cast<double>(imuTime) / 1e9)},
        {"left", eye(left)},
        {"right", eye(right)},
    };
    if (lastRecord) {
        document["serial"] = lastRecord->serial;
        document["eyeWidth"] = lastRecord->eyeWidth;
        document["eyeHeight"] = lastRecord->eyeHeight;
        document["nominalFps"] = lastRecord->fps;
        document["mostMsBetweenEyes"] = mostEyesApart;
        document["framesDroppedBySender"] = lastRecord->framesDropped;
        document["firstCaptureTime"] = firstCaptureTime;
        document["lastCaptureTime"] = lastRecord->captureTime;
    }
    if (span) {
        document["span"] = {
            {"firstCounter", span->first.counter},
            {"lastCounter", span->last.counter},
            {"firstCaptureTime", span->first.captureTime},
            {"lastCaptureTime", span->last.captureTime},
            {"framesDroppedBySender", span->last.framesDropped - span->first.framesDropped},
            {"frames", span->frames},
        };
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
