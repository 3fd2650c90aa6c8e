// SPDX-License-Identifier: Apache-2.0
// The window of the desktop mode.
#pragma once

#include <QList>
#include <QMainWindow>
#include <QMap>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <memory>

#include "capture/Camera.h"
#include "capture/VirtualCameraInfos.h"
#include "capture/sdk.h"
#include "ui/camerawidget.h"
#include "ui/virtualcamhandler.h"

class StatusLine;
class Style;
class Ui_MainWindow;

/// Previews of the physical cameras, one editor row per virtual camera, the capture settings of all
/// cameras, saving, and the service's start switch. Holds no capture or streaming logic: the
/// controller listens to the signals and feeds cameras, frames and streaming states. GUI thread.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    /// Builds the window and shows it.
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    /// Lists the capture resolutions of a model; no model empties both global lists.
    void setGlobalCameraConfigurationContent(tq::MODEL model);

    /// Lists the frame rates of a resolution (pixels) and selects the first.
    void setAvailableFramerates(int width, int height, bool hdr);

    /// Reads the global settings: frames per second, pixels. What the lists have no value for is
    /// left as it is, but @p hdr is always set.
    void getCurrentSettings(int& fps, int& width, int& height, bool& hdr);

    /// Selects global settings and announces them, unless that would change nothing.
    void setCurrentSettings(int fps, int width, int height, bool hdr);

    /// Adds a row filled from a record of the configuration. The row keeps cameras of the record
    /// that are not in the serial list.
    void addVirtualCamHandlerFromConfig(VirtualCameraInfos info);

    /// The records of all rows, in the order of the rows' identities. Size, frame rate, IMU and HDR
    /// come from the left camera. Where that is absent, a row from the configuration keeps what it
    /// was loaded with, and a new one has zeros. A pair whose cameras differ in size is left out.
    QList<VirtualCameraInfos> getVirtualCameras();

    /// The record of the first row with this virtual serial that can be streamed. A default record
    /// when there is none.
    VirtualCameraInfos getVirtualCameraInfo(int virtualSerial);

    /// Why getVirtualCameraInfo() finds no record, for the operator; empty when it finds one.
    QString streamObstacle(int virtualSerial) const;

    /// Shows the label and hides what is of no use without cameras, or the other way round.
    void SetNoCameraLabelVisible(bool visible);

    /// Whether there is something to set, apply and pair: with cameras that do not go together
    /// there is not. Saving stays possible.
    void setCamerasUsable(bool usable);

    /// Shows in the switch's tool tip whether the service starts automatically.
    void updateDaemonServiceEnableStatusButton(bool enabled);

    /// Applies fonts and style sheets.
    void applyStyle();

    /// A new identity for an editor: a random UUID in braces that no editor has.
    QString generateUniqueID();

    /// Offers these physical serials in all rows. Unlike updateSerialList() it keeps what the rows
    /// have chosen, also cameras that are not among them.
    void offerSerials(const QStringList& serials);

    /// What to call after a row was removed, when its record is gone.
    void onRowRemoved(std::function<void()> function) { rowRemoved = std::move(function); }

    /// What to ask every second for what is amiss with the streams; an empty text when nothing is.
    /// The foot says it unless cameras are silent.
    void onLook(std::function<QString()> function) { streamFault = std::move(function); }

    /// Whether a row shows this virtual serial.
    bool showsVirtualSerial(int virtualSerial) const;

    /// Where the window says what it waits for, and why nothing happened.
    StatusLine* statusLine() const;

signals:
    /// Enumerate the cameras again.
    void askCameras();
    /// Save what getVirtualCameras() returns.
    void saveConf();
    /// Start the stream of a virtual camera.
    void activateStream(int);
    /// Stop the stream of a virtual camera.
    void disableStream(uint64_t);
    /// Resolution of one virtual camera: physical serials, width and height in pixels, HDR.
    void resolutionChanged(QList<int>, int, int, bool);
    /// Resolution of all cameras: frames per second, width and height in pixels, HDR.
    void resolutionAndFPSChanged(int, int, int, bool);

public slots:
    /// Shows the description of a camera in its panel.
    void updateCameraWidget(int serial, CameraInfos infos);
    /// Shows a frame in its camera's panel, at most one every 31 ms per panel, and fewer where
    /// drawing takes so long that it would fill more than half of the time. All others are dropped,
    /// and those of another size than the one in the panel's description.
    void updateCameraFrame(int serial, tq::Mat frame);
    void addCameraWidget(int serial_number);
    void removeCameraWidget(int serial_number);
    /// Adds an empty row.
    void addVirtualCamHandler();
    void removeVirtualCamHandler(QString uuid_);
    /// Offers these physical serials in all rows, which clears every row's choices.
    void updateSerialList(QStringList serials);
    void onResolutionChanged(QList<int> serials, int width, int height, bool is_hdr);
    /// Shows in every row with this virtual serial whether it streams.
    void UpdateStreamingStatus(unsigned long serial, bool on);
    /// Lists the frame rates of the selected global resolution; the text is not looked at.
    void onGlobalResolutionChanged(QString text);
    void onApplyGlobalCameraConfiguration();
    /// Asks to stop the stream of every row.
    void stopVirtualStreamers();
    /// Switches the service's automatic start.
    void toggleDaemonService();
    /// Removes every panel and asks for the cameras.
    void requestCameras();
    void requestConfSave();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

    /// Draws a frame.
    virtual void drawPreview(CameraWidget& panel, const tq::Mat& frame);

    /// A candidate for generateUniqueID().
    virtual QString makeIdentity() const;

    /// Connects a new row. False when one of its stream signals could not be connected.
    virtual bool connectEditor(VirtualCamHandler* editor);

    /// The system's clock, milliseconds.
    virtual qint64 currentTimeMs() const;

    /// A second has passed: says at the foot which cameras have delivered nothing for some, or what
    /// else is amiss.
    void noteSilence();

private:
    void connectControls();
    void fitIntoScreen();
    void arrangePanels();
    void arrangeRows();
    VirtualCamHandler* createEditor(const QString& identity);
    void insertEditor(const QString& identity, VirtualCamHandler* editor, int position);
    void orderTabStops();
    void keepInView(VirtualCamHandler* editor);
    void scrollTo(const VirtualCamHandler* editor);
    CameraWidget* panelOf(std::uint64_t serial) const;
    QString obstacleOf(const VirtualCameraInfos& row) const;
    qint64 previewIntervalMs() const;

    std::unique_ptr<Style> style;
    std::unique_ptr<Ui_MainWindow> ui;
    QMap<QString, CameraWidget*> cameraPanels;  // by physical serial; an entry may be null
    QMap<QString, qint64> lastPreviewTimes;     // by physical serial, ms of the system clock
    QMap<QString, VirtualCamHandler*> editors;  // by identity: walks follow the keys, not the rows
    QStringList serialList;
    QMap<QString, VirtualCameraInfos> loadedRecords;  // by identity, of rows from the configuration
    QMap<QString, qint64> lastDrawTimes;              // by physical serial, ms that it took
    QMap<QString, int> silentSeconds;                 // by physical serial, since the last frame
    QString fault;                                    // as said at the foot
    std::function<void()> rowRemoved;
    std::function<QString()> streamFault;
    QPointer<QObject> keptInView;  // child of the row that is scrolled to
};
