// SPDX-License-Identifier: Apache-2.0
// Enumeration of the rig's cameras.
#include "sdk/camera/provider.h"

#include <algorithm>
#include <cstring>
#include <utility>

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

}  // namespace

Provider& Provider::instance()
{
    // Never destroyed, so that objects with static lifetime may use it at exit.
    static auto* const provider = new Provider;
    return *provider;
}

std::shared_ptr<const rig::Rig> Provider::rigLocked()
{
    if (rig == nullptr) {
        rig::RigResult result = rig::loadRig();
        if (!result) {
            logLine(result.error);
        }
        rig = result ? std::make_shared<const rig::Rig>(std::move(*result.rig)) : nullptr;
    }
    return rig;
}

std::shared_ptr<const rig::Rig> Provider::currentRig()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return rigLocked();
}

std::vector<DeviceProperties> Provider::enumerate(bool refresh, bool verbose)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (refresh || !enumerated) {
        devices.clear();
        enumerated = true;
        rig.reset();
        if (const auto current = rigLocked()) {
            for (const rig::CameraSettings& camera : current->cameras) {
                devices.push_back(describe(camera));
            }
        }
    }
    if (verbose) {
        std::for_each(devices.begin(), devices.end(), logDevice);
    }
    return devices;
}

void Provider::forget()
{
    const std::lock_guard<std::mutex> lock(mutex);
    rig.reset();
    devices.clear();
    enumerated = false;
}

}  // namespace tq

std::vector<tq::DeviceProperties> ArgusCamera::getGMSLDevices(bool refresh, bool verbose)
{
    return tq::Provider::instance().enumerate(refresh, verbose);
}

void ArgusCamera::deleteProviderInstance()
{
    tq::Provider::instance().forget();
}
