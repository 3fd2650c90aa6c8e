// SPDX-License-Identifier: Apache-2.0
// Prints when the first frame of the first camera was taken: all that a program needs to begin.
#include <cstdio>

#include <tq_kor/tq_kor.h>

int main()
{
    const auto cameras = ArgusCamera::getGMSLDevices(true, false);
    if (cameras.empty()) {
        std::fputs("no camera\n", stderr);
        return 1;
    }
    int id = cameras.front().id;
    tq::LiveCameraGrabber camera(tq::INPUT_TYPE::GMSL_RAW);
    camera.setMonoCapture(true);
    camera.setInputType(tq::INPUT_TYPE::GMSL);
    if (camera.setUp(id, 1920, 1200, 30, 2, false, tq::IMU_FREQ::HIGH, false, false) != 0) {
        return 1;  // the reason was logged
    }
    int status = 0;
    while (status == 0) {
        status = camera.getFrameStatus();  // sleeps until there is one
    }
    std::printf("%llu\n", static_cast<unsigned long long>(camera.getTimeStamp()));
    camera.close(true);
    return status == 1 ? 0 : 1;
}
