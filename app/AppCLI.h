// SPDX-License-Identifier: Apache-2.0
// Controller of the headless mode.
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QVector>
#include <cstdint>
#include <optional>

#include "app/cameraset.h"
#include "capture/VirtualCameraInfos.h"

/// Streams every configured virtual camera until the process is killed. The constructor does all
/// the work; afterwards only the event loop runs. Main thread.
class AppCLI : public QObject {
    Q_OBJECT

public:
    /// Opens the configured cameras and streams. Ends the process with status 1 when the
    /// configuration file is missing or a camera or stream cannot be opened.
    /// @param path accepted and not used: the configuration path is fixed
    explicit AppCLI(QString path);

    /// Deletes the capture workers, then the streamers.
    ~AppCLI() override;

    /// How many images all streams have received; nothing when the configuration names no stream.
    std::optional<std::uint64_t> receivedImages() const;

private:
    bool openCameras(const QVector<int>& wantedSerials, const VirtualCameraInfos& settings);
    void startStreamer(const VirtualCameraInfos& record);
    void releaseAll();

    Cameras cameras;
    Streamers streamers;
};
