// SPDX-License-Identifier: Apache-2.0
// A token bucket on a payloader's source pad.
#include "sdk/stream/packetpacer.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "sdk/stream/glibptr.h"

namespace tq::stream {

namespace {

using Clock = std::chrono::steady_clock;

constexpr guint kBlockPackets = 16;
constexpr auto kPacketInterval = std::chrono::nanoseconds(15625);
constexpr auto kBurst = 32 * kPacketInterval;

/// Used on the payloader's thread only.
struct Pacer {
    Clock::time_point due{};  // when the packets sent so far would have left at the paced rate
    bool forwarding = false;

    void waitFor(guint packets)
    {
        const auto now = Clock::now();
        due = std::max(due, now - kBurst);
        if (due > now)
            std::this_thread::sleep_until(due);
        due += packets * kPacketInterval;
    }
};

GstFlowReturn forwardInBlocks(Pacer& pacer, GstPad* pad, GstBufferList* list)
{
    GstFlowReturn result = GST_FLOW_OK;
    const guint length = gst_buffer_list_length(list);
    for (guint first = 0; first < length && result == GST_FLOW_OK; first += kBlockPackets) {
        const guint count = std::min(kBlockPackets, length - first);
        GstBufferList* block = gst_buffer_list_new_sized(count);
        for (guint i = first; i < first + count; ++i)
            gst_buffer_list_add(block, gst_buffer_ref(gst_buffer_list_get(list, i)));
        pacer.waitFor(count);
        result = gst_pad_push_list(pad, block);
    }
    return result;
}

GstPadProbeReturn onPackets(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    Pacer& pacer = *SharedData<Pacer>::get(data);
    if (pacer.forwarding)
        return GST_PAD_PROBE_OK;
    if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) {
        pacer.waitFor(1);
        return GST_PAD_PROBE_OK;
    }
    GstBufferList* list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
    if (gst_buffer_list_length(list) <= kBlockPackets) {
        pacer.waitFor(gst_buffer_list_length(list));
        return GST_PAD_PROBE_OK;
    }
    pacer.forwarding = true;
    GST_PAD_PROBE_INFO_FLOW_RETURN(info) = forwardInBlocks(pacer, pad, list);
    pacer.forwarding = false;
    gst_buffer_list_unref(list);
    GST_PAD_PROBE_INFO_DATA(info) = nullptr;
    return GST_PAD_PROBE_HANDLED;
}

}  // namespace

void pacePackets(GstPad* pad)
{
    const auto types =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
    gst_pad_add_probe(pad, types, onPackets, SharedData<Pacer>::make(std::make_shared<Pacer>()),
                      SharedData<Pacer>::release);
}

}  // namespace tq::stream
