// SPDX-License-Identifier: Apache-2.0
// The rig.
#include "sdk/rig/rig.h"

#include <set>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const tq::rig::RigResult result =
        tq::rig::parseRig(std::string(fuzz::text(bytes, size)), "/folder/rig.json");
    fuzz::require(result ? result.error.empty() : !result.error.empty(), "a rig or a reason");
    fuzz::require(result.error.find('\n') == std::string::npos, "the reason is one line");
    if (!result) {
        return 0;
    }
    std::set<int> serials;
    for (const tq::rig::CameraSettings& camera : result.rig->cameras) {
        fuzz::require(serials.insert(camera.serial).second, "serials are unique");
        fuzz::require(camera.bus.size() <= 15 && camera.name.size() <= 111, "names fit records");
        fuzz::require(result.rig->find(camera.id) == &camera, "cameras are found by their ids");
    }
    return 0;
}
