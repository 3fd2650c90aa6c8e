// SPDX-License-Identifier: Apache-2.0
// The main window on a screen of 1024 x 600, on which its form has no room.
#include <QScreen>

#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

class MainWindowScreenTest : public MainWindowTesting {
    Q_OBJECT

private slots:
    void initTestCase() { QCOMPARE(QGuiApplication::primaryScreen()->size(), QSize(1024, 600)); }

    void everythingIsOnTheScreen()
    {
        Window window;
        window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        window.updateSerialList(kSerials);
        for (int i = 0; i < 6; ++i) {
            window.addVirtualCamHandlerFromConfig(record(101234567));
        }
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        // Of an odd number of dense pixels half a pixel counts as one.
        const QRect free = window.screen()->availableGeometry().adjusted(0, 0, 1, 1);
        QTRY_VERIFY2(free.contains(window.frameGeometry()),
                     qPrintable(QStringLiteral("%1 x %2 at %3, %4")
                                    .arg(window.frameGeometry().width())
                                    .arg(window.frameGeometry().height())
                                    .arg(window.x())
                                    .arg(window.y())));
        for (const char* const name :
             {"ReloadCamButton", "ResolutionComboBox", "FPSComboBox", "ApplyResFPSButton",
              "addVCamButton", "toggleDaemonButton", "ApplyButton"}) {
            const auto* const control = window.part<QWidget>(name);
            const QRect place(control->mapTo(&window, QPoint()), control->size());
            QTRY_VERIFY2(window.rect().contains(place), name);
        }
        // Rows are scrolled up and down only.
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_VERIFY(area->verticalScrollBar()->maximum() > 0);
        QTRY_COMPARE(area->horizontalScrollBar()->maximum(), 0);
        const auto* const remove = rowPart<QWidget>(window.rows().first(), "RemoveButton");
        QVERIFY(remove->mapTo(area->viewport(), QPoint()).x() + remove->width() <=
                area->viewport()->width());
        const auto bottomOfRows = [&] {
            return area->mapTo(&window, QPoint()).y() + area->height();
        };
        const auto* const save = window.part<QWidget>("ApplyButton");
        QTRY_VERIFY(bottomOfRows() <= save->mapTo(&window, QPoint()).y());
    }
};

QTEST_MAIN(MainWindowScreenTest)
#include "mainwindow_screen_test.moc"
