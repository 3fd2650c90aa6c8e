// SPDX-License-Identifier: Apache-2.0
// Controller of the desktop mode.
#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <vector>

#include "app/confFileManager.h"
#include "capture/Camera.h"
#include "capture/Streamer.h"
#include "capture/VirtualCameraInfos.h"

class MainWindow;

/// Owns what is no widget: one capture worker per physical camera and one streamer per virtual
/// camera that streams. Answers the main window's requests. GUI thread.
class AppGui : public QObject {
    Q_OBJECT

public:
    /// Shows the window, takes the cameras from the background service, opens them and loads the
    /// configured virtual cameras.
    AppGui();

    /// Stores the capture settings, releases cameras and streams, and hands the cameras back to the
    /// background service if it is enabled.
    ~AppGui() override;

    /// Stores the window's capture settings in the settings store.
    void saveCurrentConfiguration();

    /// Adds an editor row for every configured virtual camera, also when its cameras are absent.
    /// @throws nlohmann::json::exception when the configuration file is malformed
    void loadVirtualStreamerConfiguration();

signals:
    /// A virtual camera's streaming state changed: now streaming, or stopped or failed.
    void StreamEnabled(int serial, bool enable);

public slots:
    /// Writes the window's virtual cameras to the configuration file and stores the capture
    /// settings.
    void applyVirtualStreamerConfiguration();

    /// Starts or stops a virtual camera; one that streams is stopped in either case.
    void triggerStream(int serial, bool enable);

    /// Stops every virtual camera and reopens cameras.
    /// @param serials      physical serials of the cameras
    /// @param width,height pixels
    /// @param fps          frames per second
    void onResolutionChanged(QList<int> serials, int width, int height, int fps, bool is_hdr);

    /// Closes every camera, restarts the camera daemon, enumerates and opens.
    /// @throws nlohmann::json::exception when the configuration file is malformed
    void reloadCameras();

private:
    /// Capture settings of all cameras: frames per second, pixels.
    struct CaptureSettings {
        int fps = 0;
        int width = 0;
        int height = 0;
        bool hdr = false;
    };

    CaptureSettings currentSettings(const CaptureSettings& fallback) const;
    CaptureSettings storedSettings() const { return {fps, width, height, hdr}; }
    void takeCamerasFromService();
    void connectWindow();
    void restartCameraDaemon();
    bool findCameras(std::vector<tq::DeviceProperties>& found, tq::MODEL& model);
    CaptureSettings chooseGlobalSettings();
    QList<int> openCameras(const std::vector<tq::DeviceProperties>& found);
    int openCamera(const tq::DeviceProperties& device, const CaptureSettings& wanted);
    void reopenCamera(KTCamera* camera, tq::Resolution resolution, int fps, bool hdr);
    void forgetDescription(int serial);
    void offerSerials(const QList<int>& serials);
    void connectPreview(const KTCamera* camera) const;
    void startStreamer(const VirtualCameraInfos& record);
    void stopStreamer(int serial);
    void stopOrphanedStreamers();
    void refeedStreamers();
    void connectEyes(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record);
    bool canFeed(const VirtualCameraInfos& record) const;
    void logClosedCameras(int virtualSerial) const;
    QString obstacleOf(int virtualSerial) const;
    QString obstacleOf(const VirtualCameraInfos& row) const;
    void releaseCameras();
    void releaseAll();
    void handOverToService();

    ConfFileManager settings;
    MainWindow* window = nullptr;                 // deleted by the destructor
    QMap<int, VirtualCameraStreamer*> streamers;  // by virtual serial
    QMap<int, KTCamera*> cameras;                 // by physical serial
    QMap<int, CameraInfos> cameraInfos;           // by physical serial
    int width = 0;                                // global capture settings last stored, pixels
    int height = 0;
    int fps = 0;
    bool hdr = false;
    QMap<int, VirtualCameraInfos> streamRecords;  // by virtual serial, of the running streamers
    CaptureSettings chosen;                       // last asked for, by a scan or the operator
};
