// SPDX-License-Identifier: Apache-2.0
// What drawing the simulated picture costs.
#include "sdk/sources/scene.h"

#include <QtTest>
#include <ctime>
#include <vector>

namespace {

constexpr tq::Timestamp kTime = 1700000000033333333;

double threadSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

class SceneTimingTest : public QObject {
    Q_OBJECT

private slots:
    void drawingIsCheap();
};

void SceneTimingTest::drawingIsCheap()
{
    tq::Scene scene(1920, 1200, tq::rig::Eye::LEFT, 30123456);
    std::vector<std::vector<unsigned char>> buffers(tq::kFrameBuffers);
    for (auto& buffer : buffers) {
        buffer.resize(1920 * 1200 * 2);
    }
    const auto draw = [&](std::uint32_t frame) {
        const std::size_t index = frame % buffers.size();
        scene.render({buffers[index].data(), static_cast<int>(index)}, frame,
                     kTime + frame * 33333333ull);
    };
    for (std::uint32_t frame = 0; frame < 6; ++frame) {
        draw(frame);
    }
    constexpr std::uint32_t kFrames = 300;
    const double before = threadSeconds();
    for (std::uint32_t frame = 6; frame < 6 + kFrames; ++frame) {
        draw(frame);
    }
    const double milliseconds = (threadSeconds() - before) * 1000 / kFrames;
    qInfo("%.3f ms of CPU per 1920 x 1200 frame", milliseconds);
    QVERIFY2(milliseconds <= 1.0, qPrintable(QString::number(milliseconds)));
}

QTEST_GUILESS_MAIN(SceneTimingTest)
#include "scene_timing_test.moc"
