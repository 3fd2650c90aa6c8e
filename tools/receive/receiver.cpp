// SPDX-License-Identifier: Apache-2.0
// The work of vistrel-receive.
#include "tools/receive/receiver.h"

#include <gst/video/video.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>
#include <utility>

#include "tools/receive/writefile.h"

namespace receive {

using tq::CapsPtr;
using tq::Failure;
using tq::SamplePtr;
using Lock = std::lock_guard<std::mutex>;

namespace {

constexpr GstClockTime kPoll = 20 * GST_MSECOND;
constexpr auto kClosePatience = std::chrono::seconds(1);
constexpr GstClockTime kSnapshotPatience = 10 * GST_SECOND;
constexpr int kEyeGrid = 24;  // samples per row and column of an eye

/// ns since 1970
std::uint64_t realTime()
{
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(now.count());
}

double seconds(std::chrono::steady_clock::duration time)
{
    return std::chrono::duration<double>(time).count();
}

void tell(const std::string& text)
{
    std::cerr << "vistrel-receive: " << printable(text) << '\n';
}

/// Memory of this process's own, without programs and libraries, MB
std::uint64_t memoryInUse()
{
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    std::uint64_t shared = 0;
    std::ifstream("/proc/self/statm") >> size >> resident >> shared;
    return (resident - shared) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) / 1000000u;
}

/// Does something that may wait for others. When it takes longer than that, it goes on.
/// @return whether it is done
template <typename Task>
bool doneWithin(std::chrono::seconds patience, Task task)
{
    std::packaged_task<void()> packaged(std::move(task));
    const std::future<void> done = packaged.get_future();
    std::thread(std::move(packaged)).detach();
    return done.wait_for(patience) == std::future_status::ready;
}

/// Luma of one eye on a coarse grid.
std::vector<std::uint8_t> sampleEye(const GstVideoFrame& frame, int eye)
{
    const int width = GST_VIDEO_FRAME_WIDTH(&frame) / 2;
    const int height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const auto* luma = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    std::vector<std::uint8_t> sample;
    for (int row = 0; row < kEyeGrid; ++row) {
        const auto* line =
            luma + static_cast<std::ptrdiff_t>((2 * row + 1) * height / (2 * kEyeGrid)) * stride;
        for (int column = 0; column < kEyeGrid; ++column) {
            sample.push_back(line[eye * width + (2 * column + 1) * width / (2 * kEyeGrid)]);
        }
    }
    return sample;
}

}  // namespace

Receiver::Receiver(const Options& receiveOptions)
    : options(receiveOptions), session(options.source, events())
{
    if (!options.recording.empty()) {
        recorder = std::make_unique<Recorder>(options.recording, [this](const std::string& reason) {
            const Lock lock(mutex);
            recordingFailed = true;
            fileFailed(options.recording, reason);
        });
    }
    if (!options.aslFolder.empty()) {
        asl = std::make_unique<AslWriter>(options.aslFolder, options.source.isFile(),
                                          [this](const std::string& problem) {
                                              const Lock lock(mutex);
                                              recordingFailed = true;
                                              fileFailed(problem);
                                          });
    }
}

SessionEvents Receiver::events()
{
    SessionEvents told;
    told.videoBytes = [this](std::size_t bytes) {
        const Lock lock(mutex);
        counts.totals.videoBytes += bytes;
    };
    told.videoPacketsLost = [this](unsigned packets) {
        const Lock lock(mutex);
        counts.videoPacketsLost += packets;
    };
    told.codedFrame = [this](const Frame& frame) { onCodedFrame(frame); };
    told.picture = [this](const Frame& picture) { onPicture(picture); };
    told.dataUnit = [this](const DataUnit& unit) { onDataUnit(unit); };
    told.remark = [](const std::string& text) { tell(text + " (see --ca and --insecure)"); };
    return told;
}

ExitStatus Receiver::run(const volatile std::sig_atomic_t& stop)
{
    const std::string distrust = session.trust();
    if (!distrust.empty()) {
        tell(distrust);
        return WRONG_USE;
    }
    if (!openFiles()) {
        tell(fileError);
        return FILE_ERROR;
    }
    if (start()) {
        while (stop == 0 && !finished() && !sessionEnded()) {
            if (!options.source.isFile()) {
                const Lock lock(mutex);
                showStatus(elapsed());
            }
        }
    }
    finishRecording();
    finishAsl();
    std::unique_lock<std::mutex> lock(mutex);  // nothing is counted and written meanwhile
    finishFiles();
    if (!fileError.empty()) {
        tell(fileError);
    }
    const bool written = writeStatistics() && fileError.empty();
    const bool received = counts.totals.frames > 0 && counts.totals.frames >= options.frames;
    const ExitStatus status = !written ? FILE_ERROR : received ? SUCCESS : NO_FRAMES;
    lock.unlock();
    // A sender that goes on talking can hold this up for ever, and so can a disk.
    if (!doneWithin(std::min(patience, kClosePatience), [this] {
            session.stop();
            if (recorder) {
                recorder->stop();
            }
        })) {
        std::_Exit(status);
    }
    lock.lock();  // what the streaming threads did comes before what follows
    return status;
}

bool Receiver::openFiles()
{
    if (!options.imuFile.empty()) {
        imuFile.open(options.imuFile);
        imuFile.precision(17);  // reads back as the same number
        imuFile << "timestamp_ns,sequence,valid_fields,acceleration_x,acceleration_y,"
                   "acceleration_z,angular_rate_x,angular_rate_y,angular_rate_z,magnetic_x,"
                   "magnetic_y,magnetic_z,orientation_x,orientation_y,orientation_z,"
                   "orientation_w,temperature,pressure\n";
        if (!imuFile) {
            fileFailed(options.imuFile, std::strerror(errno));
        }
    }
    for (const std::string& path : {options.snapshot, options.recording}) {
        if (fileError.empty() && !path.empty() && !writeFile(path, "", 0)) {
            fileFailed(path, std::strerror(errno));
        }
    }
    const std::string problem = asl && fileError.empty() ? asl->open() : "";
    if (!problem.empty()) {
        fileFailed(problem);
    }
    return fileError.empty();
}

bool Receiver::start()
{
    const std::string problem = session.start();
    if (!problem.empty()) {
        tell(problem);
    }
    return problem.empty();
}

bool Receiver::finished()
{
    const Lock lock(mutex);
    if (hasAllFrames() || (options.duration > 0 && elapsed() >= options.duration)) {
        return true;
    }
    if (options.timeout > 0 && seconds(Clock::now() - lastFrame) >= options.timeout) {
        std::ostringstream reason;
        reason << "no frame for " << options.timeout << " s";
        tell(reason.str());
        return true;
    }
    if (memoryInUse() > options.memory) {
        patience = {};  // or it would go on growing
        tell("more than " + std::to_string(options.memory) +
             " MB of memory are in use (--memory allows more)");
        return true;
    }
    return recordingFailed;
}

/// Waits for news of the session for a while.
bool Receiver::sessionEnded()
{
    const std::optional<std::string> reason = session.ended(kPoll);
    const Lock lock(mutex);
    if (reason && !reason->empty() && fileError.empty()) {
        tell(*reason);
    }
    return reason.has_value();
}

/// The mutex is held.
/// @param at seconds, of the recording where it is one
void Receiver::showStatus(double at)
{
    const double passed = at - shownAt;
    if (passed < 1) {
        return;
    }
    shownAt = at;
    const std::string line = counts.statusLine(passed);
    if (!options.quiet && counts.totals.frames > 0) {
        std::cout << line << '\n' << std::flush;
    }
}

void Receiver::finishRecording()
{
    if (recorder && !recorder->finish(patience)) {
        const Lock lock(mutex);
        fileFailed(options.recording, "could not be completed");
    }
}

void Receiver::finishAsl()
{
    if (!asl) {
        return;
    }
    asl->finish();
    const Lock lock(mutex);
    counts.pairsWritten = asl->pairsWritten();
    counts.pairsLeftOut = asl->pairsLeftOut();
    if (counts.pairsLeftOut > 0) {
        tell(options.aslFolder + ": " + std::to_string(counts.pairsLeftOut) + " of " +
             std::to_string(counts.pairsLeftOut + counts.pairsWritten) +
             " pairs are left out: they came faster than they could be written, or without their "
             "time");
    }
}

/// The mutex is held.
void Receiver::finishFiles()
{
    if (imuFile.is_open()) {
        imuFile.close();
        if (!imuFile) {
            fileFailed(options.imuFile, std::strerror(errno));
        }
    }
    // What was removed in the meantime has been written to nobody's use.
    for (const std::string& path : {options.snapshot, options.recording, options.imuFile}) {
        struct stat status = {};
        if (!path.empty() && stat(path.c_str(), &status) != 0) {
            fileFailed(path, std::strerror(errno));
        }
    }
}

bool Receiver::writeStatistics()
{
    if (options.statistics.empty()) {
        return true;
    }
    const std::string text =
        counts.json(withoutCredentials(options.source.url), lastFrameAt - firstFrameAt) + '\n';
    if (options.statistics == "-") {
        std::cout << text << std::flush;
        return std::cout.good();
    }
    if (!writeFile(options.statistics, text.data(), text.size())) {
        tell(options.statistics + ": " + std::strerror(errno));
        return false;
    }
    return true;
}

void Receiver::onCodedFrame(const Frame& frame)
{
    // So that the file holds what is counted, neither less nor more.
    if (recorder && !recorder->add(frame, session.hasData())) {
        return;
    }
    const Lock lock(mutex);
    counts.codec = session.codec();
    ++counts.framesReceived;
    if (!GST_BUFFER_FLAG_IS_SET(frame.buffer, GST_BUFFER_FLAG_DELTA_UNIT)) {
        ++counts.keyFrames;
    }
    if (!options.source.decode) {
        finishedFrame(frame.time, realTime());
    }
}

void Receiver::onPicture(const Frame& picture)
{
    const std::uint64_t now = realTime();
    if (!options.snapshot.empty() && !std::exchange(snapshotWritten, true)) {
        writeSnapshot(picture);
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (hasAllFrames()) {
        return;
    }
    lock.unlock();
    // So that the folder holds, or counts as left out, what is counted.
    if (asl && !asl->picture(picture)) {
        return;
    }
    lock.lock();
    sampleEyes(picture);
    finishedFrame(picture.time, now);
}

/// The mutex is held.
void Receiver::sampleEyes(const Frame& picture)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    if (gst_video_info_from_caps(&info, picture.caps) &&
        gst_video_frame_map(&frame, &info, picture.buffer, GST_MAP_READ)) {
        counts.width = GST_VIDEO_FRAME_WIDTH(&frame);
        counts.height = GST_VIDEO_FRAME_HEIGHT(&frame);
        counts.left.update(sampleEye(frame, 0));
        counts.right.update(sampleEye(frame, 1));
        gst_video_frame_unmap(&frame);
    }
}

/// The mutex is held.
void Receiver::finishedFrame(std::uint32_t time, std::uint64_t now)
{
    if (hasAllFrames()) {
        return;
    }
    const bool file = options.source.isFile();
    lastFrame = Clock::now();
    lastFrameAt = file ? played.at(time) : elapsed();
    firstFrameAt = counts.totals.frames == 0 ? lastFrameAt : firstFrameAt;
    counts.finishedFrame(time, file ? 0 : now);
    if (file) {
        showStatus(lastFrameAt);
    }
}

/// The mutex is held.
bool Receiver::hasAllFrames() const
{
    return options.frames > 0 && counts.totals.frames >= options.frames;
}

void Receiver::onDataUnit(const DataUnit& unit)
{
    if (recorder && !recorder->add(unit)) {
        return;
    }
    tq::wire::RecordHandler handler;
    if (asl) {
        handler.frame = [&](const FrameRecord& record) { asl->record(record, unit.time); };
        handler.imu = [&](const ImuRecord& record) { asl->imu(record); };
        tq::wire::readRecords(unit.bytes, unit.size, handler);
    }
    const Lock lock(mutex);
    if (options.source.isFile()) {
        played.at(unit.time);
    }
    handler.frame = [&](const FrameRecord& record) {
        counts.frameRecord(record, unit.time, elapsed());
    };
    handler.imu = [&](const ImuRecord& record) {
        counts.imuRecord(record, elapsed());
        writeImu(record);
    };
    if (!tq::wire::readRecords(unit.bytes, unit.size, handler)) {
        ++counts.malformedRecords;
    }
}

void Receiver::writeSnapshot(const Frame& picture)
{
    const SamplePtr raw(gst_sample_new(picture.buffer, picture.caps, nullptr, nullptr));
    const CapsPtr format(gst_caps_new_empty_simple("image/png"));
    Failure failed;
    const SamplePtr png(
        gst_video_convert_sample(raw.get(), format.get(), kSnapshotPatience, failed.place()));
    GstBuffer* const file = png ? gst_sample_get_buffer(png.get()) : nullptr;
    GstMapInfo map;
    if (!file || !gst_buffer_map(file, &map, GST_MAP_READ)) {
        const Lock lock(mutex);
        fileFailed(options.snapshot, failed.text("cannot be coded"));
        return;
    }
    if (!writeFile(options.snapshot, map.data, map.size)) {
        const Lock lock(mutex);
        fileFailed(options.snapshot, std::strerror(errno));
    }
    gst_buffer_unmap(file, &map);
}

void Receiver::writeImu(const ImuRecord& record)
{
    if (!imuFile.is_open() || !imuFile) {
        return;
    }
    imuFile << record.timestamp << ',' << record.sequence << ',' << record.validFields;
    for (const double value : record.values) {
        imuFile << ',' << value;
    }
    imuFile << '\n';
    if (!imuFile) {
        fileFailed(options.imuFile, std::strerror(errno));
    }
}

/// Seconds since this began; of a file, that were read. The mutex is held.
double Receiver::elapsed() const
{
    return options.source.isFile() ? played.seconds() : seconds(Clock::now() - began);
}

/// Keeps the first reason. The mutex is held where streaming threads run.
void Receiver::fileFailed(const std::string& path, const std::string& reason)
{
    fileFailed(path + ": " + reason);
}

void Receiver::fileFailed(const std::string& problem)
{
    if (fileError.empty()) {
        fileError = problem;
    }
}

}  // namespace receive
