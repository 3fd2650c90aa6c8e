// SPDX-License-Identifier: Apache-2.0
// What the tests of the desktop controller share: scripted cameras, the window, a sandbox.
#pragma once

#include "app/AppGUI.h"

#include <QApplication>
#include <QComboBox>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalBlocker>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/sandbox/sandbox.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/messagelog.h"
#include "tests/support/qtcalls.h"
#include "tests/ui/messageboxes.h"
#include "tests/ui/metaobjects.h"
#include "tests/ui/rows.h"
#include "ui/mainwindow.h"

namespace appgui {

constexpr int kLeft = 30123456;
constexpr int kRight = 30123457;
constexpr int kThird = 30123458;
constexpr int kVirtual = 101234567;

inline const QString kConfig = QStringLiteral("/usr/local/kor/settings/virtual_tsolo_config.json");
inline const QString kStop = QStringLiteral("sudo systemctl stop kor_vistrel_cli.service");
inline const QString kRestartDaemon =
    QStringLiteral("sudo systemctl restart nvargus-daemon.service");
inline const QString kQuery = QStringLiteral("systemctl is-enabled kor_vistrel_cli.service");
// Previews are connected automatically: queued from the camera's thread.
inline const QString kPreview = QStringLiteral("MainWindow connected, type 0");
inline const QString kNoPreview = QStringLiteral("MainWindow disconnected");
inline const QString kEye = QStringLiteral("VirtualCameraStreamer connected, type 0");
inline const QStringList kStored = {QStringLiteral("stored height"), QStringLiteral("stored width"),
                                    QStringLiteral("stored fps"),
                                    QStringLiteral("stored hdr_mode")};
inline const QString kEnumerate = QStringLiteral("ArgusCamera.getGMSLDevices(true, false)");

inline void addCamera(int id, int serial, tq::MODEL model = sdk::kSoloGs)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    setup.model = model;
    sdkfake::addCamera(setup);
}

inline void addTwoCameras()
{
    addCamera(0, kLeft);
    addCamera(1, kRight);
}

// From the next enumeration on the camera is in use by someone else.
inline void detach(int id, int serial)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    setup.state = tq::DeviceState::NOT_AVAILABLE;
    sdkfake::changeCamera(setup);
}

// From the next enumeration on the camera is there.
inline void attach(int id, int serial)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    sdkfake::changeCamera(setup);
}

// Does something once when a message comes that begins with a text.
class MessageActions {
public:
    MessageActions(QString prefix, std::function<void()> function)
    {
        awaited() = std::move(prefix);
        action() = std::move(function);
        former() = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& text) {
                if (action() && text.startsWith(awaited())) {
                    std::exchange(action(), nullptr)();
                }
                former()(type, context, text);
            });
    }
    ~MessageActions() { qInstallMessageHandler(former()); }
    MessageActions(const MessageActions&) = delete;
    MessageActions& operator=(const MessageActions&) = delete;

private:
    static QString& awaited()
    {
        static QString text;
        return text;
    }
    static std::function<void()>& action()
    {
        static std::function<void()> function;
        return function;
    }
    static QtMessageHandler& former()
    {
        static QtMessageHandler handler;
        return handler;
    }
};

inline QByteArray member(int virtualSerial, int left, int right, const QByteArray& size,
                         int port = 34000)
{
    return '"' + QByteArray::number(virtualSerial) + "\":{\"Left\":" + QByteArray::number(left) +
           ",\"Right\":" + QByteArray::number(right) + ",\"Port\":" + QByteArray::number(port) +
           ",\"IMU\":true," + size + '}';
}

inline const QByteArray kSmall = "\"Width\":960,\"Height\":600,\"FPS\":60,\"HDR\":0";

inline QByteArray written()
{
    return sandbox::readFile(kConfig);
}

// The controller, and what a user sees of it.
class Desktop {
public:
    Desktop()
    {
        const QWidgetList widgets = QApplication::topLevelWidgets();
        for (QWidget* const widget : widgets) {
            if (auto* const candidate = qobject_cast<MainWindow*>(widget)) {
                window = candidate;
            }
        }
    }

    template <typename Widget>
    Widget* part(const char* name) const
    {
        return window->findChild<Widget*>(QLatin1String(name));
    }
    QList<VirtualCamHandler*> rows() const { return rowsOf(*window); }
    QPushButton* streamButton(int row = 0) const
    {
        return rows().at(row)->findChild<QPushButton*>(QStringLiteral("TestButton"));
    }
    QComboBox* choice(int row, const char* name) const
    {
        return rows().at(row)->findChild<QComboBox*>(QLatin1String(name));
    }
    VirtualCamHandler* addRow(int serial, int left, int right)
    {
        part<QPushButton>("addVCamButton")->click();
        VirtualCamHandler* const row = rows().last();
        row->setVirtualSN(static_cast<unsigned int>(serial));
        row->setSerial(0, static_cast<unsigned int>(left));
        row->setSerial(1, static_cast<unsigned int>(right));
        return row;
    }
    QStringList panels() const
    {
        QStringList serials;
        const QLayout* const layout = part<QLayout>("scrollAreaWidgetContentsHorizontalLayout");
        for (int i = 0; i < layout->count(); ++i) {
            const auto* const panel = qobject_cast<CameraWidget*>(layout->itemAt(i)->widget());
            serials << QString::number(panel->getInfos().serial_number);
        }
        return serials;
    }

    AppGui controller;
    MainWindow* window = nullptr;
    QSignalSpy streams{&controller, &AppGui::StreamEnabled};
};

// Notes what the window said that it waits for, as far as it reached the screen.
class WaitTexts : public QObject {
public:
    WaitTexts() { qApp->installEventFilter(this); }
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Paint &&
            watched->objectName() == QLatin1String("statusLine")) {
            const QString text = static_cast<QLabel*>(watched)->text();
            if (!text.isEmpty() && (texts.isEmpty() || texts.last() != text)) {
                texts.append(text);
                cursors.append(QApplication::overrideCursor() != nullptr);
            }
        }
        return false;
    }
    QStringList texts;
    QList<bool> cursors;
};

}  // namespace appgui

/// Base of the tests: each function has cameras, stand-ins and a record of its own.
class AppGuiTesting : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

protected:
    // Calls to the SDK, external commands, pauses, connections of cameras and settings that are
    // stored, in their order.
    QStringList record() const
    {
        return QString::fromLocal8Bit(sandbox::readFile(recordFile()))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    void clearRecord() const { QFile::resize(recordFile(), 0); }
    QString recordFile() const { return directory->filePath(QStringLiteral("record")); }

    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<sandbox::StandIns> standIns;
    std::FILE* mirror = nullptr;
};

/// Runs a test in the sandbox: the paths that the controller uses are absolute.
int runInSandbox(QObject& test, int argc, char** argv);
