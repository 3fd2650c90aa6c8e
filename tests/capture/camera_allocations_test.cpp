// SPDX-License-Identifier: Apache-2.0
// What the capture thread allocates per frame, with cameras of the open SDK: nothing but the event
// by which the owner gives the frame's buffer back.
#include <QtTest>
#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "capture/Camera.h"
#include "tests/sdk/sdktesting.h"
#include "tests/support/allocations.h"

namespace {

constexpr int kWarmUp = 40;  // frames until the buffers and the event queue have grown
constexpr int kCounted = 100;

/// Called on the capture thread with every frame.
class Counter {
public:
    Counter() { counts.reserve(kWarmUp + kCounted + 1); }

    void count()
    {
        if (counts.size() < counts.capacity()) {
            counts.push_back(allocations::ofThisThread());
            seen = static_cast<int>(counts.size());
        }
    }

    bool isComplete() const { return seen > kWarmUp + kCounted; }

    /// The queue of events grows now and then, hence the middle one of all.
    std::uint64_t perFrame() const
    {
        std::vector<std::uint64_t> steps;
        for (std::size_t i = kWarmUp; i + 1 < counts.size(); ++i) {
            steps.push_back(counts[i + 1] - counts[i]);
        }
        std::nth_element(steps.begin(), steps.begin() + kCounted / 2, steps.end());
        return steps[kCounted / 2];
    }

private:
    std::vector<std::uint64_t> counts;
    std::atomic<int> seen{0};
};

/// What one call that is posted with a shared pointer costs.
std::uint64_t allocationsOfAnEvent()
{
    QObject target;
    const auto shared = std::make_shared<int>(0);
    std::uint64_t before = 0;
    for (int n = 0; n < 2; ++n) {  // the first may make the queue grow
        before = allocations::ofThisThread();
        QMetaObject::invokeMethod(
            &target, [held = shared] { Q_UNUSED(held) }, Qt::QueuedConnection);
    }
    return allocations::ofThisThread() - before;
}

}  // namespace

class CameraAllocationsTest : public QObject {
    Q_OBJECT

private slots:
    void oneEventPerFrame()
    {
        TemporaryRig rig;
        rig.add(simulated());
        const std::vector<tq::DeviceProperties> devices = ArgusCamera::getGMSLDevices(true, false);
        QCOMPARE(devices.size(), std::size_t{1});
        Counter counter;
        KTCamera camera;
        connect(
            &camera, &KTCamera::sendYUYVImage, &camera, [&counter] { counter.count(); },
            Qt::DirectConnection);
        QCOMPARE(camera.open(devices[0].id, {320, 200}, 60, false), 0);
        QTRY_VERIFY_WITH_TIMEOUT(counter.isComplete(), 60000);
        camera.close();
        const std::uint64_t ofOneEvent = allocationsOfAnEvent();
        QVERIFY(ofOneEvent > 0);
        QCOMPARE(counter.perFrame(), ofOneEvent);
    }
};

QTEST_GUILESS_MAIN(CameraAllocationsTest)
#include "camera_allocations_test.moc"
