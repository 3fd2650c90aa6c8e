// SPDX-License-Identifier: Apache-2.0
// The rig in force: one reading for all cameras and streams of a run.
#pragma once

#include <memory>

#include "sdk/rig/rig.h"

namespace tq::rig {

/// A rig that is shared, or the reason why there is none; never null.
using SharedRig = std::shared_ptr<const RigResult>;

/// Reads the rig anew, as an enumeration does; what is opened from then on goes by it. When an
/// earlier one came from a file that is gone now, there is none: the built-in rig would serve
/// without that file's password and on all addresses. Any thread.
SharedRig renewRig();

/// The rig of the last reading, so that the ids which an enumeration gave out keep their meaning
/// and streams their protection; read now when there was none. Any thread.
SharedRig currentRig();

/// Has the next question read the rig anew. Any thread.
void forgetRig();

}  // namespace tq::rig
