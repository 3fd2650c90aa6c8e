// SPDX-License-Identifier: Apache-2.0
// Prints where the controls of the main window are, for programs that operate one on a display.
//
//     window_controls ROWS
//
// One line for each: name, x and y of its middle in pixels from the upper left corner of the
// window's content. The window has two cameras and ROWS virtual cameras; a row's controls are
// called NAME.ROW.
#include <QApplication>
#include <QTextStream>
#include <QtTest>

#include "ui/mainwindow.h"
#include "ui/virtualcamhandler.h"

namespace {

constexpr int kLeft = 30100001;
constexpr int kRight = 30100002;

void settle()
{
    // Layouts are done by posted events.
    for (int i = 0; i < 5; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
}

void addRows(MainWindow& window, int rows)
{
    for (int row = 0; row < rows; ++row) {
        VirtualCameraInfos infos;
        infos.virtualSerialNumber = static_cast<std::uint64_t>(101234567 + row);
        infos.leftSerialNumber = kLeft;
        infos.rightSerialNumber = kRight;
        infos.port = static_cast<std::uint32_t>(30000 + 10 * row);
        window.addVirtualCamHandlerFromConfig(infos);
        settle();
    }
}

void print(const MainWindow& window, const QWidget& parent, const QString& suffix)
{
    QTextStream out(stdout);
    for (const QWidget* const each : parent.findChildren<QWidget*>()) {
        if (!each->objectName().isEmpty() && !each->objectName().startsWith("qt_")) {
            const QPoint middle = each->mapTo(&window, each->rect().center());
            out << each->objectName() << suffix << ' ' << middle.x() << ' ' << middle.y() << '\n';
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const QApplication application(argc, argv);
    MainWindow window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    for (const int serial : {kLeft, kRight}) {
        window.addCameraWidget(serial);
    }
    window.updateSerialList({QString::number(kLeft), QString::number(kRight)});
    addRows(window, argc > 1 ? QString(argv[1]).toInt() : 0);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        return 1;
    }
    settle();
    print(window, window, QString());
    int row = 0;
    for (const VirtualCamHandler* const each : window.findChildren<VirtualCamHandler*>()) {
        print(window, *each, QStringLiteral(".%1").arg(row++));
    }
    return 0;
}
