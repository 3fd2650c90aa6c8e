// SPDX-License-Identifier: Apache-2.0
// Reader of the lists of a recording.
#include "sdk/sources/recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace tq {

namespace {

namespace fs = std::filesystem;

constexpr int kFastest = 240;

/// The fields of every line of a list that is not empty and no comment.
bool readList(const fs::path& file, std::size_t leastFields,
              std::vector<std::vector<std::string>>& lines, std::string& reason)
{
    std::ifstream stream(file);
    if (!stream) {
        reason = file.string() + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        line.erase(std::remove_if(line.begin(), line.end(),
                                  [](char c) { return c == '\r' || c == ' ' || c == '\t'; }),
                   line.end());
        if (line.empty() || line.front() == '#') {
            continue;
        }
        std::vector<std::string> fields(1);
        for (const char c : line) {
            if (c == ',') {
                fields.emplace_back();
            } else {
                fields.back() += c;
            }
        }
        if (fields.size() < leastFields) {
            reason = file.string() + ": line " + std::to_string(number) + ": too few fields";
            return false;
        }
        lines.push_back(std::move(fields));
    }
    if (lines.empty()) {
        reason = file.string() + ": is empty";
        return false;
    }
    return true;
}

bool parseTime(const std::string& text, Timestamp& time)
{
    char* end = nullptr;
    errno = 0;
    time = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && !text.empty() && *end == '\0' && text.front() >= '0' &&
           text.front() <= '9';
}

bool parseReal(const std::string& text, double& value)
{
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(value);
}

bool parsePacket(const std::vector<std::string>& fields, IMUPacket& packet)
{
    packet = IMUPacket{};
    bool good = parseTime(fields[0], packet.timestamp);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        good = good && parseReal(fields[1 + axis], packet.angularRate[axis]) &&
               parseReal(fields[4 + axis], packet.acceleration[axis]);
    }
    packet.orientation[3] = 1;
    packet.validFields = IMU_ACCELERATION | IMU_ANGULAR_RATE;
    return good;
}

}  // namespace

Recording::Recording(const std::string& path)
{
    std::error_code failure;
    const fs::path inner = fs::path(path) / "mav0";
    folder = fs::is_directory(inner, failure) ? inner.string() : path;
}

bool Recording::readFrames(const std::string& camera, std::vector<RecordedFrame>& into,
                           std::string& reason) const
{
    const fs::path list = fs::path(folder) / camera / "data.csv";
    std::vector<std::vector<std::string>> lines;
    if (!readList(list, 2, lines, reason)) {
        return false;
    }
    for (const std::vector<std::string>& fields : lines) {
        RecordedFrame frame;
        if (!parseTime(fields[0], frame.time) ||
            (!into.empty() && frame.time <= into.back().time)) {
            reason = list.string() + ": timestamp \"" + fields[0] + "\" is not a later time";
            return false;
        }
        frame.file = (list.parent_path() / "data" / fields[1]).string();
        into.push_back(std::move(frame));
    }
    return true;
}

bool Recording::readCamera(const std::string& camera, std::string& reason)
{
    std::error_code failure;
    if (!fs::is_directory(folder, failure)) {
        reason = folder + ": is not a folder";
        return false;
    }
    cameraFrames.clear();
    if (!readFrames(camera, cameraFrames, reason)) {
        return false;
    }
    if (cameraFrames.size() < 2) {
        reason = folder + "/" + camera + "/data.csv: has fewer than two frames";
        return false;
    }
    makeLoop();
    if (fps < 1 || fps > kFastest) {
        reason = folder + "/" + camera + "/data.csv: the frame rate is not from 1 to " +
                 std::to_string(kFastest);
        return false;
    }
    return true;
}

void Recording::makeLoop()
{
    // Over all cameras of the recording, so that each of them comes to the same loop.
    Timestamp first = cameraFrames.front().time;
    Timestamp last = cameraFrames.back().time;
    for (int i = 0; i < 8; ++i) {
        std::vector<RecordedFrame> others;
        std::string ignored;
        if (readFrames("cam" + std::to_string(i), others, ignored)) {
            first = std::min(first, others.front().time);
            last = std::max(last, others.back().time);
        }
    }
    const auto intervals = static_cast<double>(cameraFrames.size() - 1);
    const auto span = static_cast<double>(cameraFrames.back().time - cameraFrames.front().time);
    fps = static_cast<int>(std::lround(std::min(1e6, intervals * 1e9 / span)));
    // One period more than the span; rounded, so that cameras whose own spans differ by some
    // nanoseconds agree.
    const Timestamp period = fps > 0 ? 1000000000u / static_cast<Timestamp>(fps) : 1000000000u;
    playback.first = first;
    playback.duration = last - first + period;
}

bool Recording::readImu(std::string& reason)
{
    const fs::path list = fs::path(folder) / "imu0" / "data.csv";
    std::vector<std::vector<std::string>> lines;
    if (!readList(list, 7, lines, reason)) {
        return false;
    }
    imuPackets.clear();
    for (const std::vector<std::string>& fields : lines) {
        IMUPacket packet{};
        if (!parsePacket(fields, packet) ||
            (!imuPackets.empty() && packet.timestamp <= imuPackets.back().timestamp)) {
            reason = list.string() + ": malformed line with timestamp \"" + fields[0] + "\"";
            return false;
        }
        imuPackets.push_back(packet);
    }
    // What lies outside the loop is not played; the last half period would collide with the
    // first packet of the next round.
    const Timestamp period = imuPackets.size() < 2
                                 ? 0
                                 : (imuPackets.back().timestamp - imuPackets.front().timestamp) /
                                       (imuPackets.size() - 1);
    const Timestamp end = playback.first + playback.duration - period / 2;
    imuPackets.erase(std::remove_if(imuPackets.begin(), imuPackets.end(),
                                    [&](const IMUPacket& packet) {
                                        return packet.timestamp < playback.first ||
                                               packet.timestamp >= end;
                                    }),
                     imuPackets.end());
    if (imuPackets.empty()) {
        reason = list.string() + ": has no packet between the first and the last frame";
        return false;
    }
    return true;
}

}  // namespace tq
