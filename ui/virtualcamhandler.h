// SPDX-License-Identifier: Apache-2.0
// Editor of one virtual stereo camera: a row of the main window.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <memory>

#include "capture/VirtualCameraInfos.h"
#include "capture/sdk.h"

QT_BEGIN_NAMESPACE
class QComboBox;
class QPushButton;
QT_END_NAMESPACE
class Style;
class Ui_Form;

/// Row in which the operator pairs two cameras, names the pair, chooses its port, starts a test
/// stream and removes the row. An empty choice means that no camera is chosen. GUI thread.
class VirtualCamHandler : public QWidget {
    Q_OBJECT

public:
    /// @param identity names the editor, handed back by remove(); never changes
    VirtualCamHandler(QString identity, QWidget* parent);
    ~VirtualCamHandler() override;

    /// Lists the capture resolutions of the model that a physical serial number belongs to. The
    /// former choice stays if it is still offered and no size is asked for.
    /// @param serial     physical serial number, decimal
    /// @param resolution 0 × 0 keeps the former choice, pixels
    /// @param tip        tool tip of the list
    void updateResolutions(QString serial, tq::Resolution resolution, QString tip);

    /// Offers these physical serials on both sides and clears both choices; emits nothing.
    void updateSerials(QStringList serials);

    /// Sets the port that belongs to a row: 34000 + 10 × @p index, within the range of ports.
    void updatePort(unsigned int index);

    /// Sets the port as given, within the range of ports.
    void setPort(unsigned int port);

    /// Shows a virtual serial number. The number that the signals carry stays as it is.
    void setVirtualSN(unsigned int serial);

    /// Chooses a camera as if the operator did.
    /// @param side   0 left, 1 right; anything else does nothing
    /// @param serial physical serial number; one that is not offered leaves the choice as it is
    void setSerial(int side, unsigned int serial);

    /// Offers a camera that is absent besides the list, dimmed, so that the row can keep it; emits
    /// nothing. 0 and a serial that is offered already do nothing.
    /// @param side 0 left, 1 right
    void offerAbsent(int side, std::uint64_t serial);

    /// Chooses both cameras without a signal, a check or a box, also absent ones; 0 chooses none.
    void restoreChoices(std::uint64_t leftSerial, std::uint64_t rightSerial);

    /// What the row says; texts that are no number read as 0, and nothing is validated. Size, frame
    /// rate and flags are 0.
    VirtualCameraInfos getInfos() const;

    /// The number in the serial field as a decimal int, 0 when it is none.
    int shownSerial() const;

    /// What the keyboard goes through, in this order.
    QList<QWidget*> tabStops() const;

    /// Puts the stream button back to idle and unchecked.
    void resetStreamButton();

    /// Applies fonts and style sheets.
    void applyStyle();

signals:
    /// The editor asks to be removed.
    void remove(QString);
    /// Start a test stream of the virtual camera whose serial is shown.
    void activateStream(int);
    /// Stop the stream of this virtual camera; carries the number last generated in this row.
    void disableStream(uint64_t);
    /// Physical serials (left, right), width and height in pixels, HDR.
    void resolutionChanged(QList<int>, int, int, bool);

public slots:
    /// Shows whether the virtual camera streams.
    void UpdateStreamingStatus(bool enable);
    /// Asks to be removed.
    void triggerRemove();
    /// Draws a virtual serial number from 100000001 to 109999999. Nothing tests whether it is
    /// already in use.
    void generateVirtualSN();
    /// Asks for the test stream.
    void requestStreamTest();
    /// Checks the pair after a choice; a choice that cannot be paired is refused with a box and
    /// cleared.
    /// @param side 0 left, 1 right
    /// @param text the side's new text; an empty one does nothing
    void SensorSNChanged(int side, QString text);
    /// Announces the chosen resolution for the pair. Not connected to the list: one resolution for
    /// all cameras is chosen in the window's header, and the list stays hidden.
    void onResolutionChanged(QString text);

protected:
    /// Leaves the wheel to the area in which the rows are scrolled, but for a control with focus.
    bool eventFilter(QObject* watched, QEvent* event) override;

    /// Connects the stream button to requestStreamTest().
    /// @return whether that succeeded
    using StreamConnector = std::function<bool(VirtualCamHandler&, QPushButton*)>;

    VirtualCamHandler(QString identity, QWidget* parent, const StreamConnector& connectStream);

private:
    void guardFromWheel();
    void alignStreamButton();
    static void dimAbsent(QComboBox* choice);
    QComboBox* serialChoice(int side) const;
    void refuseChoice(int side, const QString& text);

    std::unique_ptr<Ui_Form> ui;
    QString uuid;
    // Set by generateVirtualSN() alone: it stays 0 in a row loaded from the configuration, and
    // disableStream carries it rather than the text shown. Deliberate.
    std::uint64_t virtualSerial = 0;
    std::unique_ptr<Style> style;
};
