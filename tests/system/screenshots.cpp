// SPDX-License-Identifier: Apache-2.0
// Takes the pictures of the operator's guide: the real controller and window on simulated cameras.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QSet>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "app/AppGUI.h"
#include "app/virtualcameraconfig.h"
#include "capture/sdk.h"
#include "tests/sdk/patterndecoder.h"
#include "ui/camerawidget.h"
#include "ui/mainwindow.h"
#include "ui/virtualcamhandler.h"

namespace {

constexpr int kPreviewMs = 2500;  // in which every preview has shown pictures
constexpr int kSettleMs = 400;    // in which the window manager and the style are done
constexpr int kStepMs = 20;       // between two looks at the screen
constexpr int kLimitMs = 60000;   // in which all previews have shown one time

/// What one picture needs: cameras, then something that the operator does.
struct Scene {
    const char* name;
    QStringList models;  // "GS" or "UHD" per camera
    std::function<void(MainWindow&)> action;
    bool boxAtStart = false;
};

QByteArray rig(const QStringList& models)
{
    QJsonArray cameras;
    for (int i = 0; i < models.size(); ++i) {
        const bool uhd = models[i] == "UHD";
        cameras.append(QJsonObject{
            {"serial", (uhd ? 31123456 : 30123456) + i},
            {"model", uhd ? "KOR T Solo UHD" : "KOR T Solo GS"},
            {"source", QJsonObject{{"type", "simulated"}, {"eye", i % 2 == 0 ? "left" : "right"}}},
            {"imu", QJsonObject{{"type", "simulated"}}}});
    }
    return QJsonDocument(QJsonObject{{"cameras", cameras}}).toJson();
}

template <typename Widget>
Widget* control(QWidget& parent, const char* name)
{
    return parent.findChild<Widget*>(QString::fromLatin1(name));
}

VirtualCamHandler* addRow(MainWindow& window, int left, int right, unsigned int virtualSerial)
{
    const QList<VirtualCamHandler*> before = window.findChildren<VirtualCamHandler*>();
    control<QPushButton>(window, "addVCamButton")->click();
    for (VirtualCamHandler* const row : window.findChildren<VirtualCamHandler*>()) {
        if (!before.contains(row)) {
            control<QComboBox>(*row, "LeftSensorSNChoice")->setCurrentIndex(left);
            control<QComboBox>(*row, "RightSensorSNChoice")->setCurrentIndex(right);
            if (virtualSerial != 0) {
                row->setVirtualSN(virtualSerial);
            }
            return row;
        }
    }
    return nullptr;
}

void pressStream(VirtualCamHandler* row)
{
    control<QPushButton>(*row, "TestButton")->click();
}

void save(MainWindow& window)
{
    control<QPushButton>(window, "ApplyButton")->click();
}

QList<Scene> scenes()
{
    const QStringList two{"GS", "GS"};
    return {
        {"start", two, [](MainWindow&) {}},
        {"two-cameras-streaming", two,
         [](MainWindow& window) { pressStream(addRow(window, 0, 1, 104711823)); }},
        {"four-cameras",
         {"GS", "GS", "GS", "GS"},
         [](MainWindow& window) {
             pressStream(addRow(window, 0, 1, 104711823));
             addRow(window, 2, 3, 108150946);
         }},
        {"no-camera", {}, [](MainWindow&) {}},
        {"same-camera-twice", two, [](MainWindow& window) { addRow(window, 0, 0, 104711823); }},
        {"mixed-sensors", two,
         [](MainWindow& window) {
             VirtualCameraInfos record;
             record.virtualSerialNumber = 104711823;
             record.leftSerialNumber = 30123456;
             record.rightSerialNumber = 31123457;
             record.port = 34000;
             window.addVirtualCamHandlerFromConfig(record);
         }},
        {"invalid-configuration", two,
         [](MainWindow& window) {
             VirtualCamHandler* const row = addRow(window, 0, 1, 104711823);
             auto* const right = control<QComboBox>(*row, "RightSensorSNChoice");
             {
                 // As a file says that was written by hand: no choice, so no check.
                 const QSignalBlocker blocker(right);
                 right->setCurrentIndex(0);
             }
             pressStream(row);
         }},
        {"incompatible-models", {"GS", "UHD"}, [](MainWindow&) {}, true},
        {"empty-configuration", two, save},
        {"saved", two,
         [](MainWindow& window) {
             addRow(window, 0, 1, 104711823);
             save(window);
         }},
        {"unable-to-stream", two,
         [](MainWindow& window) {
             VirtualCamHandler* const row = addRow(window, 0, 1, 104711823);
             QTcpServer occupant;
             occupant.listen(QHostAddress::Any, 34000);
             row->setPort(34000);
             pressStream(row);
         }},
        {"hdr-modes",
         {"UHD", "UHD"},
         [](MainWindow& window) {
             addRow(window, 0, 1, 104711823);
             control<QComboBox>(window, "ResolutionComboBox")->showPopup();
         }},
    };
}

MainWindow* mainWindow()
{
    for (QWidget* const widget : QApplication::topLevelWidgets()) {
        if (auto* const window = qobject_cast<MainWindow*>(widget)) {
            return window;
        }
    }
    return nullptr;
}

/// Part of a picture of the window in which a panel shows its camera's.
QRect pictureOf(const CameraWidget* panel, double density)
{
    const auto* const label = control<QLabel>(*const_cast<CameraWidget*>(panel), "imageLabel");
    const double height = panel->width() * 9.0 / 16.0;
    const QPointF corner =
        label->mapTo(panel->window(), QPoint(0, 0)) + QPointF(0, (panel->height() - height) / 2);
    return QRectF(corner * density, QSizeF(panel->width(), height) * density).toRect();
}

/// Capture time that a panel shows in a picture of the window, ns; 0 when it cannot be read.
std::uint64_t shownTime(const CameraWidget* panel, const QPixmap& picture)
{
    const QRect area = pictureOf(panel, picture.devicePixelRatioF());
    const CameraInfos& camera = panel->getInfos();
    QPixmap part = picture.copy(area);
    part.setDevicePixelRatio(1);
    const QImage luma =
        part.toImage()
            .scaled(camera.width, camera.height, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
            .convertToFormat(QImage::Format_Grayscale8);
    const auto read = decodePattern(luma.constBits(), 1, luma.bytesPerLine(), luma.width());
    return read ? read->timestamp : 0;
}

/// Whether a box or list lies over the corner of a panel's picture in which its time stands.
bool isCovered(const CameraWidget* panel)
{
    const QWidget* popup = QApplication::activePopupWidget();
    popup = popup != nullptr ? popup : QApplication::activeModalWidget();
    QRect corner = pictureOf(panel, 1);
    corner.setSize(corner.size() / 4);
    corner.translate(panel->window()->mapToGlobal(QPoint(0, 0)));
    return popup != nullptr && popup->frameGeometry().intersects(corner);
}

/// Saves what the screen shows where the window is, boxes in front of it included, once all
/// previews show one time.
/// @return false when they do not
bool take(const QString& path)
{
    const MainWindow* const window = mainWindow();
    const QRect area(window->mapToGlobal(QPoint(0, 0)), window->size());
    const QPixmap picture = QGuiApplication::primaryScreen()->grabWindow(
        0, area.x(), area.y(), area.width(), area.height());
    QSet<std::uint64_t> times;
    for (const CameraWidget* const panel : window->findChildren<CameraWidget*>()) {
        if (!isCovered(panel)) {
            times.insert(shownTime(panel, picture));
        }
    }
    return times.size() <= 1 && !times.contains(0) && picture.save(path);
}

/// As soon as a box or list is open, takes the picture and closes it.
void takeWithPopup(const QString& path, bool& taken)
{
    auto* const timer = new QTimer(qApp);
    auto since = std::make_shared<QElapsedTimer>();
    QObject::connect(timer, &QTimer::timeout, qApp, [=, &taken] {
        QWidget* popup = QApplication::activePopupWidget();
        popup = popup != nullptr ? popup : QApplication::activeModalWidget();
        if (popup == nullptr) {
            return;
        }
        if (!since->isValid()) {
            since->start();
        }
        if (since->elapsed() < kSettleMs) {
            return;
        }
        taken = take(path);
        if (taken || since->elapsed() > kLimitMs) {
            timer->deleteLater();
            auto* const box = qobject_cast<QMessageBox*>(popup);
            if (box != nullptr && box->button(QMessageBox::No) != nullptr) {
                box->button(QMessageBox::No)->click();
            } else {
                popup->close();
            }
        }
    });
    timer->start(kStepMs);
}

int usage(const char* program)
{
    std::fprintf(stderr, "usage: %s WxH FOLDER SCENE\n", program);
    for (const Scene& scene : scenes()) {
        std::fprintf(stderr, "  %s\n", scene.name);
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    const QTemporaryDir folder;
    qputenv("KOR_RIG", folder.filePath("rig.json").toLocal8Bit());
    const QList<Scene> all = scenes();
    const auto scene = std::find_if(all.begin(), all.end(), [&](const Scene& candidate) {
        return argc == 4 && qstrcmp(candidate.name, argv[3]) == 0;
    });
    if (scene == all.end()) {
        return usage(argv[0]);
    }
    QFile file(folder.filePath("rig.json"));
    if (!file.open(QIODevice::WriteOnly) || file.write(rig(scene->models)) < 0) {
        return 1;
    }
    file.close();
    int width = 0;  // none: as the window opens
    int height = 0;
    std::sscanf(argv[1], "%dx%d", &width, &height);
    const auto resize = [&] {
        if (width > 0) {
            mainWindow()->resize(width, height);
        }
    };
    const QString path =
        QDir(QString::fromLocal8Bit(argv[2])).filePath(scene->name + QStringLiteral(".png"));

    const QApplication application(argc, argv);
    sdk::registerMetaTypes();
    bool taken = false;
    if (scene->boxAtStart) {
        QTimer::singleShot(0, qApp, resize);
        takeWithPopup(path, taken);
    }
    const AppGui controller;
    if (!scene->boxAtStart) {
        MainWindow& window = *mainWindow();
        resize();
        QTest::qWait(kPreviewMs);
        takeWithPopup(path, taken);
        scene->action(window);
        QTest::qWait(kSettleMs);
        // A list stays open while the program goes on.
        taken = taken || QTest::qWaitFor([&] { return taken || take(path); }, kLimitMs);
    }
    if (!taken) {
        std::fprintf(stderr, "the previews did not show one time\n");
    }
    return taken ? 0 : 1;
}
