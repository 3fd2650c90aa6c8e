// SPDX-License-Identifier: Apache-2.0
// Enumeration of the rig's cameras.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/camera/cameralock.h"
#include "sdk/core/log.h"
#include "sdk/rig/currentrig.h"
#include "tq_kor/camera.h"

namespace tq {

namespace {

template <std::size_t size>
void copyText(char (&to)[size], const std::string& from)
{
    std::memcpy(to, from.data(), std::min(from.size(), size - 1));
}

DeviceProperties describe(const rig::CameraSettings& camera)
{
    DeviceProperties device{};
    device.state =
        CameraLock::isHeld(camera.serial) ? DeviceState::NOT_AVAILABLE : DeviceState::AVAILABLE;
    device.id = camera.id;
    device.model = camera.model;
    device.serialNumber = camera.serial;
    copyText(device.bus, camera.bus);
    copyText(device.name, camera.name);
    return device;
}

void logDevice(const DeviceProperties& device)
{
    logLine(std::string("camera ") + std::to_string(device.id) + ": " + device.name + ", S/N " +
            std::to_string(device.serialNumber) + ", " + device.bus +
            (device.state == DeviceState::AVAILABLE ? ", available" : ", in use"));
}

/// What the enumeration holds.
struct Provider {
    std::mutex mutex;
    std::vector<DeviceProperties> devices;
    bool enumerated = false;
};

Provider& provider()
{
    // Never destroyed, so that objects with static lifetime may use it at exit.
    static auto* const instance = new Provider;
    return *instance;
}

}  // namespace

}  // namespace tq

std::vector<tq::DeviceProperties> ArgusCamera::getGMSLDevices(bool refresh, bool verbose)
{
    tq::Provider& state = tq::provider();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (refresh || !state.enumerated) {
        state.devices.clear();
        state.enumerated = true;
        const tq::rig::SharedRig rig = tq::rig::renewRig();
        if (*rig) {
            std::transform(rig->rig->cameras.begin(), rig->rig->cameras.end(),
                           std::back_inserter(state.devices), tq::describe);
        } else {
            tq::logLine(rig->error);
        }
    }
    if (verbose) {
        std::for_each(state.devices.begin(), state.devices.end(), tq::logDevice);
    }
    return state.devices;
}

void ArgusCamera::deleteProviderInstance()
{
    tq::Provider& state = tq::provider();
    const std::lock_guard<std::mutex> lock(state.mutex);
    tq::rig::forgetRig();
    state.devices.clear();
    state.enumerated = false;
}
