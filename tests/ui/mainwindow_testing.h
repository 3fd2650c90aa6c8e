// SPDX-License-Identifier: Apache-2.0
// What the tests of the main window share: a window that notes what is drawn, cameras and records.
#pragma once

#include "ui/mainwindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <QWheelEvent>
#include <QWindow>
#include <memory>

#include "tests/sandbox/sandbox.h"
#include "tests/support/messagelog.h"
#include "tests/support/qtcalls.h"
#include "tests/ui/messageboxes.h"
#include "tests/ui/metaobjects.h"
#include "tests/ui/rows.h"
#include "ui/statusline.h"
#include "ui/style.h"

namespace mainwindow {

constexpr int kLeftCamera = 30123456;
constexpr int kRightCamera = 30123457;
inline const QStringList kSerials{"30123456", "30123457"};

// Notes what is drawn instead of drawing it, and gives out identities that the test chose.
class Window : public MainWindow {
public:
    QStringList drawn;
    mutable QStringList identities;
    mutable bool blockedWhenNaming = false;  // a row that is being added
    qint64 timeMs = 1'000'000;
    qint64 drawMs = 0;  // that drawing takes
    bool connects = true;

    template <typename Widget>
    Widget* part(const char* name) const
    {
        return findChild<Widget*>(QLatin1String(name));
    }
    QList<VirtualCamHandler*> rows() const { return rowsOf(*this); }
    using MainWindow::noteSilence;

protected:
    void drawPreview(CameraWidget& panel, const tq::Mat&) override
    {
        timeMs += drawMs;
        drawn.append(QString::number(panel.getInfos().serial_number));
    }
    QString makeIdentity() const override
    {
        blockedWhenNaming = signalsBlocked();
        return identities.isEmpty() ? MainWindow::makeIdentity() : identities.takeFirst();
    }
    qint64 currentTimeMs() const override { return timeMs; }
    bool connectEditor(VirtualCamHandler* editor) override
    {
        return connects && MainWindow::connectEditor(editor);
    }
};

inline CameraInfos camera(int serial, int width = 1920, int height = 1200)
{
    CameraInfos infos;
    infos.serial_number = serial;
    infos.model = sdk::kSoloGs;
    infos.width = width;
    infos.height = height;
    infos.fps = 30;
    infos.hasMCU = true;
    infos.hdr = true;
    return infos;
}

inline void attach(MainWindow& window, const CameraInfos& infos)
{
    const int serial = static_cast<int>(infos.serial_number);
    window.addCameraWidget(serial);
    window.updateCameraWidget(serial, infos);
}

inline VirtualCameraInfos record(std::uint64_t virtualSerial, std::uint64_t left = kLeftCamera,
                                 std::uint64_t right = kRightCamera)
{
    VirtualCameraInfos infos;
    infos.virtualSerialNumber = virtualSerial;
    infos.leftSerialNumber = left;
    infos.rightSerialNumber = right;
    infos.port = 34560;
    infos.width = 960;
    infos.height = 600;
    infos.fps = 60;
    infos.imu = true;
    infos.hdr = 1;
    return infos;
}

inline tq::Mat frame(unsigned long width = 1920, unsigned long height = 1200)
{
    tq::Mat image;
    image.alloc(width, height, sdk::kYuyv, sdk::kHostMemory);
    return image;
}

template <typename Widget>
Widget* rowPart(const VirtualCamHandler* row, const char* name)
{
    return row->findChild<Widget*>(QLatin1String(name));
}

// As the windowing system does: a control whose policy says so gets focus.
inline void turnWheel(QWidget* control, int angle)
{
    const QPoint center = control->rect().center();
    QWindow* const window = control->window()->windowHandle();
    QWheelEvent event(control->mapTo(control->window(), center), control->mapToGlobal(center),
                      QPoint(), QPoint(0, angle), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                      false);
    QSpontaneKeyEvent::setSpontaneous(&event);
    qApp->notify(window, &event);  // sendEvent() would take that back
}

inline QStringList texts(const QComboBox* list)
{
    QStringList all;
    for (int i = 0; i < list->count(); ++i) {
        all << list->itemText(i);
    }
    return all;
}

}  // namespace mainwindow

/// Base of the tests: sudo and systemctl are stood in for.
class MainWindowTesting : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        standIns = std::make_unique<sandbox::StandIns>();
        standIns->answer("systemctl", "disabled\n", "", 1);
        standIns->install();
    }
    void cleanup() { standIns.reset(); }

protected:
    std::unique_ptr<sandbox::StandIns> standIns;
};
