// SPDX-License-Identifier: Apache-2.0
// Controller of the desktop mode.
#include "app/AppGUI.h"

#include <QDebug>
#include <QFile>
#include <QMessageBox>
#include <QPointer>
#include <QThread>
#include <algorithm>
#include <iostream>

#include "app/commands/commandrunners.h"
#include "app/virtualcameraconfig.h"
#include "ui/mainwindow.h"
#include "ui/waitnotice.h"

namespace {

constexpr unsigned long kDaemonPauseS = 1;
constexpr unsigned long kServicePauseMs = 500;
constexpr int kAvailable = 0;

QString configPath()
{
    return QString::fromLatin1(kVirtualCameraConfigPath);
}

bool isSolo(tq::MODEL model)
{
    return model == sdk::kSoloGs || model == sdk::kSoloUhd;
}

tq::Resolution resolutionOf(int width, int height)
{
    return {static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height)};
}

void showInformation(QWidget* parent, const QString& text)
{
    QMessageBox box(QMessageBox::Information, QStringLiteral("Information"), text, QMessageBox::Ok,
                    parent);
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
    releaseAll();
    ArgusCamera::deleteProviderInstance();
    handOverToService();
    delete window;
}

void AppGui::takeCamerasFromService()
{
    const WaitNotice notice(window->footLine(), tr("Stopping the background service..."));
    startBlockingProcess(QStringLiteral("./"),
                         QStringLiteral("sudo systemctl stop ") + QLatin1String(kServiceUnit),
                         false);
}

void AppGui::connectWindow()
{
    connect(window, SIGNAL(askCameras()), this, SLOT(reloadCameras()));
    connect(window, SIGNAL(saveConf()), this, SLOT(applyVirtualStreamerConfiguration()));
    connect(window, &MainWindow::disableStream, this, [this](uint64_t serial) {
        triggerStream(static_cast<int>(serial), false);
        // A row from the configuration sends 0 when its cameras change: its stream has none now.
        stopOrphanedStreamers();
    });
    connect(window, &MainWindow::activateStream, this,
            [this](int serial) { triggerStream(serial, true); });
    window->onRowRemoved([this] { stopOrphanedStreamers(); });

    settings.open("Vistrel");
    width = settings.archConf.width;
    height = settings.archConf.height;
    fps = settings.archConf.fps;
    hdr = settings.archConf.hdr_mode;
    chosen = storedSettings();

    // One text for all three failures, deliberately: it is what logs are searched for.
    const auto report = [](bool connected) {
        if (!connected) {
            qDebug() << "[KORVistrel] Unable to connect the stream enable signal.";
        }
    };
    report(connect(window, &MainWindow::resolutionChanged, this,
                   [this](const QList<int>& serials, int newWidth, int newHeight, bool newHdr) {
                       // The signal carries no frame rate: the one of all cameras stays.
                       onResolutionChanged(serials, newWidth, newHeight,
                                           currentSettings(chosen).fps, newHdr);
                   }));
    report(connect(window, &MainWindow::resolutionAndFPSChanged, this,
                   [this](int newFps, int newWidth, int newHeight, bool newHdr) {
                       chosen = {newFps, newWidth, newHeight, newHdr};
                       onResolutionChanged(cameras.keys(), newWidth, newHeight, newFps, newHdr);
                   }));
    report(connect(this, &AppGui::StreamEnabled, window, &MainWindow::UpdateStreamingStatus));
}

// What the window's lists say, each value for itself: the frame-rate list may be blank while the
// other one is not.
AppGui::CaptureSettings AppGui::currentSettings(const CaptureSettings& fallback) const
{
    CaptureSettings current{fallback.fps, 0, 0, false};
    window->getCurrentSettings(current.fps, current.width, current.height, current.hdr);
    if (current.width == 0 || current.height == 0) {
        // Without a resolution there is no text that could say whether it is HDR.
        return {current.fps, fallback.width, fallback.height, fallback.hdr};
    }
    return current;
}

void AppGui::saveCurrentConfiguration()
{
    const CaptureSettings current = currentSettings(chosen);
    width = current.width;
    height = current.height;
    fps = current.fps;
    hdr = current.hdr;
    settings.saveConf(width, height, fps, hdr ? 1 : 0);
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
        const WaitNotice notice(window->footLine(), tr("Removing the configuration..."));
        startBlockingProcess(QStringLiteral("."), QStringLiteral("rm ") + configPath(), false);
    }

    // Whether the file could be opened is not checked, deliberately: the box below follows in any
    // case, and a missing folder shows at the next start.
    QFile file(configPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        file.write(QByteArray::fromStdString(serializeVirtualCameraConfig(records)));
        file.write("\n");
        file.flush();
    }
    showInformation(window, QStringLiteral("Configuration has been saved in %1").arg(configPath()));
    file.close();
    saveCurrentConfiguration();
}

// ---- Cameras -----------------------------------------------------------------------------------

void AppGui::reloadCameras()
{
    window->footLine()->setNotice(QString());
    releaseCameras();
    restartCameraDaemon();

    std::vector<tq::DeviceProperties> found;
    tq::MODEL model = sdk::kNoModel;
    if (!findCameras(found, model)) {
        releaseCameras();
        refeedStreamers();
        window->footLine()->setNotice(tr("No camera is open: different models are connected"));
        return;
    }
    qDebug() << "[KORVistrel] Found : " << found.size() << " available cameras";
    window->SetNoCameraLabelVisible(found.empty());
    window->setGlobalCameraConfigurationContent(model);
    window->onGlobalResolutionChanged(QString());

    offerSerials(found.empty() ? QList<int>() : openCameras(found));
    refeedStreamers();
}

void AppGui::restartCameraDaemon()
{
    const WaitNotice notice(window->footLine(), tr("Restarting the camera daemon..."));
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
            const QString text =
                QStringLiteral(
                    "Incompatible camera model: %1 instead of %2. You cannot use different models "
                    "at the same time with this version.")
                    .arg(QString::fromUtf8(tq::toString(device.model).c_str()),
                         QString::fromUtf8(tq::toString(model).c_str()));
            showInformation(window, text);
            std::cout << text.toStdString() << std::endl;
            return false;
        }
        found.push_back(device);
    }
    return true;
}

// Selects the settings of all cameras in the window. Returns what was asked for, which the lists
// may be unable to show.
AppGui::CaptureSettings AppGui::chooseGlobalSettings()
{
    CaptureSettings asked = storedSettings();
    if (!QFile::exists(configPath())) {
        window->setCurrentSettings(asked.fps, asked.width, asked.height, asked.hdr);
        return asked;
    }
    // One setting for all cameras: the last record with a size wins. Deliberate.
    const QList<VirtualCameraInfos> records = readVirtualCameraConfig(configPath());
    for (const VirtualCameraInfos& record : records) {
        if (record.width > 0 && record.height > 0) {
            asked = {record.fps, record.width, record.height, record.hdr != 0};
            window->setCurrentSettings(asked.fps, asked.width, asked.height, asked.hdr);
        }
    }
    return asked;
}

// Opens what was found with the settings of all cameras. Returns the serial numbers of those that
// opened.
QList<int> AppGui::openCameras(const std::vector<tq::DeviceProperties>& found)
{
    const WaitNotice notice(window->footLine(), tr("Opening the cameras..."));
    chosen = currentSettings(chooseGlobalSettings());
    QList<int> serials;
    for (const tq::DeviceProperties& device : found) {
        if (const int serial = openCamera(device, chosen)) {
            serials.append(serial);
        }
    }
    return serials;
}

// Returns the serial number under which the camera is stored, 0 when it did not open.
int AppGui::openCamera(const tq::DeviceProperties& device, const CaptureSettings& wanted)
{
    auto* const camera = new KTCamera();
    qDebug() << "[KORVistrel] Opening camera " << device.id << " at Resolution " << wanted.width
             << "x" << wanted.height << "@" << wanted.fps;
    const int result =
        camera->open(device.id, resolutionOf(wanted.width, wanted.height), wanted.fps, wanted.hdr);
    if (result != 0) {
        qDebug() << "[KORVistrel] Failed to open camera " << device.id << " at resolution "
                 << wanted.width << "x" << wanted.height << "@" << wanted.fps
                 << " ==> ErrCode=" << result;
        abandon(camera);
        return 0;
    }
    const int serial = static_cast<int>(camera->getSN());
    window->addCameraWidget(serial);
    cameraInfos[serial] = camera->getInfos();
    window->updateCameraWidget(serial, cameraInfos[serial]);
    connectPreview(camera);
    cameras.insert(serial, camera);
    return serial;
}

void AppGui::connectPreview(const KTCamera* camera) const
{
    connect(camera, SIGNAL(sendYUYVImage(int, tq::Mat, tq::IMUPacket, std::vector<tq::IMUPacket>)),
            window, SLOT(updateCameraFrame(int, tq::Mat)));
}

void AppGui::offerSerials(const QList<int>& serials)
{
    QStringList texts;
    for (const int serial : serials) {
        texts.append(QString::number(serial));
    }
    // Offering the serials clears every row's choices; a reload must not lose the operator's work,
    // not even that on cameras which come back only with a later one.
    const QMap<QString, VirtualCameraInfos> former = window->editorRecords();
    window->updateSerialList(texts);
    window->restoreSerialChoices(former);
}

void AppGui::onResolutionChanged(QList<int> serials, int newWidth, int newHeight, int newFps,
                                 bool is_hdr)
{
    window->stopVirtualStreamers();
    // Streams whose row was renumbered or removed meanwhile: frames of another size would not fit.
    const QList<int> left = streamers.keys();
    for (const int serial : left) {
        stopStreamer(serial);
    }

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
    const WaitNotice notice(window->footLine(), tr("Opening the cameras..."));
    // All are closed before the first is reopened: cameras on one link share its bandwidth.
    for (KTCamera* const camera : qAsConst(affected)) {
        disconnect(camera,
                   SIGNAL(sendYUYVImage(int, tq::Mat, tq::IMUPacket, std::vector<tq::IMUPacket>)),
                   window, SLOT(updateCameraFrame(int, tq::Mat)));
        camera->close();
    }
    for (KTCamera* const camera : qAsConst(affected)) {
        reopenCamera(camera, resolutionOf(newWidth, newHeight), newFps, is_hdr);
    }
}

void AppGui::reopenCamera(KTCamera* camera, tq::Resolution resolution, int newFps, bool newHdr)
{
    const int id = camera->getInfos().id;
    qDebug() << "[KORVistrel] Opening camera " << id << " at Resolution " << resolution.width << "x"
             << resolution.height << "@" << newFps;
    const int result = camera->open(id, resolution, newFps, newHdr);
    if (result != 0) {
        // Two blanks, deliberately.
        qDebug() << "[KORVistrel] Failed  to reopen the camera ==> ErrCode=" << result;
        forgetDescription(static_cast<int>(camera->getSN()));
        return;
    }
    const int serial = static_cast<int>(camera->getSN());
    cameraInfos[serial] = camera->getInfos();
    window->updateCameraWidget(serial, cameraInfos[serial]);
    connectPreview(camera);
}

// The camera is closed: neither its panel nor a stream may go by what it was opened with before.
void AppGui::forgetDescription(int serial)
{
    if (cameraInfos.contains(serial)) {
        CameraInfos closed = cameraInfos.take(serial);
        closed.width = 0;
        closed.height = 0;
        closed.fps = 0;
        window->updateCameraWidget(serial, closed);
    }
}

// ---- Streams -----------------------------------------------------------------------------------

void AppGui::triggerStream(int serial, bool enable)
{
    if (enable) {
        qDebug() << "[KORVistrel] Enable streaming of virtual camera S/N" << serial;
        window->footLine()->showRemark(obstacleOf(serial));
    } else {
        qDebug() << "[KORVistrel] Disable streaming of virtual camera S/N" << serial;
    }
    if (serial < 1) {
        return;
    }
    const VirtualCameraInfos record = window->getVirtualCameraInfo(serial);
    if (record.virtualSerialNumber != static_cast<std::uint64_t>(serial)) {
        if (enable) {
            logClosedCameras(serial);
        }
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
    if (!cameraInfos.contains(static_cast<int>(record.leftSerialNumber)) ||
        !cameraInfos.contains(static_cast<int>(record.rightSerialNumber))) {
        logClosedCameras(serial);
        return;
    }
    // One that nothing shows any more could hold the port.
    stopOrphanedStreamers();
    startStreamer(record);
}

void AppGui::logClosedCameras(int virtualSerial) const
{
    const QMap<QString, VirtualCameraInfos> rows = window->editorRecords();
    for (const VirtualCameraInfos& row : rows) {
        if (row.virtualSerialNumber != static_cast<std::uint64_t>(virtualSerial)) {
            continue;
        }
        for (const std::uint64_t serial : {row.leftSerialNumber, row.rightSerialNumber}) {
            if (serial != 0 && !cameraInfos.contains(static_cast<int>(serial))) {
                qDebug() << "[KORVistrel] Camera S/N" << serial << "is not open";
            }
        }
    }
}

// Why pressing "Stream" cannot do anything, for the operator; empty when it can.
QString AppGui::obstacleOf(int virtualSerial) const
{
    if (virtualSerial < 1) {
        return tr("Press Generate first");
    }
    QString obstacle;
    const QMap<QString, VirtualCameraInfos> rows = window->editorRecords();
    for (const VirtualCameraInfos& row : rows) {
        if (row.virtualSerialNumber == static_cast<std::uint64_t>(virtualSerial)) {
            obstacle = obstacleOf(row);
            if (obstacle.isEmpty()) {
                break;  // of rows with one number, this one is streamed
            }
        }
    }
    return obstacle;
}

QString AppGui::obstacleOf(const VirtualCameraInfos& row) const
{
    for (const std::uint64_t serial : {row.leftSerialNumber, row.rightSerialNumber}) {
        if (serial == 0) {
            return tr("Choose both cameras first");
        }
        if (!cameras.contains(static_cast<int>(serial))) {
            return tr("Camera %1 is not available").arg(serial);
        }
        if (!cameraInfos.contains(static_cast<int>(serial))) {
            return tr("Camera %1 is not open").arg(serial);
        }
    }
    const CameraInfos left = cameraInfos.value(static_cast<int>(row.leftSerialNumber));
    const CameraInfos right = cameraInfos.value(static_cast<int>(row.rightSerialNumber));
    if (left.width != right.width || left.height != right.height) {
        return tr("Cameras %1 and %2 have different resolutions")
            .arg(row.leftSerialNumber)
            .arg(row.rightSerialNumber);
    }
    return {};
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
                     if (reporter && streamers.value(stoppedSerial) == reporter) {
                         emit StreamEnabled(stoppedSerial, false);
                     }
                 })) {
        qDebug() << "[KORVistrel] Unable to connect the stream update signal.";
    }
    connectEyes(streamer, record);

    const int result = streamer->open(record);
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
    // The row may still show a stream that was stopped for this one.
    window->UpdateStreamingStatus(static_cast<unsigned long>(serial), false);
}

void AppGui::stopStreamer(int serial)
{
    delete streamers.take(serial);
    streamRecords.remove(serial);
    emit StreamEnabled(serial, false);
}

// A stream loses its row when the row is removed, gets another number or changes its cameras.
// Nobody could stop it then, and its port stays taken.
void AppGui::stopOrphanedStreamers()
{
    const QMap<QString, VirtualCameraInfos> rows = window->editorRecords();
    const QList<int> serials = streamers.keys();
    for (const int serial : serials) {
        const VirtualCameraInfos stream = streamRecords.value(serial);
        const bool isShown =
            std::any_of(rows.begin(), rows.end(), [&stream](const VirtualCameraInfos& row) {
                return row.virtualSerialNumber == stream.virtualSerialNumber &&
                       row.leftSerialNumber == stream.leftSerialNumber &&
                       row.rightSerialNumber == stream.rightSerialNumber;
            });
        if (!isShown) {
            stopStreamer(serial);
        }
    }
}

void AppGui::connectEyes(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record)
{
    if (const KTCamera* const left = cameras.value(static_cast<int>(record.leftSerialNumber))) {
        connect(left, &KTCamera::sendYUYVImage, streamer, &VirtualCameraStreamer::ingestLeftImage);
    }
    if (const KTCamera* const right = cameras.value(static_cast<int>(record.rightSerialNumber))) {
        connect(right, &KTCamera::sendYUYVImage, streamer,
                &VirtualCameraStreamer::ingestRightImage);
    }
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
void AppGui::refeedStreamers()
{
    const QList<int> serials = streamers.keys();
    for (const int serial : serials) {
        if (canFeed(streamRecords.value(serial))) {
            connectEyes(streamers.value(serial), streamRecords.value(serial));
        } else {
            stopStreamer(serial);
        }
    }
}

// ---- End ---------------------------------------------------------------------------------------

void AppGui::releaseCameras()
{
    qDeleteAll(cameras);
    cameras.clear();
    cameraInfos.clear();
}

void AppGui::releaseAll()
{
    releaseCameras();
    qDeleteAll(streamers);
    streamers.clear();
    streamRecords.clear();
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
