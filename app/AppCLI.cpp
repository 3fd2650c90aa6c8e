// SPDX-License-Identifier: Apache-2.0
// Controller of the headless mode.
#include "app/AppCLI.h"

#include <QDebug>
#include <QFile>
#include <QThread>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "app/commands/commandrunners.h"
#include "app/virtualcameraconfig.h"

namespace {

constexpr unsigned long kMissingConfigPauseMs = 2000;
constexpr unsigned long kDaemonPauseMs = 2000;

// Ends the process at once. Capture threads may be running, so no destructor of static storage may
// run under them; what was logged must still come out.
[[noreturn]] void endProcess()
{
    std::cout.flush();
    std::fflush(nullptr);
    std::_Exit(EXIT_FAILURE);
}

QVector<int> physicalSerials(const QList<VirtualCameraInfos>& records)
{
    QVector<int> serials;
    for (const VirtualCameraInfos& record : records) {
        for (const std::uint64_t serial : {record.leftSerialNumber, record.rightSerialNumber}) {
            const int wanted = static_cast<int>(serial);
            if (!serials.contains(wanted)) {
                serials.append(wanted);
            }
        }
    }
    return serials;
}

}  // namespace

AppCLI::AppCLI(QString path)
{
    Q_UNUSED(path)
    const QString configPath = QString::fromLatin1(kVirtualCameraConfigPath);
    if (!QFile::exists(configPath)) {
        QThread::msleep(kMissingConfigPauseMs);
        endProcess();
    }

    // Without ".service", which the desktop mode adds. Deliberate: the rules for sudo that are
    // installed list both commands word for word.
    startBlockingProcess(QStringLiteral("./"),
                         QStringLiteral("sudo systemctl restart nvargus-daemon"), true);
    QThread::msleep(kDaemonPauseMs);  // the daemon needs time to come up

    // An error in the file is not caught: it ends the process. Deliberate.
    const QList<VirtualCameraInfos> records = readVirtualCameraConfig(configPath);
    if (records.isEmpty()) {
        qWarning() << "[KORVistrel] The configuration names no virtual camera: nothing is streamed";
    }
    // All cameras are opened with the values of the record read last. Deliberate.
    const VirtualCameraInfos settings = records.isEmpty() ? VirtualCameraInfos() : records.last();
    if (!openCameras(physicalSerials(records), settings)) {
        releaseAll();
        return;
    }
    for (const VirtualCameraInfos& record : records) {
        startStreamer(record);
    }
}

AppCLI::~AppCLI()
{
    releaseAll();
}

std::optional<std::uint64_t> AppCLI::receivedImages() const
{
    if (streamers.isEmpty()) {
        return std::nullopt;
    }
    std::uint64_t images = 0;
    for (VirtualCameraStreamer* const streamer : streamers) {
        images += streamer->receivedImages();
    }
    return images;
}

bool AppCLI::openCameras(const QVector<int>& wantedSerials, const VirtualCameraInfos& settings)
{
    // Never updated in the loop, so the check below never refuses: unlike the desktop mode, the
    // headless mode accepts a mixed set of models. Deliberate.
    const tq::MODEL rememberedModel = sdk::kNoModel;

    for (const tq::DeviceProperties& device : ArgusCamera::getGMSLDevices(true, false)) {
        if (rememberedModel != sdk::kNoModel && rememberedModel != device.model) {
            std::cout << incompatibleModelText(device.model, rememberedModel).toStdString()
                      << std::endl;
            return false;
        }
        if (!isSolo(device.model) || !wantedSerials.contains(device.serialNumber)) {
            continue;
        }
        auto* const camera = new KTCamera();
        if (camera->open(device.id, resolutionOf(settings.width, settings.height), settings.fps,
                         settings.hdr != 0) != 0) {
            endProcess();
        }
        cameras.insert(static_cast<int>(camera->getSN()), camera);
    }
    return true;
}

void AppCLI::startStreamer(const VirtualCameraInfos& record)
{
    const int virtualSerial = static_cast<int>(record.virtualSerialNumber);
    // A later record whose serial is equal after narrowing replaces the earlier streamer.
    delete streamers.take(virtualSerial);
    auto* const streamer = new VirtualCameraStreamer();
    streamers.insert(virtualSerial, streamer);

    // The lookups insert a null entry for a camera that is absent: that eye stays unconnected.
    connectEyes(cameras[static_cast<int>(record.leftSerialNumber)],
                cameras[static_cast<int>(record.rightSerialNumber)], streamer);
    if (streamer->open(record) != 0) {
        endProcess();
    }
}

void AppCLI::releaseAll()
{
    release(cameras);
    release(streamers);
}
