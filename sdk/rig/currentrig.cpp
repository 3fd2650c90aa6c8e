// SPDX-License-Identifier: Apache-2.0
// The rig in force: one reading for all cameras and streams of a run.
#include "sdk/rig/currentrig.h"

#include <mutex>
#include <string>
#include <utility>

#include "sdk/core/log.h"

namespace tq::rig {

namespace {

struct State {
    std::mutex mutex;
    SharedRig rig;
    std::string file;  // that was there once

    /// With the mutex held.
    void read()
    {
        RigResult result = loadRig();
        if (!result.file.empty()) {
            file = result.file;
        } else if (!file.empty()) {
            result.rig.reset();
            result.error = file + ": document: is gone since it was read";
        }
        if (!result.warning.empty()) {
            logLine(result.warning);
        }
        rig = std::make_shared<const RigResult>(std::move(result));
    }
};

State& state()
{
    // Never destroyed, so that objects with static lifetime may use it at exit.
    static auto* const instance = new State;
    return *instance;
}

}  // namespace

SharedRig renewRig()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().read();
    return state().rig;
}

SharedRig currentRig()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    if (state().rig == nullptr) {
        state().read();
    }
    return state().rig;
}

void forgetRig()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().rig.reset();
}

}  // namespace tq::rig
