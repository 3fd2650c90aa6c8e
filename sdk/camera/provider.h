// SPDX-License-Identifier: Apache-2.0
// The rig as the process sees it: read by the enumeration, used when cameras are opened.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// Keeps the rig of the last enumeration, so that the ids which it gave out keep their meaning.
/// Thread safe.
class Provider {
public:
    static Provider& instance();

    /// The rig; read when there is none. Null, after one log line, when it is refused.
    std::shared_ptr<const rig::Rig> currentRig();

    /// The cameras of the rig and whether they are free.
    std::vector<DeviceProperties> enumerate(bool refresh, bool verbose);

    /// Forgets the rig and the list.
    void forget();

private:
    std::shared_ptr<const rig::Rig> rigLocked();

    std::mutex mutex;
    std::shared_ptr<const rig::Rig> rig;
    std::vector<DeviceProperties> devices;
    bool enumerated = false;
};

}  // namespace tq
