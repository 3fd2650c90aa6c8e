// SPDX-License-Identifier: Apache-2.0
// The colour conversion takes the processor's vector instructions, and gives what plain code gives.
#include <libyuv/convert.h>
#include <libyuv/cpu_id.h>
#include <libyuv/planar_functions.h>

#include <QtTest>
#include <cstdint>
#include <random>
#include <vector>

#include "sdk/stream/frameconverter.h"

namespace {

constexpr int kAllFlags = -1;
constexpr int kPlainCode = 1;
constexpr std::uint32_t kSeed = 7;

// What the library's vector code needs at least, and the processors of both targets have.
#if defined(__aarch64__)
constexpr int kWanted = libyuv::kCpuHasNEON;
#elif defined(__x86_64__)
constexpr int kWanted = libyuv::kCpuHasSSSE3;
#else
constexpr int kWanted = 0;
#endif

/// Sets the instructions that the library may use; later tests find all of them again.
class CpuFlags {
public:
    explicit CpuFlags(int flags) { libyuv::MaskCpuFlags(flags); }
    ~CpuFlags() { libyuv::MaskCpuFlags(kAllFlags); }
    CpuFlags(const CpuFlags&) = delete;
    CpuFlags& operator=(const CpuFlags&) = delete;
};

std::vector<std::uint8_t> noise(int width, int height)
{
    std::mt19937 random(kSeed);
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 2);
    for (std::uint8_t& pixel : pixels) {
        pixel = static_cast<std::uint8_t>(random());
    }
    return pixels;
}

/// Both conversions of the sender, one behind the other.
std::vector<std::uint8_t> convert(const std::vector<std::uint8_t>& yuyv, int width, int height)
{
    const auto luma = static_cast<std::size_t>(width) * height;
    const std::size_t chroma = luma / 4;
    std::vector<std::uint8_t> result(2 * (luma + 2 * chroma));
    std::uint8_t* const planar = result.data();
    std::uint8_t* const packed = planar + luma + 2 * chroma;
    libyuv::YUY2ToI420(yuyv.data(), width * 2, planar, width, planar + luma, width / 2,
                       planar + luma + chroma, width / 2, width, height);
    tq::stream::yuyvToNv12(yuyv.data(), width, height, packed, width, packed + luma, width);
    return result;
}

}  // namespace

class SimdTest : public QObject {
    Q_OBJECT

private slots:
    void isInUse();
    void canBeSwitchedOff();
    void givesWhatPlainCodeGives_data();
    void givesWhatPlainCodeGives();
};

void SimdTest::isInUse()
{
    if (kWanted == 0) {
        QSKIP("this machine is neither x86-64 nor ARM64");
    }
    QVERIFY(libyuv::TestCpuFlag(kWanted) != 0);
}

// Otherwise the comparison below compares the same code with itself.
void SimdTest::canBeSwitchedOff()
{
    const CpuFlags plain(kPlainCode);
    QCOMPARE(libyuv::TestCpuFlag(kWanted), 0);
}

void SimdTest::givesWhatPlainCodeGives_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::newRow("two eyes") << 2 * 1920 << 1200;
    for (int rest = 2; rest <= 32; rest += 2) {
        QTest::addRow("%d more than a multiple of a vector", rest) << 2 * 320 + rest << 6;
        QTest::addRow("%d", rest) << rest << 2;
    }
}

void SimdTest::givesWhatPlainCodeGives()
{
    QFETCH(int, width);
    QFETCH(int, height);
    const std::vector<std::uint8_t> yuyv = noise(width, height);
    const std::vector<std::uint8_t> converted = convert(yuyv, width, height);
    const CpuFlags plain(kPlainCode);
    QVERIFY(converted == convert(yuyv, width, height));
}

QTEST_GUILESS_MAIN(SimdTest)
#include "simd_test.moc"
