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
/// A large frame is spread over some milliseconds, so that it does not overflow the socket buffers
/// on its way: up to 32 packets leave at once, more follow at 64 per millisecond.
/// @param pad source pad of a payloader with a thread of its own
void forwardPackets(GstPad* pad);

}  // namespace tq::stream
