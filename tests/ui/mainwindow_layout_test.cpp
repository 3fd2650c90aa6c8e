// SPDX-License-Identifier: Apache-2.0
// The main window: who gets how much of its height.
#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

class MainWindowLayoutTest : public MainWindowTesting {
    Q_OBJECT

    static QRect placeOf(const Window& window, const char* name)
    {
        const auto* const part = window.part<QWidget>(name);
        return {part->mapTo(&window, QPoint()), part->size()};
    }

    // Until the window looks as asked for; its layouts may take some rounds.
    static bool present(Window& window, int rows)
    {
        window.updateSerialList(kSerials);
        for (int i = 0; i < rows; ++i) {
            window.addVirtualCamHandlerFromConfig(record(101234567));
        }
        return QTest::qWaitForWindowExposed(&window);
    }

private slots:
    void rowsTakeWhatTheyNeed_data()
    {
        QTest::addColumn<int>("rows");
        QTest::newRow("none") << 0;
        QTest::newRow("one") << 1;
        QTest::newRow("four") << 4;
    }
    void rowsTakeWhatTheyNeed()
    {
        QFETCH(int, rows);
        Window window;
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        QVERIFY(present(window, rows));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        const auto needed = [&] {
            return rows == 0 ? 0 : rows * window.rows().first()->height() + (rows - 1) * 10;
        };
        QTRY_COMPARE(area->height(), needed());
        // The pictures have the rest: with up to three rows they fill the width.
        const int panels = (window.width() - 2 * 11 - 10) / 2;
        for (const CameraWidget* const panel : window.findChildren<CameraWidget*>()) {
            QTRY_VERIFY(rows > 3 || panel->width() == panels);
        }
    }

    void rowThatGoesGivesItsHeightBack()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 2));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_COMPARE(area->height(), 2 * window.rows().first()->height() + 10);
        window.rows().first()->triggerRemove();
        QTRY_COMPARE(area->height(), window.rows().first()->height());
    }

    void manyRowsLeaveThePicturesTheirPart()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 20));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_VERIFY(area->verticalScrollBar()->maximum() > 0);
        QVERIFY(area->height() >= window.height() / 4);
        QVERIFY(placeOf(window, "camerasWidgetsScrollArea").height() > window.height() / 2);
    }

    void manyRowsTakeWhatThePanelsLeave()
    {
        Window window;
        window.resize(1384, 1150);
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        QVERIFY(present(window, 9));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_COMPARE(area->height(), 9 * window.rows().first()->height() + 8 * 10);
        QVERIFY(area->height() > window.height() / 4);
    }

    void rowsThatAreScrolledSidewaysAreSeen()
    {
        Window window;
        window.resize(500, 500);
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 1));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_VERIFY(area->horizontalScrollBar()->isVisible());
        QTRY_COMPARE(area->viewport()->height(), window.rows().first()->height());
    }

    void withoutCamerasTheRowsMoveUp()
    {
        Window window;
        QVERIFY(present(window, 1));
        QVERIFY(!window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
        const int gap = 10;
        QTRY_COMPARE(placeOf(window, "addVCamButton").top(),
                     placeOf(window, "ApplyResFPSButton").bottom() + 1 + gap);
        QTRY_COMPARE(placeOf(window, "scrollArea").top(),
                     placeOf(window, "addVCamButton").bottom() + 1 + gap);
        attach(window, camera(kLeftCamera));
        QVERIFY(window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
        QTRY_VERIFY(placeOf(window, "addVCamButton").top() > window.height() / 2);
        window.requestCameras();
        QVERIFY(!window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
    }

    void whatIsOfNoUseIsDisabled()
    {
        Window window;
        for (const bool usable : {false, true}) {
            window.setCamerasUsable(usable);
            for (const char* const name :
                 {"addVCamButton", "ApplyResFPSButton", "ResolutionComboBox", "FPSComboBox"}) {
                QCOMPARE(window.part<QWidget>(name)->isEnabled(), usable);
            }
            QVERIFY(window.part<QWidget>("ApplyButton")->isEnabled());
            QVERIFY(window.part<QWidget>("ReloadCamButton")->isEnabled());
        }
    }
};

QTEST_MAIN(MainWindowLayoutTest)
#include "mainwindow_layout_test.moc"
