// SPDX-License-Identifier: Apache-2.0
// A recording in the ASL layout that a test makes for itself.
#pragma once

#include <png.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdint>
#include <cstring>
#include <vector>

constexpr std::uint64_t kFirst = 1400000000000000000;
constexpr std::uint64_t kPeriod = 50000000;

inline bool writePng(const QString& path, int width, int height,
                     const std::vector<unsigned char>& pixels, unsigned format)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<unsigned>(width);
    image.height = static_cast<unsigned>(height);
    image.format = format;
    return png_image_write_to_file(&image, qPrintable(path), 0, pixels.data(), 0, nullptr) != 0;
}

inline void writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

/// A recording of two cameras at 20 frames per second, whose grey pictures show their number, and
/// of an inertial unit.
class SyntheticRecording {
public:
    /// @param edge what shows the number: an edge that moves to the right, between bright and dark
    /// for the
    ///             left camera, dark and bright for the right one; else the grey of the whole
    ///             picture
    explicit SyntheticRecording(int frames = 5, int width = 16, int height = 8, bool edge = false)
    {
        QDir dir(root());
        for (const int eye : {0, 1}) {
            const QString camera = QString("cam%1").arg(eye);
            dir.mkpath("mav0/" + camera + "/data");
            QByteArray list = "#timestamp [ns],filename\n";
            for (int i = 0; i < frames; ++i) {
                const QByteArray name = QByteArray::number(i) + ".png";
                list += QByteArray::number(qulonglong(kFirst + kPeriod * unsigned(i))) + "," +
                        name + "\r\n";
                std::vector<unsigned char> pixels(std::size_t(width * height));
                for (std::size_t at = 0; at < pixels.size(); ++at) {
                    const bool before = int(at) % width * frames < width * (i + 1);
                    const int grey = !edge ? 3 * i + 5 : before == (eye == 0) ? 200 : 60;
                    pixels[at] = static_cast<unsigned char>(grey);
                }
                writePng(file(camera + "/data/" + name), width, height, pixels, PNG_FORMAT_GRAY);
            }
            writeText(file(camera + "/data.csv"), list);
        }
        dir.mkpath("mav0/imu0");
        QByteArray imu = "#timestamp,wx,wy,wz,ax,ay,az\n";
        for (int i = 0; i <= frames * 10; ++i) {
            imu += QByteArray::number(qulonglong(kFirst + kPeriod / 10 * unsigned(i))) +
                   ",0.1,0.2,0.3,1,2," + QByteArray::number(i) + "\n";
        }
        writeText(file("imu0/data.csv"), imu);
    }

    QString root() const { return folder.path(); }
    QString file(const QString& inner) const { return folder.filePath("mav0/" + inner); }

private:
    QTemporaryDir folder;
};

/// The rows of a test that plays a recording of 40 frames of 752 x 480: one that the suite made,
/// and a real one where it lies beside the checkout.
inline void addRecordings(const SyntheticRecording& own)
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("own") << own.root() + "/mav0";
    const QString real = QStringLiteral(VISTREL_SOURCE_DIR "/../shared/data/stereo-imu/mav0");
    if (QDir(real).exists())
        QTest::newRow("real") << real;
}
