// SPDX-License-Identifier: Apache-2.0
// A probe on a payloader's source pad that pushes the packets itself, paced by a token bucket.
#include "sdk/stream/packetforwarder.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "sdk/core/glibptr.h"

namespace tq::stream {

namespace {

using Clock = std::chrono::steady_clock;

constexpr guint kBlockPackets = 16;
constexpr int kBurstPackets = 32;

/// Used on the payloader's thread only.
class Forwarder {
public:
    explicit Forwarder(unsigned packetsPerMillisecond)
        : interval(std::chrono::nanoseconds(1000000u / packetsPerMillisecond))
    {
    }

    /// The probe runs for the packets that are pushed from within it, too.
    bool isForwarding() const { return forwarding; }

    GstFlowReturn forward(GstPad* pad, GstBuffer* packet)
    {
        return push(1, [&] { return gst_pad_push(pad, packet); });
    }

    GstFlowReturn forward(GstPad* pad, BufferListPtr list)
    {
        GstFlowReturn result = GST_FLOW_OK;
        const guint length = gst_buffer_list_length(list.get());
        for (guint first = 0; first < length && result == GST_FLOW_OK; first += kBlockPackets) {
            const guint count = std::min(kBlockPackets, length - first);
            GstBufferList* block = gst_buffer_list_new_sized(count);
            for (guint i = first; i < first + count; ++i) {
                gst_buffer_list_add(block, gst_buffer_ref(gst_buffer_list_get(list.get(), i)));
            }
            result = push(count, [&] { return gst_pad_push_list(pad, block); });
        }
        return result;
    }

private:
    /// Sends when it is time for so many packets; that nobody takes them is no failure.
    template <typename Send>
    GstFlowReturn push(guint packets, Send send)
    {
        waitFor(packets);
        forwarding = true;
        const GstFlowReturn result = send();
        forwarding = false;
        return result == GST_FLOW_NOT_LINKED ? GST_FLOW_OK : result;
    }

    void waitFor(guint packets)
    {
        const auto now = Clock::now();
        due = std::max(due, now - kBurstPackets * interval);
        if (due > now) {
            std::this_thread::sleep_until(due);
        }
        due += packets * interval;
    }

    const std::chrono::nanoseconds interval;
    Clock::time_point due{};  // when the packets sent so far would have left at the paced rate
    bool forwarding = false;
};

GstPadProbeReturn onPackets(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    const std::shared_ptr<Forwarder> shared = SharedData<Forwarder>::get(data);
    Forwarder& forwarder = *shared;
    if (forwarder.isForwarding()) {
        return GST_PAD_PROBE_OK;
    }
    gpointer packets = info->data;
    info->data = nullptr;
    GST_PAD_PROBE_INFO_FLOW_RETURN(info) =
        info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST
            ? forwarder.forward(pad, BufferListPtr(static_cast<GstBufferList*>(packets)))
            : forwarder.forward(pad, static_cast<GstBuffer*>(packets));
    return GST_PAD_PROBE_HANDLED;
}

}  // namespace

void forwardPackets(GstPad* pad, unsigned packetsPerMillisecond)
{
    const auto types =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
    gst_pad_add_probe(
        pad, types, onPackets,
        SharedData<Forwarder>::make(std::make_shared<Forwarder>(packetsPerMillisecond)),
        SharedData<Forwarder>::release);
}

}  // namespace tq::stream
