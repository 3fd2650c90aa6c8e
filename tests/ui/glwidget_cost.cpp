// SPDX-License-Identifier: Apache-2.0
// Measures what showing a frame costs: view_cost [width height [frames]]. Needs a display.
#include <QApplication>
#include <QElapsedTimer>
#include <QTest>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "tests/ui/glwidget_testing.h"

namespace {

double processorMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

int argument(int index, int otherwise)
{
    const QStringList all = QCoreApplication::arguments();
    return index < all.size() ? all.at(index).toInt() : otherwise;
}

}  // namespace

int main(int argc, char** argv)
{
    const QApplication application(argc, argv);
    const int width = argument(1, 1920);
    const int height = argument(2, 1200);
    const int frames = std::max(1, argument(3, 100));

    viewtest::Frame frame = viewtest::randomFrame(width, height, 1);
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                sdk::kHostMemory);
    std::copy(frame.bytes.begin(), frame.bytes.end(), image.getPtr<std::uint8_t>(sdk::kHostMemory));

    CameraWidget panel(nullptr);
    panel.show();
    if (!QTest::qWaitForWindowExposed(&panel)) {
        std::fprintf(stderr, "the panel did not appear\n");
        return 1;
    }
    CameraWidgetInspector::view(panel).makeCurrent();
    std::printf("renderer: %s\n", reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
    for (int i = 0; i < 5; ++i) {
        panel.updateImageGL(image);
    }

    std::vector<double> wall;
    const double processorBefore = processorMilliseconds();
    for (int i = 0; i < frames; ++i) {
        QElapsedTimer timer;
        timer.start();
        panel.updateImageGL(image);
        QCoreApplication::processEvents();
        wall.push_back(static_cast<double>(timer.nsecsElapsed()) * 1e-6);
    }
    const double processor = (processorMilliseconds() - processorBefore) / frames;
    std::sort(wall.begin(), wall.end());
    std::printf("%d x %d, %d frames: median %.2f ms, worst %.2f ms, processor %.2f ms a frame\n",
                width, height, frames, wall[wall.size() / 2], wall.back(), processor);
    return 0;
}
