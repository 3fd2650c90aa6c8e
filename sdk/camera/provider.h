// SPDX-License-Identifier: Apache-2.0
// The rig as the process sees it: read by the enumeration, used when cameras are opened.
#pragma once

#include <memory>

#include "sdk/rig/rig.h"

namespace tq {

/// The rig of the last enumeration, so that the ids which it gave out keep their meaning; read when
/// there was none. Null, after one log line, when it is refused. Any thread.
std::shared_ptr<const rig::Rig> currentRig();

}  // namespace tq
