// SPDX-License-Identifier: Apache-2.0
// Controller of the desktop mode.
#include "app/AppGUI.h"

#include <QDebug>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QThread>
#include <cstdlib>
#include <iostream>

#include "app/commands/commandrunners.h"
#include "app/virtualcameraconfig.h"
#include "ui/mainwindow.h"
#include "ui/statusline.h"

namespace {

constexpr unsigned long kDaemonPauseS = 1;
constexpr unsigned long kServicePauseMs = 500;
constexpr int kAvailable = 0;
constexpr int kWidestText = 640;  // of a message box, pixels

QString configPath()
{
    return QString::fromLatin1(kVirtualCameraConfigPath);
}

void showInformation(QWidget* parent, const QString& text)
{
    QMessageBox box(QMessageBox::Information, QStringLiteral("Information"), text, QMessageBox::Ok,
                    parent);
    // A path is not broken: the toolkit wraps what is wider than this, also behind a slash.
    QLabel* const label = box.findChild<QLabel*>(QStringLiteral("qt_msgbox_label"));
    box.ensurePolished();
    label->setMinimumWidth(qMin(kWidestText, label->sizeHint().width()));
    box.exec();
}

void logResolutionChange(const QList<int>& serials, int width, int height)
{
    QDebug log = qDebug();
    log << "[KORVistrel] Changing the resolution of the camera ";
    for (int i = 0; i < serials.size(); ++i) {
        if (i > 0) {
            log << ", ";
        }
        log << serials[i];
    }
    log << " to " << width << " x " << height;
}

// A worker whose camera did not open is neither stored nor deleted, deliberately: the library may
// still be busy with the failed attempt, and tearing its grabber down meanwhile has no defined
// outcome. The worker stays reachable from here until the process ends.
void abandon(KTCamera* camera)
{
    static auto* const abandoned = new std::vector<KTCamera*>;
    abandoned->push_back(camera);
}

}  // namespace

AppGui::AppGui() : window(new MainWindow(nullptr))
{
    window->show();
    takeCamerasFromService();
    connectWindow();
    reloadCameras();
    loadVirtualStreamerConfiguration();
}

AppGui::~AppGui()
{
    saveCurrentConfiguration();
    releaseCameras();
    release(streamers);
    ArgusCamera::deleteProviderInstance();
    handOverToService();
    delete window;
}

void AppGui::takeCamerasFromService()
{
    const StatusLine::Wait wait(window->statusLine(), tr("Stopping the background service..."));
    startBlockingProcess(QStringLiteral("./"),
                         QStringLiteral("sudo systemctl stop ") + QLatin1String(kServiceUnit),
                         false);
}

void AppGui::connectWindow()
{
    connect(window, SIGNAL(askCameras()), this, SLOT(reloadCameras()));
    connect(window, SIGNAL(saveConf()), this, SLOT(applyVirtualStreamerConfiguration()));
    connect(window, &MainWindow::disableStream, this,
            [this](uint64_t serial) { triggerStream(static_cast<int>(serial), false); });
    connect(window, &MainWindow::activateStream, this, [this](int serial) {
        window->statusLine()->setText(window->streamObstacle(serial));
        triggerStream(serial, true);
    });
    window->onRowRemoved([this] { stopStreamersWithoutRow(); });
    window->onLook([this] { return streamFault(); });

    settings.open("Vistrel");
    const auto& stored = settings.archConf;
    global = {stored.fps, stored.width, stored.height, stored.hdr_mode};

    // One text for all three failures, deliberately: it is what logs are searched for.
    const auto report = [](bool connected) {
        if (!connected) {
            qDebug() << "[KORVistrel] Unable to connect the stream enable signal.";
        }
    };
    report(connect(window, &MainWindow::resolutionChanged, this,
                   [this](const QList<int>& serials, int newWidth, int newHeight, bool newHdr) {
                       // The signal carries no frame rate: the one of all cameras stays.
                       readCurrentSettings();
                       onResolutionChanged(serials, newWidth, newHeight, global.fps, newHdr);
                   }));
    report(connect(window, &MainWindow::resolutionAndFPSChanged, this,
                   [this](int newFps, int newWidth, int newHeight, bool newHdr) {
                       onResolutionChanged(cameras.keys(), newWidth, newHeight, newFps, newHdr);
                   }));
    report(connect(this, &AppGui::StreamEnabled, window, &MainWindow::UpdateStreamingStatus));
}

// What the lists have no value for stays as it was, but HDR.
void AppGui::readCurrentSettings()
{
    window->getCurrentSettings(global.fps, global.width, global.height, global.hdr);
}

void AppGui::saveCurrentConfiguration()
{
    readCurrentSettings();
    settings.saveConf(global.width, global.height, global.fps, global.hdr ? 1 : 0);
}

void AppGui::loadVirtualStreamerConfiguration()
{
    if (!QFile::exists(configPath())) {
        return;
    }
    const QList<VirtualCameraInfos> records = readVirtualCameraConfig(configPath());
    for (const VirtualCameraInfos& record : records) {
        qDebug() << "[KORVistrel] Loading virtual camera configuration S/N"
                 << record.virtualSerialNumber;
        for (const std::uint64_t serial : {record.leftSerialNumber, record.rightSerialNumber}) {
            if (!cameras.contains(static_cast<int>(serial))) {
                // The row is added all the same, so that the operator can correct it.
                qDebug() << "[KORVistrel] Camera S/N" << serial << "is not connected";
            }
        }
        window->addVirtualCamHandlerFromConfig(record);
    }
}

void AppGui::applyVirtualStreamerConfiguration()
{
    const QList<VirtualCameraInfos> records = window->getVirtualCameras();
    if (records.isEmpty()) {
        // The text speaks of OK although the buttons are Yes and No. Deliberate.
        QMessageBox question(
            QMessageBox::Question, QStringLiteral("Information"),
            QStringLiteral("Empty configuration. No Virtual cameras will be created.\n Press OK to "
                           "confirm."),
            QMessageBox::Yes | QMessageBox::No, window);
        question.setFont(QFont(QStringLiteral("Helvetica"), 10));
        if (question.exec() != QMessageBox::Yes) {
            return;
        }
        const StatusLine::Wait wait(window->statusLine(), tr("Removing the configuration..."));
        startBlockingProcess(QStringLiteral("."), QStringLiteral("rm ") + configPath(), false);
    }

    const QString error = writeVirtualCameraConfig(configPath(), records);
    if (!error.isEmpty()) {
        qDebug() << "[KORVistrel] Configuration was not written:" << error;
        window->statusLine()->setText(tr("The configuration was not written: %1").arg(error));
    }
    // The box follows also when nothing could be written. Deliberate.
    showInformation(window, QStringLiteral("Configuration has been saved in %1").arg(configPath()));
    saveCurrentConfiguration();
}

// ---- Cameras -----------------------------------------------------------------------------------

void AppGui::reloadCameras()
{
    window->setCamerasUsable(false);
    releaseCameras();
    restartCameraDaemon();

    std::vector<tq::DeviceProperties> found;
    tq::MODEL model = sdk::kNoModel;
    if (!findCameras(found, model)) {
        releaseCameras();
        feedStreamers();
        window->statusLine()->setText(
            tr("No camera is open: different models are connected. Unplug those of one model and "
               "press Reload"));
        return;
    }
    qDebug() << "[KORVistrel] Found : " << found.size() << " available cameras";
    window->setCamerasUsable(true);
    window->SetNoCameraLabelVisible(found.empty());
    window->setGlobalCameraConfigurationContent(model);
    window->onGlobalResolutionChanged(QString());
    if (!found.empty()) {
        chooseGlobalSettings();
        const QStringList failed = openCameras(found);
        if (!failed.isEmpty()) {
            window->statusLine()->setText(
                tr("No pictures from %1: it could not be opened").arg(failed.join(", ")));
        }
    } else {
        window->statusLine()->setText(tr("Plug a camera in and press Reload"));
    }
    offerSerials();
    feedStreamers();
}

void AppGui::restartCameraDaemon()
{
    const StatusLine::Wait wait(window->statusLine(), tr("Restarting the camera daemon..."));
    startBlockingProcess(QStringLiteral("./"),
                         QStringLiteral("sudo systemctl restart nvargus-daemon.service"), false);
    QThread::sleep(kDaemonPauseS);  // the daemon needs time to come up
}

bool AppGui::findCameras(std::vector<tq::DeviceProperties>& found, tq::MODEL& model)
{
    for (const tq::DeviceProperties& device : ArgusCamera::getGMSLDevices(true, false)) {
        if (!isSolo(device.model)) {
            continue;
        }
        if (static_cast<int>(device.state) != kAvailable) {
            qDebug() << "[KORVistrel] Camera S/N" << device.serialNumber << "is not available";
            continue;
        }
        if (model == sdk::kNoModel) {
            model = device.model;
        }
        if (device.model != model) {
            const QString text = incompatibleModelText(device.model, model);
            showInformation(window, text);
            std::cout << text.toStdString() << std::endl;
            return false;
        }
        found.push_back(device);
    }
    return true;
}

// Selects the settings of all cameras in the window and takes over what it could select. The
// frame-rate list may be blank then: the rate that was asked for stays.
void AppGui::chooseGlobalSettings()
{
    if (QFile::exists(configPath())) {
        // One setting for all cameras: the last record with a size wins. Deliberate.
        const QList<VirtualCameraInfos> records = readVirtualCameraConfig(configPath());
        for (const VirtualCameraInfos& record : records) {
            if (record.width > 0 && record.height > 0) {
                global.fps = record.fps;
                window->setCurrentSettings(record.fps, record.width, record.height,
                                           record.hdr != 0);
            }
        }
    } else {
        window->setCurrentSettings(global.fps, global.width, global.height, global.hdr);
    }
    readCurrentSettings();
}

// Returns the serials of those that could not be opened.
QStringList AppGui::openCameras(const std::vector<tq::DeviceProperties>& found)
{
    const StatusLine::Wait wait(window->statusLine(), tr("Opening the cameras..."));
    QStringList failed;
    for (const tq::DeviceProperties& device : found) {
        auto* const camera = new KTCamera();
        const int result = openCamera(camera, device.id, global);
        if (result != 0) {
            qDebug() << "[KORVistrel] Failed to open camera " << device.id << " at resolution "
                     << global.width << "x" << global.height << "@" << global.fps
                     << " ==> ErrCode=" << result;
            failed.append(QString::number(device.serialNumber));
            abandon(camera);
            continue;
        }
        const int serial = static_cast<int>(camera->getSN());
        window->addCameraWidget(serial);
        showCamera(camera);
        cameras.insert(serial, camera);
    }
    return failed;
}

int AppGui::openCamera(KTCamera* camera, int id, const CaptureSettings& wanted)
{
    qDebug() << "[KORVistrel] Opening camera " << id << " at Resolution " << wanted.width << "x"
             << wanted.height << "@" << wanted.fps;
    return camera->open(id, resolutionOf(wanted.width, wanted.height), wanted.fps, wanted.hdr);
}

// Describes an opened camera in its panel and shows its pictures there.
void AppGui::showCamera(const KTCamera* camera)
{
    const int serial = static_cast<int>(camera->getSN());
    cameraInfos[serial] = camera->getInfos();
    window->updateCameraWidget(serial, cameraInfos[serial]);
    connect(camera, SIGNAL(sendYUYVImage(int, tq::Mat, tq::IMUPacket, std::vector<tq::IMUPacket>)),
            window, SLOT(updateCameraFrame(int, tq::Mat)));
}

void AppGui::offerSerials()
{
    QStringList texts;
    for (auto serial = cameras.keyBegin(); serial != cameras.keyEnd(); ++serial) {
        texts.append(QString::number(*serial));
    }
    window->offerSerials(texts);
}

void AppGui::onResolutionChanged(QList<int> serials, int newWidth, int newHeight, int newFps,
                                 bool is_hdr)
{
    window->stopVirtualStreamers();
    logResolutionChange(serials, newWidth, newHeight);

    QList<KTCamera*> affected;
    for (auto camera = cameras.begin(); camera != cameras.end(); ++camera) {
        if (serials.contains(camera.key())) {
            affected.append(*camera);
        }
    }
    if (affected.isEmpty()) {
        return;
    }
    // All are closed before the first is reopened: cameras on one link share its bandwidth.
    for (KTCamera* const camera : qAsConst(affected)) {
        disconnect(camera,
                   SIGNAL(sendYUYVImage(int, tq::Mat, tq::IMUPacket, std::vector<tq::IMUPacket>)),
                   window, SLOT(updateCameraFrame(int, tq::Mat)));
        camera->close();
    }
    reopenCameras(affected, {newFps, newWidth, newHeight, is_hdr});
}

void AppGui::reopenCameras(const QList<KTCamera*>& closed, const CaptureSettings& wanted)
{
    QStringList failed;
    {
        const StatusLine::Wait wait(window->statusLine(), tr("Opening the cameras..."));
        for (KTCamera* const camera : closed) {
            const int result = openCamera(camera, camera->getInfos().id, wanted);
            if (result == 0) {
                showCamera(camera);
                continue;
            }
            // Two blanks, deliberately.
            qDebug() << "[KORVistrel] Failed  to reopen the camera ==> ErrCode=" << result;
            failed.append(QString::number(camera->getSN()));
        }
    }
    if (!failed.isEmpty()) {
        window->statusLine()->setText(
            tr("No pictures from %1: it could not be opened again").arg(failed.join(", ")));
    }
}

// ---- Streams -----------------------------------------------------------------------------------

void AppGui::triggerStream(int serial, bool enable)
{
    if (enable) {
        qDebug() << "[KORVistrel] Enable streaming of virtual camera S/N" << serial;
    } else {
        qDebug() << "[KORVistrel] Disable streaming of virtual camera S/N" << serial;
    }
    if (serial < 1) {
        return;
    }
    const VirtualCameraInfos record = window->getVirtualCameraInfo(serial);
    if (record.virtualSerialNumber != static_cast<std::uint64_t>(serial)) {
        return;
    }
    if (streamers.contains(serial)) {
        // Enabling a running virtual camera stops it too: the row has one button. Deliberate.
        stopStreamer(serial);
        return;
    }
    if (!enable) {
        return;
    }
    if (record.leftSerialNumber == record.rightSerialNumber) {
        showInformation(
            window, QStringLiteral("Invalid configuration. The same camera was selected twice."));
        return;
    }
    startStreamer(record);
}

void AppGui::startStreamer(const VirtualCameraInfos& record)
{
    const int serial = static_cast<int>(record.virtualSerialNumber);
    auto* const streamer = new VirtualCameraStreamer();
    streamers.insert(serial, streamer);
    streamRecords.insert(serial, record);

    // The end of a stopped streamer may be reported after the same virtual camera was started
    // again; by then the pointer is null, and the report is none of the new streamer's.
    const QPointer<VirtualCameraStreamer> reporter(streamer);
    if (!connect(streamer, &VirtualCameraStreamer::StreamUpdated, this,
                 [this, reporter](int stoppedSerial, bool) {
                     if (reporter) {
                         emit StreamEnabled(stoppedSerial, false);
                     }
                 })) {
        qDebug() << "[KORVistrel] Unable to connect the stream update signal.";
    }
    feedStreamer(streamer, record);

    const int result = openStreamer(streamer, record);
    if (result == 0) {
        emit StreamEnabled(serial, true);
        return;
    }
    QMessageBox box(QMessageBox::Information, QStringLiteral("Information"),
                    QStringLiteral("Unable to stream virtual camera %1. Error %2")
                        .arg(record.virtualSerialNumber)
                        .arg(result),
                    QMessageBox::Ok, window);
    box.setStyleSheet(window->styleSheet());
    box.setFont(window->font());
    box.exec();
    delete streamers.take(serial);
    streamRecords.remove(serial);
}

// Trying encoders may take seconds.
int AppGui::openStreamer(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record)
{
    const StatusLine::Wait wait(window->statusLine(), tr("Starting the stream..."));
    return streamer->open(record);
}

void AppGui::stopStreamer(int serial)
{
    delete streamers.take(serial);
    streamRecords.remove(serial);
    emit StreamEnabled(serial, false);
}

// Nobody could stop the stream of a removed row any more, and its port would stay taken.
void AppGui::stopStreamersWithoutRow()
{
    const QList<int> serials = streamers.keys();
    for (const int serial : serials) {
        if (!window->showsVirtualSerial(serial)) {
            stopStreamer(serial);
        }
    }
}

// Its button says "Streaming..." all the same: it may yet have pairs.
QString AppGui::streamFault() const
{
    for (auto streamer = streamers.begin(); streamer != streamers.end(); ++streamer) {
        const std::int64_t apartUs = std::abs((*streamer)->apartUs());
        if (apartUs > 0) {
            return tr("%1 sends nothing: its cameras take their pictures %2 ms apart, at most 5 "
                      "make a pair")
                .arg(streamer.key())
                .arg(static_cast<double>(apartUs) / 1000);
        }
    }
    return {};
}

void AppGui::feedStreamer(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record)
{
    connectEyes(cameras.value(static_cast<int>(record.leftSerialNumber)),
                cameras.value(static_cast<int>(record.rightSerialNumber)), streamer);
}

bool AppGui::canFeed(const VirtualCameraInfos& record) const
{
    for (const std::uint64_t serial : {record.leftSerialNumber, record.rightSerialNumber}) {
        const CameraInfos camera = cameraInfos.value(static_cast<int>(serial));
        if (camera.width != record.width || camera.height != record.height ||
            camera.fps != record.fps) {
            return false;
        }
    }
    return true;
}

// A reload replaces the workers under the running streams: those whose cameras came back as they
// were go on, the others are stopped rather than shown as streaming without a picture.
void AppGui::feedStreamers()
{
    const QList<int> serials = streamers.keys();
    for (const int serial : serials) {
        const VirtualCameraInfos record = streamRecords.value(serial);
        if (canFeed(record)) {
            feedStreamer(streamers.value(serial), record);
            window->UpdateStreamingStatus(static_cast<unsigned long>(serial), true);
        } else {
            stopStreamer(serial);
        }
    }
}

// ---- End ---------------------------------------------------------------------------------------

void AppGui::releaseCameras()
{
    release(cameras);
    cameras.clear();
    cameraInfos.clear();
}

void AppGui::handOverToService()
{
    if (ServiceHandler::getDaemonServiceEnableStatus(kServiceUnit)) {
        qDebug() << "[KORVistrel] Restarting Vistrel";
        QThread::msleep(kServicePauseMs);
        qDebug() << "[KORVistrel] Activate CLI mode";
        startBlockingProcess(
            QStringLiteral("."),
            QStringLiteral("sudo systemctl restart ") + QLatin1String(kServiceUnit), true);
    } else {
        qDebug() << "[WARNING] " << kServiceUnit << " is not enabled. Call `sudo systemctl restart "
                 << kServiceUnit << "` to activate it";
    }
}
