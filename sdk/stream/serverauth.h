// SPDX-License-Identifier: Apache-2.0
// Who may watch, and that nobody listens in.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include "sdk/core/glibptr.h"
#include "sdk/rig/rig.h"

namespace tq::stream {

/// What the clients of a server have to bring: the user of the settings, TLS, or both. The factory
/// is told to serve only those who do.
/// @param certificate with its key; clients must come by TLS 1.2 or later. Null: without TLS
GObjectPtr<GstRTSPAuth> makeServerAuth(const rig::StreamSettings& settings,
                                       GTlsCertificate* certificate, GstRTSPMediaFactory* factory);

}  // namespace tq::stream
