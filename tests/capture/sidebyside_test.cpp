// SPDX-License-Identifier: Apache-2.0
// The joined frame, byte for byte.
#include <QtTest>
#include <memory>
#include <random>

#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"

namespace {

std::vector<std::uint8_t> randomBytes(std::size_t count, std::uint64_t seed)
{
    std::vector<std::uint8_t> bytes(count + 8);
    std::mt19937_64 random(seed);
    for (std::size_t i = 0; i < count; i += 8) {
        const std::uint64_t value = random();
        std::memcpy(bytes.data() + i, &value, 8);
    }
    bytes.resize(count);
    return bytes;
}

tq::Mat imageOf(int width, int height, const std::vector<std::uint8_t>& bytes)
{
    tq::Mat image = images::filled(width, height, 1000, 0);
    std::memcpy(image.getPtr<char>(images::kHost), bytes.data(), bytes.size());
    return image;
}

/// Pixel by pixel: row by row, the left eye's row, then the right eye's.
std::vector<std::uint8_t> joinByPixels(const std::vector<std::uint8_t>& left,
                                       const std::vector<std::uint8_t>& right, std::size_t width,
                                       std::size_t height)
{
    std::vector<std::uint8_t> out;
    out.reserve(left.size() + right.size());
    for (std::size_t y = 0; y < height; ++y) {
        for (std::size_t x = 0; x < 2 * width; ++x) {
            const bool isLeft = x < width;
            const std::vector<std::uint8_t>& eye = isLeft ? left : right;
            const std::size_t pixel = y * width + (isLeft ? x : x - width);
            out.push_back(eye[2 * pixel]);
            out.push_back(eye[2 * pixel + 1]);
        }
    }
    return out;
}

}  // namespace

class SideBySideTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }

    void bytes_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        for (const auto& [width, height] : {std::pair{1, 1},
                                            {1, 2},
                                            {2, 1},
                                            {1, 7},
                                            {3, 1},
                                            {3, 3},
                                            {5, 4},
                                            {17, 9},
                                            {63, 65},
                                            {641, 479},
                                            {960, 600},
                                            {1919, 1199},
                                            {1920, 1080},
                                            {1920, 1200},
                                            {3200, 1800},
                                            {3840, 2160}}) {
            QTest::addRow("%dx%d", width, height) << width << height;
        }
    }
    void bytes()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        const auto w = static_cast<std::size_t>(width);
        const auto h = static_cast<std::size_t>(height);
        const std::vector<std::uint8_t> left = randomBytes(w * h * 2, 1);
        const std::vector<std::uint8_t> right = randomBytes(w * h * 2, 2);

        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(width, height)), 0);
        streamer.left(imageOf(width, height, left));
        streamer.right(imageOf(width, height, right));
        tq::Mat out = images::joined(width, height);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        const std::vector<std::uint8_t> expected = joinByPixels(left, right, w, h);
        const auto* const got = out.getPtr<unsigned char>(images::kHost);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            if (got[i] != expected[i]) {
                QFAIL(qPrintable(QString("byte %1 differs").arg(i)));
            }
        }
    }

    // The rows of an image are found by its own step, whatever the configured width.
    void rowsWiderThanTheEye()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(3, 2)), 0);
        const std::vector<std::uint8_t> left = randomBytes(5 * 2 * 2, 3);
        const std::vector<std::uint8_t> right = randomBytes(4 * 2 * 2, 4);
        streamer.left(imageOf(5, 2, left));
        streamer.right(imageOf(4, 2, right));
        tq::Mat out = images::joined(3, 2);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        const auto* const got = out.getPtr<unsigned char>(images::kHost);
        for (std::size_t row = 0; row < 2; ++row) {
            QVERIFY(std::equal(got + row * 12, got + row * 12 + 6, left.begin() + row * 10));
            QVERIFY(std::equal(got + row * 12 + 6, got + row * 12 + 12, right.begin() + row * 8));
        }
    }

    // What a smaller image does not cover is black: luma 0, chroma 128.
    void smallerImagesArePadded_data()
    {
        QTest::addColumn<int>("leftWidth");
        QTest::addColumn<int>("leftHeight");
        QTest::addColumn<int>("rightWidth");
        QTest::addColumn<int>("rightHeight");
        QTest::newRow("left narrower") << 3 << 4 << 5 << 4;
        QTest::newRow("left lower") << 5 << 1 << 5 << 4;
        QTest::newRow("right narrower and lower") << 5 << 4 << 2 << 3;
        QTest::newRow("both") << 1 << 1 << 4 << 2;
        QTest::newRow("one wider and lower, one narrower and higher") << 9 << 2 << 2 << 9;
    }
    void smallerImagesArePadded()
    {
        constexpr std::size_t kEyeWidth = 5;
        constexpr std::size_t kEyeHeight = 4;
        QFETCH(int, leftWidth);
        QFETCH(int, leftHeight);
        QFETCH(int, rightWidth);
        QFETCH(int, rightHeight);
        const auto eye = [](int width, int height, std::uint64_t seed) {
            return randomBytes(static_cast<std::size_t>(width * height) * 2, seed);
        };
        // One eye as it must appear, pixel by pixel.
        const auto shown = [](const std::vector<std::uint8_t>& bytes, int width, int height) {
            std::vector<std::uint8_t> fitted;
            for (std::size_t y = 0; y < kEyeHeight; ++y) {
                for (std::size_t x = 0; x < kEyeWidth; ++x) {
                    const auto w = static_cast<std::size_t>(width);
                    const bool covered = x < w && y < static_cast<std::size_t>(height);
                    fitted.push_back(covered ? bytes[(y * w + x) * 2] : 0);
                    fitted.push_back(covered ? bytes[(y * w + x) * 2 + 1] : 128);
                }
            }
            return fitted;
        };
        const std::vector<std::uint8_t> left = eye(leftWidth, leftHeight, 5);
        const std::vector<std::uint8_t> right = eye(rightWidth, rightHeight, 6);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(kEyeWidth, kEyeHeight)), 0);
        streamer.left(imageOf(leftWidth, leftHeight, left));
        streamer.right(imageOf(rightWidth, rightHeight, right));
        tq::Mat out = images::joined(kEyeWidth, kEyeHeight);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        const std::vector<std::uint8_t> expected =
            joinByPixels(shown(left, leftWidth, leftHeight), shown(right, rightWidth, rightHeight),
                         kEyeWidth, kEyeHeight);
        QCOMPARE(QByteArray(out.getPtr<char>(images::kHost), static_cast<int>(expected.size()))
                     .toHex(' '),
                 QByteArray(reinterpret_cast<const char*>(expected.data()),
                            static_cast<int>(expected.size()))
                     .toHex(' '));
    }

    // The emitted image shares the camera's buffer, so the queue must hold a copy of its own.
    void queuedImagesAreDeepCopies()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat left = images::filled(2, 1, 1000, 0x11);
        tq::Mat right = images::filled(2, 1, 1000, 0x22);
        streamer.left(left);
        streamer.right(right);
        std::memset(left.getPtr<char>(images::kHost), 0x77, 4);
        std::memset(right.getPtr<char>(images::kHost), 0x77, 4);
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(QByteArray(out.getPtr<char>(images::kHost), 8),
                 QByteArray("\x11\x11\x11\x11\x22\x22\x22\x22"));
    }

    void streamedBytes_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        for (const auto& [width, height] :
             {std::pair{1, 1}, {3, 5}, {641, 479}, {1920, 1200}, {3840, 2160}}) {
            QTest::addRow("%dx%d", width, height) << width << height;
        }
    }
    // The same through the streamer's own thread, several frames in a row.
    void streamedBytes()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        const auto w = static_cast<std::size_t>(width);
        const auto h = static_cast<std::size_t>(height);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(width, height)), 0);
        for (std::size_t n = 0; n < 3; ++n) {
            const std::vector<std::uint8_t> left = randomBytes(w * h * 2, 10 + n);
            const std::vector<std::uint8_t> right = randomBytes(w * h * 2, 20 + n);
            tq::Mat leftImage = imageOf(width, height, left);
            tq::Mat rightImage = imageOf(width, height, right);
            images::setTimestamp(leftImage, 1'000'000'123 + n * 33'000'000);
            images::setTimestamp(rightImage, 1'001'000'456 + n * 33'000'000);
            streamer.ingestLeftImage(1, leftImage, {}, {});
            streamer.ingestRightImage(2, rightImage, {}, {});
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), n + 1);
            const auto frame = sdkfake::lastSender().frames.back();
            QCOMPARE(frame->timestamp, tq::Timestamp{1'000'000'123 + n * 33'000'000});
            QVERIFY(frame->pixels == joinByPixels(left, right, w, h));
        }
    }
};

QTEST_GUILESS_MAIN(SideBySideTest)
#include "sidebyside_test.moc"
