// SPDX-License-Identifier: Apache-2.0
// Hands a payloader's packets on to the network.
#pragma once

#include <gst/gst.h>

namespace tq::stream {

/// Takes over what leaves this pad.
///
/// Packets that no client has asked for are dropped: the server library leaves such a stream
/// unlinked, which else would end the whole media.
///
/// Many packets at once, of a large frame or a batch of records, are spread over some
/// milliseconds, so that they do not overflow the socket buffers on their way.
/// @param pad                   source pad of a payloader with a thread of its own
/// @param packetsPerMillisecond rate at which packets follow when 32 have left at once
void forwardPackets(GstPad* pad, unsigned packetsPerMillisecond);

}  // namespace tq::stream
