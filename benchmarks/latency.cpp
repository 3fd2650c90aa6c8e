// SPDX-License-Identifier: Apache-2.0
// Receives a stream of simulated cameras and reads their capture times in the decoded pictures.
//
//   bench_latency WIDTH SECONDS "PIPELINE ENDING IN avdec_h264"
//
// WIDTH is that of one eye. Prints frames, and the latency from the left eye's capture to the
// decoded picture in ms: p50, p99, most.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
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
    return pattern ? static_cast<double>(decoded - std::int64_t(pattern->timestamp)) * 1e-6 : -1;
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
              << "}\n";
}
