// SPDX-License-Identifier: Apache-2.0
// What an expert builds without this program: an RTSP server around one GStreamer pipeline.
//
//   bench_peer PORT "LAUNCH LINE"
//   bench_peer PORT "LAUNCH LINE" WIDTH HEIGHT FPS
//
// In the second form the elements `appsrc name=left` and `appsrc name=right` of the line are fed by
// the simulated cameras of the SDK, whose pictures tell their capture time. Until it is killed.
#include <gst/app/gstappsrc.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "benchmarks/simulatedcamera.h"
#include "sdk/core/glibptr.h"

namespace {

tq::FrameFormat format;

/// Gives every frame of a simulated camera to an appsrc, stamped by the pipeline's clock.
void feed(const tq::GObjectPtr<GstElement>& source, tq::rig::Eye eye)
{
    const auto camera = openSimulatedCamera(eye, format);
    tq::Timestamp time = 0;
    int index = 0;
    while (true) {
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, format.bytes(), nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        camera->next({map.data, index++ % tq::kFrameBuffers}, time);
        gst_buffer_unmap(buffer, &map);
        if (gst_app_src_push_buffer(GST_APP_SRC(source.get()), buffer) != GST_FLOW_OK) {
            return;
        }
    }
}

void onMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer)
{
    const tq::GObjectPtr<GstElement> bin(gst_rtsp_media_get_element(media));
    for (const auto& [name, eye] :
         {std::pair("left", tq::rig::Eye::LEFT), std::pair("right", tq::rig::Eye::RIGHT)}) {
        tq::GObjectPtr<GstElement> source(gst_bin_get_by_name(GST_BIN(bin.get()), name));
        if (source) {
            g_object_set(source.get(), "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp",
                         TRUE, nullptr);
            std::thread(feed, std::move(source), eye).detach();
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 6) {
        std::cerr << "usage: bench_peer PORT \"LAUNCH LINE\" [WIDTH HEIGHT FPS]\n";
        return EXIT_FAILURE;
    }
    gst_init(nullptr, nullptr);
    if (argc == 6) {
        format = {std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5])};
    }
    GstRTSPServer* const server = gst_rtsp_server_new();
    gst_rtsp_server_set_service(server, argv[1]);
    GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(factory, argv[2]);
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    gst_rtsp_media_factory_set_latency(factory, 0);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMediaConfigure), nullptr);
    GstRTSPMountPoints* const mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, "/stereo", factory);
    if (gst_rtsp_server_attach(server, nullptr) == 0) {
        std::cerr << "bench_peer: cannot listen on port " << argv[1] << '\n';
        return EXIT_FAILURE;
    }
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
