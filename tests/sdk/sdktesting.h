// SPDX-License-Identifier: Apache-2.0
// What the tests of the open SDK share: rigs of their own, clocks, the log.
#pragma once

#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <algorithm>
#include <functional>
#include <vector>

#include "sdk/core/clock.h"
#include "tq_kor/tq_kor.h"

/// Serial numbers that no other test process uses, and the removal of their lock files.
class Serials {
public:
    ~Serials()
    {
        for (const int serial : used) {
            QFile::remove(lockFile(serial));
        }
    }

    /// @param family 30 or 31
    int make(int family = 30)
    {
        int serial = 0;
        do {
            serial = family * 1000000 + QRandomGenerator::system()->bounded(1000000);
        } while (std::count(used.begin(), used.end(), serial) > 0 ||
                 QFile::exists(lockFile(serial)));
        used.push_back(serial);
        return serial;
    }

    static QString lockFile(int serial) { return QString("/dev/shm/tq_local_%1").arg(serial); }

private:
    std::vector<int> used;
};

/// A rig file that KOR_RIG names while this object lives.
class TemporaryRig {
public:
    TemporaryRig() { qputenv("KOR_RIG", path().toLocal8Bit()); }
    ~TemporaryRig()
    {
        ArgusCamera::deleteProviderInstance();
        qunsetenv("KOR_RIG");
    }

    QString path() const { return folder.filePath("rig.json"); }

    void write(const QByteArray& text)
    {
        QFile file(path());
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
            qFatal("cannot write %s", qPrintable(path()));
        }
        file.close();
        ArgusCamera::deleteProviderInstance();
    }

    /// One camera with a source, and optionally an inertial unit; its serial.
    int add(QJsonObject source, QJsonObject imu = {}, int family = 30)
    {
        const int serial = serials.make(family);
        QJsonObject camera{{"serial", serial},
                           {"model", family == 30 ? "KOR T Solo GS" : "KOR T Solo UHD"},
                           {"source", source}};
        if (!imu.isEmpty()) {
            camera["imu"] = imu;
        }
        cameras.append(camera);
        write(QJsonDocument(QJsonObject{{"cameras", cameras}}).toJson());
        return serial;
    }

private:
    QTemporaryDir folder;
    Serials serials;
    QJsonArray cameras;
};

inline QJsonObject simulated(const char* eye = "left")
{
    return {{"type", "simulated"}, {"eye", eye}};
}

/// Collects what is written to standard error while this object lives.
class ErrorLog {
public:
    ErrorLog()
    {
        if (!file.open()) {
            qFatal("no temporary file");
        }
        kept = ::dup(STDERR_FILENO);
        ::dup2(file.handle(), STDERR_FILENO);
    }
    ~ErrorLog()
    {
        ::dup2(kept, STDERR_FILENO);
        ::close(kept);
    }

    /// All that was written so far.
    QByteArray text() const
    {
        QFile written(file.fileName());
        return written.open(QIODevice::ReadOnly) ? written.readAll() : QByteArray();
    }

    /// Lines so far that begin with the library's prefix, without it.
    QStringList lines() const
    {
        QStringList found;
        for (const QString& line : QString::fromUtf8(text()).split('\n')) {
            if (line.startsWith("[tq_kor] ")) {
                found << line.mid(9);
            }
        }
        return found;
    }

private:
    QTemporaryFile file;
    int kept = -1;
};

/// A clock on which sleeping takes no time.
class TestClock : public tq::Clock {
public:
    tq::Timestamp now() const override { return time; }

    tq::Wake sleepUntil(tq::Timestamp instant, const std::atomic<bool>& stop) const override
    {
        if (stop.load()) {
            return tq::Wake::STOPPED;
        }
        if (beforeSleep) {
            const tq::Wake wake = beforeSleep(instant);
            if (wake != tq::Wake::REACHED) {
                return wake;
            }
        }
        time = std::max(time, instant);
        return tq::Wake::REACHED;
    }

    mutable tq::Timestamp time = 1700000000000000123;
    std::function<tq::Wake(tq::Timestamp)> beforeSleep;
};

/// Opens a camera as the program does.
inline int openCamera(tq::LiveCameraGrabber& grabber, int id, int width = 320, int height = 200,
                      int fps = 30, tq::IMU_FREQ frequency = tq::IMU_FREQ::HIGH)
{
    grabber.setMonoCapture(true);
    grabber.setInputType(tq::INPUT_TYPE::GMSL);
    int number = id;
    return grabber.setUp(number, width, height, fps, 2, false, frequency, false, false);
}

/// Asks for a new frame, for some seconds if need be.
/// @return the last status
inline int waitForFrame(tq::LiveCameraGrabber& grabber)
{
    constexpr int kQuestions = 500;  // each waits up to 20 ms
    int status = 0;
    for (int i = 0; i < kQuestions && status == 0; ++i) {
        status = grabber.getFrameStatus();
    }
    return status;
}
