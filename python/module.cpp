// SPDX-License-Identifier: Apache-2.0
// The part of the Python package vistrel that receives; vistrel/__init__.py is what users see.
#include <libyuv.h>
#include <poll.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "python/framequeue.h"
#include "tools/receive/options.h"
#include "tools/receive/session.h"

namespace py = pybind11;
using receive::ImuRecord;
using receive::StereoFrame;

namespace {

/// One element of `frame.imu`.
struct ImuPacket {
    std::uint64_t timeNs;
    std::uint64_t sequence;
    std::uint64_t validFields;  // as wide as its neighbours, so that there is no gap
    double acceleration[3];
    double angularRate[3];
    double magneticField[3];
    double orientation[4];
    double temperature;
    double pressure;
    double accelerationCovariance[3][3];
    double angularRateCovariance[3][3];
    double orientationCovariance[3][3];
};

ImuPacket packetOf(const ImuRecord& record)
{
    ImuPacket packet = {record.timestamp,
                        record.sequence,
                        record.validFields,
                        {},
                        {},
                        {},
                        {},
                        record.values[13],
                        record.values[14],
                        {},
                        {},
                        {}};
    std::copy_n(record.values, 3, packet.acceleration);
    std::copy_n(record.values + 3, 3, packet.angularRate);
    std::copy_n(record.values + 6, 3, packet.magneticField);
    std::copy_n(record.values + 9, 4, packet.orientation);
    std::copy_n(record.covariances, 9, packet.accelerationCovariance[0]);
    std::copy_n(record.covariances + 9, 9, packet.angularRateCovariance[0]);
    std::copy_n(record.covariances + 18, 9, packet.orientationCovariance[0]);
    return packet;
}

py::array_t<ImuPacket> imuOf(const StereoFrame& frame)
{
    py::array_t<ImuPacket> packets(static_cast<py::ssize_t>(frame.imu.size()));
    std::transform(frame.imu.begin(), frame.imu.end(), packets.mutable_data(), packetOf);
    return packets;
}

/// One eye's luma where the decoder has put it. The decoder reads it again for the frames that
/// follow, so nobody may write there.
py::array grey(const StereoFrame& frame, int eye)
{
    using Owner = std::shared_ptr<const receive::Picture>;
    const GstVideoFrame& video = frame.picture->pixels();
    if (GST_VIDEO_FRAME_COMP_DEPTH(&video, 0) != 8 ||
        GST_VIDEO_FRAME_COMP_PSTRIDE(&video, 0) != 1) {
        throw std::runtime_error("the pictures have no plane of 8-bit luma");
    }
    auto owner = std::make_unique<Owner>(frame.picture);
    const py::capsule base(owner.get(), [](void* kept) { delete static_cast<Owner*>(kept); });
    static_cast<void>(owner.release());  // the capsule owns it
    const auto* luma = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&video, 0));
    py::array_t<std::uint8_t> view({frame.height, frame.width},
                                   {GST_VIDEO_FRAME_PLANE_STRIDE(&video, 0), 1},
                                   luma + static_cast<std::ptrdiff_t>(eye) * frame.width, base);
    view.attr("setflags")(py::arg("write") = false);
    return std::move(view);
}

/// Both eyes side by side in colour, converted from 4:2:0. In one piece: memory of this size the
/// allocator keeps for the next frame, that of two pieces it gives back and clears every time.
py::array colour(const StereoFrame& frame)
{
    const GstVideoFrame& video = frame.picture->pixels();
    if (GST_VIDEO_FRAME_FORMAT(&video) != GST_VIDEO_FORMAT_I420) {
        throw std::runtime_error("the decoder gives no 4:2:0 in three planes");
    }
    const int width = 2 * frame.width;
    py::array_t<std::uint8_t> image({frame.height, width, 3});
    std::uint8_t* const to = image.mutable_data();
    const auto plane = [&video](guint index) {
        return static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&video, index));
    };
    const py::gil_scoped_release released;
    libyuv::J420ToRGB24(plane(0), GST_VIDEO_FRAME_PLANE_STRIDE(&video, 0), plane(1),
                        GST_VIDEO_FRAME_PLANE_STRIDE(&video, 1), plane(2),
                        GST_VIDEO_FRAME_PLANE_STRIDE(&video, 2), to, width * 3, width,
                        frame.height);
    return std::move(image);
}

/// A stream that is received, or a file that is read. Calls come with Python's lock.
class Reader {
public:
    Reader(const receive::Source& source, std::size_t most)
        : state(std::make_shared<State>(source, most))
    {
        const py::gil_scoped_release released;
        std::string problem = state->session.trust();
        if (problem.empty()) {
            state->running = true;
            problem = state->session.start();
        }
        if (!problem.empty()) {
            finish();
            throw std::runtime_error(state->shown(problem));
        }
    }
    ~Reader()
    {
        try {
            close();
        } catch (const std::exception&) {
            // Without a thread to end it in, it goes on until the program ends.
        }
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// @param seconds how long to wait, none: for ever
    /// @return nothing at the end
    std::optional<StereoFrame> next(std::optional<double> seconds, bool newest)
    {
        return await<std::optional<StereoFrame>>(
            seconds, [newest](State& from) { return from.queue.take(newest); });
    }

    /// Waits until there is a frame to take.
    /// @return false at the end
    bool wait(std::optional<double> seconds)
    {
        return await<bool>(seconds, [](State& from) { return !from.queue.isEmpty(); });
    }

    void close()
    {
        const py::gil_scoped_release released;
        finish();
    }

    bool isOver() { return state->isOver(); }
    std::uint64_t dropped() const { return state->queue.dropped(); }
    double age() const { return seconds(Clock::now() - state->newest.load()); }

private:
    using Clock = std::chrono::steady_clock;

    struct State {
        State(const receive::Source& from, std::size_t most)
            : source(from), queue(most, from.isFile()), session(from, events())
        {
        }

        receive::SessionEvents events()
        {
            receive::SessionEvents told;
            told.videoBytes = [](std::size_t) {};
            told.codedFrame = [](const receive::Frame&) {};
            told.picture = [this](const receive::Frame& picture) {
                newest = Clock::now();
                queue.picture(picture, session.hasData());
            };
            told.dataUnit = [this](const receive::DataUnit& unit) {
                tq::wire::readRecords(
                    unit.bytes, unit.size,
                    {[&](const receive::FrameRecord& record) { queue.record(record, unit.time); },
                     [this](const ImuRecord& record) { queue.packet(record); }});
            };
            told.remark = [this](const std::string& text) {
                const std::lock_guard<std::mutex> lock(mutex);
                remark = text;
            };
            return told;
        }

        /// Whether nothing comes any more.
        bool isOver()
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (!over) {
                const std::optional<std::string> ended = session.ended(0);
                if (ended) {
                    over = true;
                    reason = remark.empty() ? shown(*ended) : remark;
                    queue.finish();
                }
            }
            return over;
        }

        /// A reason without the address, which is named beside it.
        std::string shown(const std::string& text) const
        {
            const std::string address = source.url + ": ";
            return text.rfind(address, 0) == 0 ? text.substr(address.size()) : text;
        }

        const receive::Source source;
        receive::FrameQueue queue;
        std::atomic<Clock::time_point> newest{Clock::now()};
        std::mutex mutex;  // guards what follows
        bool over = false;
        bool running = false;
        std::string remark;
        std::string reason;        // empty: a regular end
        receive::Session session;  // last, so that its threads end first
    };

    static double seconds(Clock::duration time)
    {
        return std::chrono::duration<double>(time).count();
    }

    /// Tries until it gives something, the end comes, or the time is over.
    template <typename Result, typename Try>
    Result await(std::optional<double> patience, Try attempt)
    {
        const std::shared_ptr<State> from = state;
        const Clock::time_point began = Clock::now();
        while (true) {
            const bool over = from->isOver();
            if (Result result = attempt(*from)) {
                return result;
            }
            if (over && !from->reason.empty()) {
                throw std::runtime_error(from->reason);
            }
            if (over) {
                return {};
            }
            const double left = patience ? *patience - seconds(Clock::now() - began) : -1;
            if (patience && left <= 0) {
                PyErr_SetString(PyExc_TimeoutError, "no frame in time");
                throw py::error_already_set();
            }
            sleep(*from, left);
        }
    }

    /// Waits for news, or a signal, which ends a wait of Python's first thread.
    static void sleep(const State& from, double seconds)
    {
        pollfd descriptors[] = {{from.queue.descriptor(), POLLIN, 0},
                                {from.session.descriptor(), POLLIN, 0}};
        {
            const py::gil_scoped_release released;
            const auto whole = static_cast<time_t>(seconds);
            const timespec limit = {
                whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
            ppoll(descriptors, 2, seconds < 0 ? nullptr : &limit, nullptr);
        }
        if (PyErr_CheckSignals() != 0) {
            throw py::error_already_set();
        }
    }

    /// A sender that goes on talking can hold up the end for ever: it is waited for a second.
    void finish()
    {
        {
            const std::lock_guard<std::mutex> lock(state->mutex);
            state->over = true;
            if (!std::exchange(state->running, false)) {
                return;
            }
        }
        state->queue.finish();
        std::packaged_task<void()> stop([kept = state] { kept->session.stop(); });
        const std::future<void> stopped = stop.get_future();
        std::thread(std::move(stop)).detach();
        stopped.wait_for(std::chrono::seconds(1));
    }

    const std::shared_ptr<State> state;
};

std::unique_ptr<Reader> open(const std::string& address, bool tcp, unsigned jitter,
                             const std::string& authorities, bool insecure, std::size_t most)
{
    receive::Source source;
    source.url = address;
    source.tcp = tcp;
    source.jitter = jitter;
    source.authorities = authorities;
    source.insecure = insecure;
    return std::make_unique<Reader>(source, most);
}

}  // namespace

PYBIND11_MODULE(_vistrel, module)
{
    const std::string problem = tq::initialiseGStreamer();
    if (!problem.empty()) {
        throw py::import_error(problem);
    }
    PYBIND11_NUMPY_DTYPE_EX(
        ImuPacket, timeNs, "time_ns", sequence, "sequence", validFields, "valid_fields",
        acceleration, "acceleration", angularRate, "angular_rate", magneticField, "magnetic_field",
        orientation, "orientation", temperature, "temperature", pressure, "pressure",
        accelerationCovariance, "acceleration_covariance", angularRateCovariance,
        "angular_rate_covariance", orientationCovariance, "orientation_covariance");
    module.attr("IMU_DTYPE") = py::dtype::of<ImuPacket>();

    py::class_<StereoFrame>(module, "Frame")
        .def_readonly("time_ns", &StereoFrame::captureTime)
        .def_property_readonly("counter",
                               [](const StereoFrame& frame) {
                                   return frame.record ? std::optional(frame.record->counter)
                                                       : std::nullopt;
                               })
        .def_property_readonly("eye_offset_ns",
                               [](const StereoFrame& frame) {
                                   return frame.record ? std::optional(frame.record->eyeOffset)
                                                       : std::nullopt;
                               })
        .def_property_readonly("serial",
                               [](const StereoFrame& frame) {
                                   return frame.record ? std::optional(frame.record->serial)
                                                       : std::nullopt;
                               })
        .def_property_readonly("imu", imuOf)
        .def("grey", grey)
        .def("colour", colour);

    py::class_<Reader>(module, "Reader")
        .def(py::init(&open))
        .def("next", &Reader::next)
        .def("wait", &Reader::wait)
        .def("close", &Reader::close)
        .def("is_over", &Reader::isOver)
        .def("age", &Reader::age)
        .def("dropped", &Reader::dropped);
    module.def("without_credentials", &receive::withoutCredentials);
}
