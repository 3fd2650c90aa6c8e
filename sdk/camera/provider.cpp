// SPDX-License-Identifier: Apache-2.0
// Enumeration of the rig's cameras.
#include "sdk/camera/provider.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

#include "sdk/camera/cameralock.h"
#include "sdk/core/log.h"
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
    std::shared_ptr<const rig::Rig> rig;
    std::vector<DeviceProperties> devices;
    bool enumerated = false;

    /// With the mutex held.
    void readRig()
    {
        rig::RigResult result = rig::loadRig();
        if (!result) {
            logLine(result.error);
        }
        rig = result ? std::make_shared<const rig::Rig>(std::move(*result.rig)) : nullptr;
    }
};

Provider& provider()
{
    // Never destroyed, so that objects with static lifetime may use it at exit.
    static auto* const instance = new Provider;
    return *instance;
}

}  // namespace

std::shared_ptr<const rig::Rig> currentRig()
{
    Provider& state = provider();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.rig == nullptr) {
        state.readRig();
    }
    return state.rig;
}

}  // namespace tq

std::vector<tq::DeviceProperties> ArgusCamera::getGMSLDevices(bool refresh, bool verbose)
{
    tq::Provider& state = tq::provider();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (refresh || !state.enumerated) {
        state.devices.clear();
        state.enumerated = true;
        state.readRig();
        if (state.rig != nullptr) {
            std::transform(state.rig->cameras.begin(), state.rig->cameras.end(),
                           std::back_inserter(state.devices), tq::describe);
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
    state.rig.reset();
    state.devices.clear();
    state.enumerated = false;
}
