// SPDX-License-Identifier: Apache-2.0
// Receives a stream of simulated cameras and reads their capture times in the decoded pictures.
//
//   bench_latency WIDTH SECONDS "PIPELINE ENDING IN avdec_h264"
//
// WIDTH is that of one eye. Prints frames, and the latency from the left eye's capture to the
// decoded picture in ms: p50, p99, most, and the medians of
// what the sender, the network (from a frame's first packet to its last), the jitter buffer and the
// decoder take of it.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/rtp/gstrtpbuffer.h>
#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/core/glibptr.h"
#include "tests/sdk/patterndecoder.h"

namespace {

constexpr int kWarmUpFrames = 60;

std::int64_t now()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

constexpr std::uint8_t kVideoPayload = 96;

/// When a frame's packets came, ns since 1970.
struct Arrival {
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::int64_t ordered = 0;  // the last one has left the jitter buffer
};

/// Follows frames from the network to the decoder by their RTP timestamps, then by their times.
class Stages {
public:
    void arrived(GstBuffer* packet)
    {
        onPacket(packet, [this](GstRTPBuffer& rtp) {
            Arrival& frame = arrivals[gst_rtp_buffer_get_timestamp(&rtp)];
            frame.last = now();
            frame.first = frame.first == 0 ? frame.last : frame.first;
        });
    }

    void ordered(GstBuffer* packet)
    {
        onPacket(packet, [this, packet](GstRTPBuffer& rtp) {
            const auto frame = arrivals.find(gst_rtp_buffer_get_timestamp(&rtp));
            if (frame != arrivals.end()) {
                frame->second.ordered = now();
                byTime[GST_BUFFER_PTS(packet)] = frame->second;
                arrivals.erase(arrivals.begin(), frame);
            }
        });
    }

    /// @param captured,decoded ns since 1970
    void decoded(GstClockTime time, std::int64_t captured, std::int64_t decoded)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto frame = byTime.find(time);
        if (frame == byTime.end()) {
            return;
        }
        const Arrival& at = frame->second;
        const std::int64_t steps[] = {captured, at.first, at.last, at.ordered, decoded};
        for (std::size_t n = 0; n < 4; ++n) {
            shares[n].push_back(static_cast<double>(steps[n + 1] - steps[n]) * 1e-6);
        }
        byTime.erase(byTime.begin(), std::next(frame));
    }

    /// Median of a stage, ms.
    double median(std::size_t stage)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<double>& times = shares[stage];
        std::sort(times.begin(), times.end());
        return times.empty() ? 0 : times[times.size() / 2];
    }

private:
    template <typename Note>
    void onPacket(GstBuffer* packet, Note note)
    {
        GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
        if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
            return;
        }
        if (gst_rtp_buffer_get_payload_type(&rtp) == kVideoPayload) {
            const std::lock_guard<std::mutex> lock(mutex);
            note(rtp);
        }
        gst_rtp_buffer_unmap(&rtp);
    }

    std::mutex mutex;
    std::map<std::uint32_t, Arrival> arrivals;
    std::map<GstClockTime, Arrival> byTime;
    std::vector<double> shares[4];
};

Stages stages;

template <void (Stages::*note)(GstBuffer*)>
void watch(GstElement* element)
{
    const tq::GObjectPtr<GstPad> pad(gst_element_get_static_pad(element, "sink"));
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer) {
            (stages.*note)(GST_PAD_PROBE_INFO_BUFFER(info));
            return GST_PAD_PROBE_OK;
        },
        nullptr, nullptr);
}

void watchIfKnown(GstElement* element)
{
    const GstElementFactory* const factory = gst_element_get_factory(element);
    const char* const name = factory ? GST_OBJECT_NAME(factory) : "";
    if (std::strcmp(name, "rtpjitterbuffer") == 0) {
        watch<&Stages::arrived>(element);
    } else if (std::strcmp(name, "rtph264depay") == 0) {
        watch<&Stages::ordered>(element);
    }
}

/// Those that are there, and those that come when the stream is known.
void watchStages(GstElement* pipeline)
{
    g_signal_connect(
        pipeline, "deep-element-added",
        G_CALLBACK(+[](GstBin*, GstBin*, GstElement* element, gpointer) { watchIfKnown(element); }),
        nullptr);
    GstIterator* const elements = gst_bin_iterate_recurse(GST_BIN(pipeline));
    gst_iterator_foreach(
        elements,
        [](const GValue* element, gpointer) {
            watchIfKnown(GST_ELEMENT(g_value_get_object(element)));
        },
        nullptr);
    gst_iterator_free(elements);
}

/// Latency of a decoded picture in ms, negative when its pattern cannot be read.
double latency(GstSample* sample, int width)
{
    const std::int64_t decoded = now();
    GstVideoInfo info;
    GstVideoFrame frame;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
        !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) {
        return -1;
    }
    const auto pattern =
        decodePattern(static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)), 1,
                      GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0), width);
    gst_video_frame_unmap(&frame);
    if (!pattern) {
        return -1;
    }
    const auto captured = static_cast<std::int64_t>(pattern->timestamp);
    stages.decoded(GST_BUFFER_PTS(gst_sample_get_buffer(sample)), captured, decoded);
    return static_cast<double>(decoded - captured) * 1e-6;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: bench_latency WIDTH SECONDS \"PIPELINE\"\n";
        return EXIT_FAILURE;
    }
    gst_init(nullptr, nullptr);
    const std::string line =
        std::string(argv[3]) + " ! appsink name=out sync=false max-buffers=2 drop=true";
    tq::Failure failure;
    const tq::GObjectPtr<GstElement> pipeline(gst_parse_launch(line.c_str(), failure.place()));
    if (!pipeline) {
        std::cerr << "bench_latency: " << failure.text("no pipeline") << '\n';
        return EXIT_FAILURE;
    }
    const tq::GObjectPtr<GstElement> sink(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    watchStages(pipeline.get());
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    std::vector<double> latencies;
    int unreadable = 0;
    int seen = 0;
    for (std::int64_t end = 0; end == 0 || now() < end;) {
        GstSample* const sample =
            gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 10 * GST_SECOND);
        if (sample == nullptr) {
            std::cerr << "bench_latency: no picture for ten seconds\n";
            return EXIT_FAILURE;
        }
        const double value = latency(sample, std::atoi(argv[1]));
        gst_sample_unref(sample);
        if (++seen == kWarmUpFrames) {
            end = now() + std::atoi(argv[2]) * std::int64_t{1000000000};
        }
        if (seen > kWarmUpFrames) {
            value < 0 ? void(++unreadable) : latencies.push_back(value);
        }
    }
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    if (latencies.empty()) {
        std::cerr << "bench_latency: no picture shows its time\n";
        return EXIT_FAILURE;
    }
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double share) {
        return latencies[static_cast<std::size_t>(share * double(latencies.size() - 1))];
    };
    std::cout << "{\"frames\": " << latencies.size() << ", \"unreadable\": " << unreadable
              << ", \"p50\": " << at(0.5) << ", \"p99\": " << at(0.99) << ", \"most\": " << at(1)
              << ", \"sender\": " << stages.median(0) << ", \"network\": " << stages.median(1)
              << ", \"jitterBuffer\": " << stages.median(2) << ", \"decoder\": " << stages.median(3)
              << "}\n";
}
