// SPDX-License-Identifier: Apache-2.0
// The headless program in the sandbox, with a rig and a configuration of its own.
#pragma once

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>

#include "tests/sandbox/sandbox.h"
#include "tests/support/freeport.h"

constexpr int kStartLimitMs = 30000;

inline QJsonObject camera(int serial, const QJsonObject& source, const QString& imu)
{
    QJsonObject object{{"serial", serial}, {"model", "KOR T Solo GS"}, {"source", source}};
    if (!imu.isEmpty()) {
        object["imu"] = QJsonObject{{"type", imu}};
    }
    return object;
}

inline QJsonObject simulated(const char* eye)
{
    return {{"type", "simulated"}, {"eye", eye}};
}

inline QByteArray document(const QJsonObject& object)
{
    return QJsonDocument(object).toJson();
}

/// One virtual camera of the configuration file.
struct VirtualCamera {
    int serial = 101234567;
    int left = 30100001;
    int right = 30100002;
    int width = 480;
    int height = 300;
    int fps = 30;
    quint16 port = 0;
    bool imu = true;

    QJsonObject json() const
    {
        return {{"Left", left},     {"Right", right}, {"IMU", imu},   {"Width", width},
                {"Height", height}, {"FPS", fps},     {"Port", port}, {"HDR", 0}};
    }
    QString url() const { return QStringLiteral("rtsp://127.0.0.1:%1/stereo").arg(port); }
};

/// kor_vistrel --cli in the sandbox with a rig and a configuration of its own.
class Service {
public:
    explicit Service(const QByteArray& rig)
    {
        sandbox::writeFile(folder.filePath("rig.json"), rig);
        QDir(folder.path()).mkdir("settings");
        options.settings = folder.filePath("settings");
        options.standIns = &standIns;
        options.environment.insert("KOR_RIG", folder.filePath("rig.json"));
        options.environment.remove("KOR_ENCODER");
    }
    ~Service()
    {
        process.kill();
        process.waitForFinished();
    }

    void configure(const QList<VirtualCamera>& cameras)
    {
        QJsonObject configuration;
        for (const VirtualCamera& virtualCamera : cameras) {
            configuration[QString::number(virtualCamera.serial)] = virtualCamera.json();
        }
        sandbox::writeFile(options.settings + "/virtual_tsolo_config.json",
                           document(configuration));
    }

    void start()
    {
        sandbox::prepare(process, options, QStringLiteral(KOR_VISTREL), {"--cli"});
        process.start();
        process.waitForStarted();
    }

    /// Configures one virtual camera, on a port that is free, and starts.
    /// @return whether it is served
    bool startWith(VirtualCamera& virtualCamera)
    {
        virtualCamera.port = static_cast<quint16>(freePort());
        configure({virtualCamera});
        start();
        return serves(virtualCamera.port);
    }

    /// Whether somebody listens on a port before the program ends or the limit is reached.
    bool serves(quint16 port)
    {
        QElapsedTimer limit;
        limit.start();
        while (limit.elapsed() < kStartLimitMs && process.state() == QProcess::Running) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            if (socket.waitForConnected(200)) {
                return true;
            }
            process.waitForFinished(100);
        }
        return false;
    }

    /// Runs until the program ends by itself.
    sandbox::Result runToEnd()
    {
        return sandbox::run(options, QStringLiteral(KOR_VISTREL), {"--cli"}, kStartLimitMs);
    }

    sandbox::StandIns standIns;
    sandbox::Options options;
    QProcess process;

private:
    QTemporaryDir folder;
};

inline QByteArray simulatedRig()
{
    return document({{"cameras", QJsonArray{camera(30100001, simulated("left"), "simulated"),
                                            camera(30100002, simulated("right"), "simulated"),
                                            camera(30100003, simulated("right"), "")}}});
}
