// SPDX-License-Identifier: Apache-2.0
// What showing a frame costs: bench_view [width height [frames]]. Needs a display, for example that
// of cmake/with-display.
#include <QApplication>
#include <QElapsedTimer>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QWindow>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <random>
#include <vector>

#include "ui/camerawidget.h"
#include "ui/glwidget.h"

namespace {

constexpr int kExposeLimitMs = 5000;
constexpr int kWarmUpFrames = 5;

double processorMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

int argument(int index, int otherwise)
{
    const QStringList all = QCoreApplication::arguments();
    return index < all.size() ? std::max(1, all.at(index).toInt()) : otherwise;
}

tq::Mat randomFrame(int width, int height)
{
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                sdk::kHostMemory);
    std::mt19937 generator(1);
    auto* const bytes = image.getPtr<std::uint8_t>(sdk::kHostMemory);
    std::generate_n(bytes, 2 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height),
                    [&generator] { return static_cast<std::uint8_t>(generator() >> 24); });
    return image;
}

bool waitForScreen(const QWidget& widget)
{
    QElapsedTimer time;
    time.start();
    while (!widget.windowHandle()->isExposed() && time.elapsed() < kExposeLimitMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return widget.windowHandle()->isExposed();
}

}  // namespace

int main(int argc, char** argv)
{
    const QApplication application(argc, argv);
    const int width = argument(1, 1920);
    const int height = argument(2, 1200);
    const int frames = argument(3, 100);
    const tq::Mat image = randomFrame(width, height);

    CameraWidget panel(nullptr);
    panel.show();
    if (!waitForScreen(panel)) {
        std::fprintf(stderr, "the panel did not appear\n");
        return 1;
    }
    panel.findChild<GLWidget*>()->makeCurrent();
    std::printf("renderer: %s\n",
                reinterpret_cast<const char*>(
                    QOpenGLContext::currentContext()->functions()->glGetString(GL_RENDERER)));
    for (int i = 0; i < kWarmUpFrames; ++i) {
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
