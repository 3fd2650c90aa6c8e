// SPDX-License-Identifier: Apache-2.0
// State and record of calls of the scripted SDK.
#include "tests/sdk_fake/world.h"

#include <time.h>

namespace sdkfake {

World& world()
{
    // Never destroyed: a process may end while a worker still calls in here.
    static auto* const instance = new World;
    return *instance;
}

std::shared_ptr<CameraState> cameraBySerial(int serial)
{
    for (const auto& camera : world().cameras) {
        if (camera->setup.serial == serial) {
            return camera;
        }
    }
    return nullptr;
}

std::shared_ptr<CameraState> cameraById(int id)
{
    for (const auto& camera : world().cameras) {
        if (camera->setup.id == id) {
            return camera;
        }
    }
    return nullptr;
}

void record(Kind kind, const std::string& object, const std::string& function,
            const std::string& arguments, const std::string& result)
{
    Call call{kind, object, function, arguments, result, std::this_thread::get_id()};
    const std::lock_guard<std::mutex> lock(world().mutex);
    if (world().mirror != nullptr && kind == Control) {
        std::fprintf(world().mirror, "%s\n", call.text().c_str());
        std::fflush(world().mirror);
    }
    world().calls.push_back(std::move(call));
}

void misuse(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().misuses.push_back(text);
}

void waitWhile(const std::atomic<bool>& flag)
{
    if (!flag) {
        return;
    }
    const Inside held(world().heldCalls);
    while (flag) {
        const timespec millisecond{0, 1'000'000};
        nanosleep(&millisecond, nullptr);
    }
}

}  // namespace sdkfake
