// SPDX-License-Identifier: Apache-2.0
// Coding and writing of the pictures of an ASL folder.
#include "tools/receive/aslwriter.h"

#include <fcntl.h>
#include <gst/video/video.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <utility>

#include "tools/receive/writefile.h"

namespace receive {

using Lock = std::unique_lock<std::mutex>;

namespace {

// Most of a second of 1920 x 1200 at 30 pairs per second.
constexpr std::size_t kMostWaiting = 100000000;  // bytes
constexpr std::size_t kMostEarly = 8;
constexpr std::uint32_t kInertial = 3;  // acceleration and angular rate are measured
constexpr const char* kImageHeading = "#timestamp [ns],filename\n";
constexpr const char* kImuHeading =
    "#timestamp [ns],w_RS_S_x [rad s^-1],w_RS_S_y [rad s^-1],w_RS_S_z [rad s^-1],"
    "a_RS_S_x [m s^-2],a_RS_S_y [m s^-2],a_RS_S_z [m s^-2]\n";

bool writeAll(int file, const void* bytes, std::size_t size)
{
    const auto* at = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t done = ::write(file, at, size);
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            return false;
        }
        at += done;
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

/// A grey picture as PNG, coded by libpng's fastest way; empty when it cannot be coded.
std::vector<std::uint8_t> encodePng(const std::vector<std::uint8_t>& luma, int width, int height)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_GRAY;
    image.flags = PNG_IMAGE_FLAG_FAST;
    png_alloc_size_t bytes = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::vector<std::uint8_t> file(bytes);
    const bool coded =
        png_image_write_to_memory(&image, file.data(), &bytes, 0, luma.data(), width, nullptr) != 0;
    file.resize(coded ? bytes : 0);
    return file;
}

}  // namespace

ListFile::~ListFile()
{
    if (file >= 0) {
        ::close(file);
    }
}

bool ListFile::open(const std::string& path, const std::string& heading)
{
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return file >= 0 && append(heading);
}

bool ListFile::append(const std::string& line)
{
    before = bytes;
    if (writeAll(file, line.data(), line.size())) {
        bytes += static_cast<std::int64_t>(line.size());
        return true;
    }
    const int reason = errno;
    takeBack();
    errno = reason;
    return false;
}

void ListFile::takeBack()
{
    bytes = before;
    if (::ftruncate(file, bytes) == 0) {
        ::lseek(file, bytes, SEEK_SET);
    }
}

/// Both eyes of one frame.
struct AslWriter::Pair {
    std::uint32_t mediaTime = 0;
    std::uint64_t number = 0;
    FrameRecord record;
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> eyes[2];  // luma, then PNG
};

AslWriter::AslWriter(std::string folder, bool waits,
                     std::function<void(const std::string&)> whenFailed)
    : mav(std::move(folder) + "/mav0"), patient(waits), onFailure(std::move(whenFailed))
{
}

AslWriter::~AslWriter()
{
    finish();
}

std::string AslWriter::open()
{
    std::error_code reason;
    std::filesystem::create_directories(std::filesystem::path(mav).parent_path(), reason);
    if (reason || !std::filesystem::create_directory(mav, reason)) {
        return mav + ": " + (reason ? reason.message() : "exists already");
    }
    for (int eye = 0; eye < 2; ++eye) {
        cameras[eye].folder = mav + "/cam" + std::to_string(eye);
        const std::string list = cameras[eye].folder + "/data.csv";
        std::filesystem::create_directories(cameras[eye].folder + "/data", reason);
        if (!cameras[eye].list.open(list, kImageHeading)) {
            return list + ": " + std::strerror(errno);
        }
    }
    std::filesystem::create_directory(mav + "/imu0", reason);
    const std::string list = mav + "/imu0/data.csv";
    if (!imuList.open(list, kImuHeading)) {
        return list + ": " + std::strerror(errno);
    }
    const unsigned most = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < most; ++i) {
        threads.emplace_back([this] { encode(); });
    }
    return {};
}

bool AslWriter::picture(const Frame& picture)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    if (!gst_video_info_from_caps(&info, picture.caps) ||
        !gst_video_frame_map(&frame, &info, picture.buffer, GST_MAP_READ)) {
        return true;
    }
    auto pair = std::make_unique<Pair>();
    pair->mediaTime = picture.time;
    pair->width = GST_VIDEO_FRAME_WIDTH(&frame) / 2;
    pair->height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const auto* row = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    for (int y = 0; y < pair->height; ++y, row += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0)) {
        pair->eyes[0].insert(pair->eyes[0].end(), row, row + pair->width);
        pair->eyes[1].insert(pair->eyes[1].end(), row + pair->width, row + 2 * pair->width);
    }
    gst_video_frame_unmap(&frame);
    Lock lock(mutex);
    if (const auto record = records.find(picture.time)) {
        pair->record = *record;
        return take(lock, std::move(pair));
    }
    if (failed || ending) {
        return false;
    }
    early.push_back(std::move(pair));
    if (early.size() > kMostEarly) {
        early.pop_front();
        ++leftOut;  // its record is lost
    }
    return true;
}

void AslWriter::record(const FrameRecord& record, std::uint32_t time)
{
    Lock lock(mutex);
    records.add(time, record);
    const auto found = std::find_if(early.begin(), early.end(),
                                    [time](const auto& pair) { return pair->mediaTime == time; });
    if (found != early.end()) {
        std::unique_ptr<Pair> pair = std::move(*found);
        leftOut += static_cast<std::uint64_t>(found - early.begin());
        early.erase(early.begin(), found + 1);
        pair->record = record;
        take(lock, std::move(pair));
    }
}

/// Gives a pair to the threads, or leaves it out.
/// @return false when it is too late for it
bool AslWriter::take(Lock& lock, std::unique_ptr<Pair> pair)
{
    const std::size_t most = 1 + kMostWaiting / (2 * pair->eyes[0].size() + 1);
    const auto isFull = [&] { return taken - stored >= most; };
    if (patient) {
        changed.wait(lock, [&] { return failed || ending || !isFull(); });
    }
    if (failed || ending) {
        return false;
    }
    // Lists are in the order of time, also where a clock is set back.
    if (isFull() || pair->record.captureTime <= lastTime) {
        ++leftOut;
        return true;
    }
    lastTime = pair->record.captureTime;
    pair->number = taken++;
    waiting.push_back(std::move(pair));
    changed.notify_all();
    return true;
}

/// The work of each thread.
void AslWriter::encode()
{
    Lock lock(mutex);
    while (true) {
        changed.wait(lock, [this] { return ending || !waiting.empty(); });
        if (waiting.empty()) {
            return;
        }
        std::unique_ptr<Pair> pair = std::move(waiting.front());
        waiting.pop_front();
        const bool useless = failed;
        lock.unlock();
        for (std::vector<std::uint8_t>& eye : pair->eyes) {
            eye = useless ? std::vector<std::uint8_t>() : encodePng(eye, pair->width, pair->height);
        }
        lock.lock();
        coded[pair->number] = std::move(pair);
        commit(lock);
    }
}

/// Stores the pairs that are due, one thread at a time.
void AslWriter::commit(Lock& lock)
{
    if (std::exchange(committing, true)) {
        return;
    }
    while (!coded.empty() && coded.begin()->first == stored) {
        const std::unique_ptr<Pair> pair = std::move(coded.begin()->second);
        coded.erase(coded.begin());
        const bool useless = failed;
        lock.unlock();
        const bool good = !useless && store(*pair);
        lock.lock();
        written += good ? 1 : 0;
        ++stored;
        changed.notify_all();
    }
    committing = false;
}

/// Writes a pair, or leaves nothing of it. Pictures come first: what a list names is there.
bool AslWriter::store(const Pair& pair)
{
    describe(pair);
    const std::string name = std::to_string(pair.record.captureTime);
    const auto file = [&](int eye) { return cameras[eye].folder + "/data/" + name + ".png"; };
    std::string problem;
    for (int eye = 0; eye < 2 && problem.empty(); ++eye) {
        errno = ENOMEM;
        if (pair.eyes[eye].empty() ||
            !writeFile(file(eye), pair.eyes[eye].data(), pair.eyes[eye].size())) {
            problem = file(eye);
        }
    }
    const std::string line = name + "," + name + ".png\n";
    const bool left = problem.empty() && cameras[0].list.append(line);
    if (left && cameras[1].list.append(line)) {
        return true;
    }
    problem = problem.empty() ? cameras[left ? 1 : 0].folder + "/data.csv" : problem;
    problem += std::string(": ") + std::strerror(errno);
    if (left) {
        cameras[0].list.takeBack();
    }
    ::unlink(file(0).c_str());
    ::unlink(file(1).c_str());
    fail(problem);
    return false;
}

void AslWriter::fail(const std::string& problem)
{
    Lock lock(mutex);
    const bool first = !std::exchange(failed, true);
    changed.notify_all();
    lock.unlock();
    if (first) {
        onFailure(problem);
    }
}

/// Says of each camera what is known of it.
void AslWriter::describe(const Pair& pair)
{
    if (std::exchange(described, true)) {
        return;
    }
    for (int eye = 0; eye < 2; ++eye) {
        std::ostringstream text;
        text << "sensor_type: camera\n"
             << "comment: " << (eye == 0 ? "left" : "right") << " eye of the stereo camera "
             << pair.record.serial << ", the luma of its stream\n"
             << "rate_hz: " << pair.record.fps << "\n"
             << "resolution: [" << pair.width << ", " << pair.height << "]\n"
             << "# Not known: T_BS, camera_model, intrinsics, distortion_model, "
                "distortion_coefficients\n";
        const std::string path = cameras[eye].folder + "/sensor.yaml";
        if (!writeFile(path, text.str().data(), text.str().size())) {
            fail(path + ": " + std::strerror(errno));
        }
    }
}

void AslWriter::imu(const ImuRecord& record)
{
    Lock lock(mutex);
    if (failed || ending || (record.validFields & kInertial) != kInertial ||
        record.timestamp <= lastImu) {
        return;
    }
    std::ostringstream line;
    line.precision(17);  // reads back as the same number
    line << record.timestamp;
    for (const int value : {3, 4, 5, 0, 1, 2}) {
        line << ',' << record.values[value];
    }
    line << '\n';
    if (!imuList.append(line.str())) {
        const std::string reason = std::strerror(errno);
        lock.unlock();
        fail(mav + "/imu0/data.csv: " + reason);
        return;
    }
    firstImu = imuPackets++ == 0 ? record.timestamp : firstImu;
    lastImu = record.timestamp;
}

void AslWriter::finish()
{
    Lock lock(mutex);
    leftOut += std::exchange(early, {}).size();
    const bool again = std::exchange(ending, true);
    changed.notify_all();
    lock.unlock();
    for (std::thread& thread : std::exchange(threads, {})) {
        thread.join();
    }
    if (again || failed || imuPackets < 2) {
        return;
    }
    std::ostringstream text;
    text << "sensor_type: imu\n"
         << "comment: inertial unit of the left camera\n"
         << "rate_hz: "
         << static_cast<double>(imuPackets - 1) * 1e9 / static_cast<double>(lastImu - firstImu)
         << "\n# Not known: T_BS, gyroscope_noise_density, gyroscope_random_walk,\n"
            "# accelerometer_noise_density, accelerometer_random_walk\n";
    const std::string path = mav + "/imu0/sensor.yaml";
    if (!writeFile(path, text.str().data(), text.str().size())) {
        fail(path + ": " + std::strerror(errno));
    }
}

std::uint64_t AslWriter::pairsWritten() const
{
    const Lock lock(mutex);
    return written;
}

std::uint64_t AslWriter::pairsLeftOut() const
{
    const Lock lock(mutex);
    return leftOut;
}

}  // namespace receive
