// SPDX-License-Identifier: Apache-2.0
// Reader of the lists of a recording, and its loop.
#include "sdk/sources/recording.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "sdk/core/readfile.h"
#include "sdk/sources/streamfile.h"

namespace tq {

namespace {

namespace fs = std::filesystem;

constexpr int kFastest = 240;
// Four hours of pictures at 30 per second, 40 minutes of inertial data at 200.
constexpr std::size_t kMostEntries = 500000;
constexpr std::size_t kLargestList = 64u << 20;
constexpr std::size_t kLongestLine = 1000;
// Times can be added to it.
constexpr Timestamp kNever = std::numeric_limits<Timestamp>::max() / 4;
// Longer times are mistakes, and their sums would not fit.
constexpr Timestamp kLongestRecording = 86400u * Timestamp{1000000000};

[[noreturn]] void refuse(const fs::path& file, const std::string& reason)
{
    throw std::runtime_error(file.string() + ": " + reason);
}

using Fields = std::vector<std::string>;

Fields split(std::string_view line)
{
    Fields fields(1);
    for (const char c : line) {
        if (c == ',') {
            fields.emplace_back();
        } else if (c != '\r' && c != ' ' && c != '\t') {
            fields.back() += c;
        }
    }
    return fields;
}

/// Gives away the fields of every line of a list that is not empty and no comment.
template <typename Take>
void readList(const fs::path& file, std::size_t leastFields, Take take)
{
    const FileContents contents = readRegularFile(file.string(), kLargestList);
    if (!contents) {
        refuse(file, contents.error);
    }
    std::size_t taken = 0;
    std::string_view rest = *contents.bytes;
    for (int number = 1; !rest.empty(); ++number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        const std::string place = "line " + std::to_string(number);
        if (line.size() > kLongestLine) {
            refuse(file, place + ": is longer than " + std::to_string(kLongestLine) + " bytes");
        }
        const Fields fields = split(line);
        if (fields.front().substr(0, 1) == "#" || (fields.size() == 1 && fields[0].empty())) {
            continue;
        }
        if (fields.size() < leastFields) {
            refuse(file, place + ": too few fields");
        }
        if (++taken > kMostEntries) {
            refuse(file, "has more than " + std::to_string(kMostEntries) + " entries");
        }
        take(fields);
    }
    if (taken == 0) {
        refuse(file, "is empty");
    }
}

/// The whole text as a number, whatever the locale.
template <typename T>
bool parse(const std::string& text, T& value)
{
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc{} && rest == end;
}

bool parseReal(const std::string& text, double& value)
{
    // A leading plus sign is no part of what from_chars() knows.
    return parse(text.substr(text.compare(0, 1, "+") == 0 ? 1 : 0), value) && std::isfinite(value);
}

bool parsePacket(const Fields& fields, IMUPacket& packet)
{
    bool good = parse(fields[0], packet.timestamp);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        good = good && parseReal(fields[1 + axis], packet.angularRate[axis]) &&
               parseReal(fields[4 + axis], packet.acceleration[axis]);
    }
    packet.orientation[3] = 1;
    packet.validFields = IMU_ACCELERATION | IMU_ANGULAR_RATE;
    return good;
}

/// The begin of a recording that is played, the same for all that play it at a time.
std::shared_ptr<const Timestamp> commonBegin(const std::string& path, Timestamp now)
{
    static std::mutex mutex;
    static std::map<std::string, std::weak_ptr<const Timestamp>> begins;
    const std::lock_guard<std::mutex> lock(mutex);
    std::weak_ptr<const Timestamp>& known = begins[path];
    std::shared_ptr<const Timestamp> begin = known.lock();
    if (!begin) {
        begin = std::make_shared<const Timestamp>(now + Recording::kLead);
        known = begin;
    }
    return begin;
}

}  // namespace

Recording::Recording(const rig::RecordingSettings& settings, Timestamp now) : loop(settings.loop)
{
    std::error_code failure;
    if (fs::is_regular_file(settings.path, failure)) {
        openFile(settings);
    } else {
        openFolder(settings);
    }
    static const auto always = std::make_shared<const Timestamp>(0);
    begin = stream || !loop ? commonBegin(settings.path, now) : always;
}

void Recording::openFile(const rig::RecordingSettings& settings)
{
    if (settings.camera != "cam0" && settings.camera != "cam1") {
        refuse(settings.path, "has no " + settings.camera + ", only cam0 (left) and cam1 (right)");
    }
    streamEye = settings.camera == "cam0" ? StreamEye::LEFT : StreamEye::RIGHT;
    stream = StreamFile::open(settings.path, kMostEntries);
    for (const Timestamp time : stream->frameTimes()) {
        cameraFrames.push_back({time, {}});
    }
    folder = settings.path;
    findRate(settings.path);
    first = cameraFrames.front().time;
    duration = cameraFrames.back().time - first + 1000000000u / static_cast<Timestamp>(fps);
}

void Recording::openFolder(const rig::RecordingSettings& settings)
{
    std::error_code failure;
    const fs::path inner = fs::path(settings.path) / "mav0";
    folder = fs::is_directory(inner, failure) ? inner.string() : settings.path;
    if (!fs::is_directory(folder, failure)) {
        refuse(folder, "is not a folder, nor a file");
    }
    cameraFrames = readFrames(settings.camera);
    findRate(folder + "/" + settings.camera + "/data.csv");
    makeLoop();
}

void Recording::findRate(const std::string& list)
{
    if (cameraFrames.size() < 2) {
        refuse(list, "has fewer than two frames");
    }
    const auto intervals = static_cast<double>(cameraFrames.size() - 1);
    const auto span = static_cast<double>(cameraFrames.back().time - cameraFrames.front().time);
    fps = static_cast<int>(std::lround(std::min(1e6, intervals * 1e9 / span)));
    if (fps < 1 || fps > kFastest) {
        refuse(list, "the frame rate is not from 1 to " + std::to_string(kFastest));
    }
}

std::vector<RecordedFrame> Recording::readFrames(const std::string& camera) const
{
    const fs::path list = fs::path(folder) / camera / "data.csv";
    std::vector<RecordedFrame> frames;
    readList(list, 2, [&](const Fields& fields) {
        RecordedFrame frame;
        if (!parse(fields[0], frame.time) ||
            (!frames.empty() && frame.time <= frames.back().time)) {
            refuse(list, "timestamp \"" + fields[0] + "\" is not a later time");
        }
        frame.file = (list.parent_path() / "data" / fields[1]).string();
        frames.push_back(std::move(frame));
    });
    return frames;
}

void Recording::makeLoop()
{
    // Over all cameras of the recording, so that each of them comes to the same loop.
    first = cameraFrames.front().time;
    Timestamp last = cameraFrames.back().time;
    for (int i = 0; i < 8; ++i) {
        try {
            const std::vector<RecordedFrame> others = readFrames("cam" + std::to_string(i));
            first = std::min(first, others.front().time);
            last = std::max(last, others.back().time);
        } catch (const std::runtime_error&) {
            continue;  // it is absent or of no use, and so no part of the loop
        }
    }
    if (last - first > kLongestRecording) {
        refuse(folder, "lasts longer than a day");
    }
    // One period more than the span; rounded, so that cameras whose own spans differ by some
    // nanoseconds agree.
    duration = last - first + 1000000000u / static_cast<Timestamp>(fps);
}

std::vector<IMUPacket> Recording::readImuList() const
{
    const fs::path list = fs::path(folder) / "imu0" / "data.csv";
    std::vector<IMUPacket> packets;
    readList(list, 7, [&](const Fields& fields) {
        IMUPacket packet{};
        if (!parsePacket(fields, packet) ||
            (!packets.empty() && packet.timestamp <= packets.back().timestamp)) {
            refuse(list, "malformed line with timestamp \"" + fields[0] + "\"");
        }
        packets.push_back(packet);
    });
    return packets;
}

std::vector<IMUPacket> Recording::readImu() const
{
    std::vector<IMUPacket> packets = stream ? stream->imuPackets() : readImuList();
    // What lies outside the loop is not played; the last half period would collide with the
    // first packet of the next round.
    const Timestamp period =
        packets.size() < 2
            ? 0
            : (packets.back().timestamp - packets.front().timestamp) / (packets.size() - 1);
    const Timestamp end = first + duration - std::min(period, duration) / 2;
    const auto isOutside = [&](const IMUPacket& packet) {
        return packet.timestamp < first || packet.timestamp >= end;
    };
    packets.erase(std::remove_if(packets.begin(), packets.end(), isOutside), packets.end());
    if (packets.empty()) {
        refuse(stream ? folder : folder + "/imu0/data.csv",
               "has no packet between the first and the last frame");
    }
    return packets;
}

Timestamp Recording::playedFrame(std::uint64_t number) const
{
    if (isOver(number)) {
        return kNever;
    }
    const std::size_t count = cameraFrames.size();
    return *begin + number / count * duration + (cameraFrames[number % count].time - first);
}

std::uint64_t Recording::firstAfter(Timestamp time) const
{
    std::uint64_t number = time < *begin ? 0 : (time - *begin) / duration * cameraFrames.size();
    while (playedFrame(number) <= time) {
        ++number;
    }
    return number;
}

void Recording::playImu(const std::vector<IMUPacket>& packets, Timestamp from, Timestamp to,
                        std::vector<IMUPacket>& into) const
{
    const Timestamp since = std::max(from, *begin) - *begin;
    for (Timestamp start = *begin + since - since % duration;
         start <= to && (loop || start == *begin); start += duration) {
        for (IMUPacket packet : packets) {
            packet.timestamp = start + (packet.timestamp - first);
            if (packet.timestamp > from && packet.timestamp <= to) {
                into.push_back(packet);
            }
        }
    }
}

}  // namespace tq
