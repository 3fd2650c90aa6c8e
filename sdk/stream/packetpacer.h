// SPDX-License-Identifier: Apache-2.0
// Spreads the packets of a large frame over some milliseconds.
#pragma once

#include <gst/gst.h>

namespace tq::stream {

/// Paces the packets that leave this pad, so that a key frame does not overflow the socket buffers
/// on its way. Up to 32 packets leave at once, more follow at 64 per millisecond.
/// @param pad source pad of a payloader with a thread of its own
void pacePackets(GstPad* pad);

}  // namespace tq::stream
