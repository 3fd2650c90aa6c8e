// SPDX-License-Identifier: Apache-2.0
// Controller of the desktop mode.
#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <vector>

#include "app/cameraset.h"
#include "app/confFileManager.h"
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
    /// Capture settings: frames per second, pixels.
    struct CaptureSettings {
        int fps = 0;
        int width = 0;
        int height = 0;
        bool hdr = false;
    };

    void takeCamerasFromService();
    void connectWindow();
    void readCurrentSettings();
    void restartCameraDaemon();
    bool findCameras(std::vector<tq::DeviceProperties>& found, tq::MODEL& model);
    void chooseGlobalSettings();
    QStringList openCameras(const std::vector<tq::DeviceProperties>& found);
    void reopenCameras(const QList<KTCamera*>& closed, const CaptureSettings& wanted);
    static int openCamera(KTCamera* camera, int id, const CaptureSettings& wanted);
    void showCamera(const KTCamera* camera);
    void offerSerials();
    void startStreamer(const VirtualCameraInfos& record);
    int openStreamer(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record);
    void stopStreamer(int serial);
    void stopStreamersWithoutRow();
    QString streamFault() const;
    void feedStreamer(VirtualCameraStreamer* streamer, const VirtualCameraInfos& record);
    bool canFeed(const VirtualCameraInfos& record) const;
    void feedStreamers();
    void releaseCameras();
    void handOverToService();

    ConfFileManager settings;
    MainWindow* window = nullptr;  // deleted by the destructor
    Streamers streamers;
    Cameras cameras;
    QMap<int, CameraInfos> cameraInfos;           // by physical serial
    CaptureSettings global;                       // last stored or last read from the window
    QMap<int, VirtualCameraInfos> streamRecords;  // by virtual serial, of the running streamers
};
