// SPDX-License-Identifier: Apache-2.0
// Tests of the simulated picture: pattern, disparity, incremental drawing.
#include "sdk/sources/scene.h"

#include <QtTest>
#include <memory>

#include "sdk/sources/blockpattern.h"
#include "tests/sdk/patterndecoder.h"
#include "tests/sdk/sdktesting.h"

namespace {

constexpr tq::Timestamp kTime = 1700000000033333333;

struct Eye {
    Eye(int pictureWidth, int pictureHeight, tq::rig::Eye eye, int serial)
        : width(pictureWidth),
          height(pictureHeight),
          scene(pictureWidth, pictureHeight, eye, serial),
          pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2)
    {
    }

    void render(std::uint32_t counter, tq::Timestamp time)
    {
        scene.render({pixels.data(), 0}, counter, time);
    }

    int width;
    int height;
    tq::Scene scene;
    std::vector<unsigned char> pixels;
};

/// Sum of absolute luma differences of two pictures below the panels, the second one moved.
double difference(const Eye& left, const Eye& right, int shift)
{
    double sum = 0;
    for (int y = left.height * 9 / 10; y < left.height; y += 2) {
        for (int x = 200; x < left.width - 200; ++x) {
            const auto at = [&](const Eye& eye, int column) {
                return int(eye.pixels[static_cast<std::size_t>((y * eye.width + column) * 2)]);
            };
            sum += std::abs(at(left, x) - at(right, x - shift));
        }
    }
    return sum;
}

}  // namespace

class SceneTest : public QObject {
    Q_OBJECT

private slots:
    void patternIsReadable_data();
    void patternIsReadable();
    void patternSurvivesLossyNeighbours();
    void redrawnPictureEqualsFreshOne();
    void picturesOfOneInstantAreRepeatable();
    void nearThingsLieFartherRightInTheLeftEye();
    void objectsMove();
    void tinyPicturesAreDrawn_data();
    void tinyPicturesAreDrawn();
};

void SceneTest::patternIsReadable_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    for (const auto& [width, height] : {std::pair{1920, 1200},
                                        {1920, 1080},
                                        {960, 600},
                                        {3840, 2160},
                                        {3200, 1800},
                                        {320, 200}}) {
        QTest::addRow("%dx%d", width, height) << width << height;
    }
}

void SceneTest::patternIsReadable()
{
    QFETCH(int, width);
    QFETCH(int, height);
    Eye eye(width, height, tq::rig::Eye::LEFT, 30123456);
    for (const std::uint32_t counter : {0u, 1u, 0x80000001u, 0xFFFFFFFFu}) {
        eye.render(counter, kTime + counter);
        const auto pattern = decodePattern(eye.pixels.data(), 2, width * 2, width);
        QVERIFY(pattern.has_value());
        QCOMPARE(pattern->counter, counter);
        QCOMPARE(pattern->serial, 30123456u);
        QCOMPARE(pattern->timestamp, std::uint64_t(kTime + counter));
    }
}

void SceneTest::patternSurvivesLossyNeighbours()
{
    // Blur and noise far beyond what an encoder does to it.
    Eye eye(960, 600, tq::rig::Eye::LEFT, 30123456);
    eye.render(77, kTime);
    const std::vector<unsigned char> sharp = eye.pixels;
    QRandomGenerator random(7);
    for (int y = 1; y < 120; ++y) {
        for (int x = 1; x < 300; ++x) {
            int sum = 0;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    sum += sharp[static_cast<std::size_t>(((y + dy) * 960 + x + dx) * 2)];
                }
            }
            eye.pixels[static_cast<std::size_t>((y * 960 + x) * 2)] =
                static_cast<unsigned char>(qBound(0, sum / 9 + random.bounded(-60, 60), 255));
        }
    }
    const auto pattern = decodePattern(eye.pixels.data(), 2, 960 * 2, 960);
    QVERIFY(pattern.has_value());
    QCOMPARE(pattern->counter, 77u);
    // A picture without pattern is not mistaken for one.
    const std::vector<unsigned char> grey(960 * 600 * 2, 126);
    QVERIFY(!decodePattern(grey.data(), 2, 960 * 2, 960).has_value());
}

void SceneTest::redrawnPictureEqualsFreshOne()
{
    Eye used(640, 400, tq::rig::Eye::RIGHT, 30123456);
    for (std::uint32_t i = 0; i < 50; ++i) {
        used.render(i, kTime + i * 333333333ull);
    }
    Eye fresh(640, 400, tq::rig::Eye::RIGHT, 30123456);
    fresh.render(49, kTime + 49 * 333333333ull);
    QVERIFY(used.pixels == fresh.pixels);
}

void SceneTest::picturesOfOneInstantAreRepeatable()
{
    Eye first(640, 400, tq::rig::Eye::LEFT, 30123456);
    Eye second(640, 400, tq::rig::Eye::LEFT, 30123456);
    first.render(5, kTime);
    second.render(5, kTime);
    QVERIFY(first.pixels == second.pixels);
}

void SceneTest::nearThingsLieFartherRightInTheLeftEye()
{
    Eye left(1920, 1200, tq::rig::Eye::LEFT, 30123456);
    Eye right(1920, 1200, tq::rig::Eye::RIGHT, 30123456);
    left.render(5, kTime);
    right.render(5, kTime);
    // The nearest rows of the floor are displaced by about 4 % of the width.
    int best = -100;
    for (int shift = -100; shift <= 100; shift += 2) {
        best = difference(left, right, shift) < difference(left, right, best) ? shift : best;
    }
    QVERIFY2(best >= 60 && best <= 80, qPrintable(QString::number(best)));
}

void SceneTest::objectsMove()
{
    Eye eye(640, 400, tq::rig::Eye::LEFT, 30123456);
    eye.render(5, kTime);
    const std::vector<unsigned char> before = eye.pixels;
    eye.render(5, kTime + 500000000);
    const std::size_t belowPanels = 640 * 100 * 2;
    QVERIFY(
        !std::equal(before.begin() + belowPanels, before.end(), eye.pixels.begin() + belowPanels));
}

void SceneTest::tinyPicturesAreDrawn_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    for (const auto& [width, height] :
         {std::pair{2, 1}, {2, 2}, {16, 16}, {64, 4}, {4, 900}, {98, 40}, {8192, 2}, {640, 90}}) {
        QTest::addRow("%dx%d", width, height) << width << height;
    }
}

void SceneTest::tinyPicturesAreDrawn()
{
    QFETCH(int, width);
    QFETCH(int, height);
    Eye eye(width, height, tq::rig::Eye::LEFT, 30123456);
    // A guard behind the picture shows writing past its end.
    eye.pixels.resize(eye.pixels.size() + 4096, 0xA5);
    for (std::uint32_t i = 0; i < 20; ++i) {
        eye.render(i, kTime + i * 777777777ull);
    }
    QVERIFY(std::all_of(eye.pixels.end() - 4096, eye.pixels.end(),
                        [](unsigned char byte) { return byte == 0xA5; }));
}

QTEST_GUILESS_MAIN(SceneTest)
#include "scene_test.moc"
