// SPDX-License-Identifier: Apache-2.0
// The main window: which camera delivers no pictures.
#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

class MainWindowSilenceTest : public MainWindowTesting {
    Q_OBJECT

    static void pass(Window& window, int seconds)
    {
        for (int n = 0; n < seconds; ++n) {
            window.noteSilence();
        }
    }

private slots:
    void silentCameraIsNamed()
    {
        Window window;
        const StatusLine* const line = window.statusLine();
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        pass(window, 2);
        QCOMPARE(line->text(), QString());
        window.updateCameraFrame(kLeftCamera, frame());
        pass(window, 1);
        QCOMPARE(line->text(), QStringLiteral("No pictures from camera 30123457"));
        pass(window, 2);
        QCOMPARE(line->text(), QStringLiteral("No pictures from camera 30123456 and 30123457"));

        // One comes back, even if its pictures do not fit the panel; then the other one goes.
        window.updateCameraFrame(kRightCamera, frame(960, 600));
        pass(window, 1);
        QCOMPARE(line->text(), QStringLiteral("No pictures from camera 30123456"));
        window.removeCameraWidget(kLeftCamera);
        pass(window, 1);
        QCOMPARE(line->text(), QString());
        attach(window, camera(kLeftCamera));
        window.updateCameraFrame(kRightCamera, frame());
        pass(window, 2);
        QCOMPARE(line->text(), QString());
    }

    // A frame of a camera that has no panel creates none, and no camera to miss.
    void unknownCamera()
    {
        Window window;
        window.updateCameraFrame(kLeftCamera, frame());
        pass(window, 5);
        QCOMPARE(window.statusLine()->text(), QString());
    }

    // What is said meanwhile stays, and what lasts comes back when that is over.
    void otherTexts()
    {
        Window window;
        StatusLine* const line = window.statusLine();
        const QString silence = QStringLiteral("No pictures from camera 30123456");
        attach(window, camera(kLeftCamera));
        pass(window, 3);
        QCOMPARE(line->text(), silence);
        {
            const StatusLine::Wait wait(line, "waiting");
            QCOMPARE(line->text(), QStringLiteral("waiting"));
            pass(window, 1);
            QCOMPARE(line->text(), QStringLiteral("waiting"));
        }
        QCOMPARE(line->text(), silence);
        line->setText("an obstacle");
        window.updateCameraFrame(kLeftCamera, frame());
        pass(window, 1);
        QCOMPARE(line->text(), QStringLiteral("an obstacle"));
        line->setText({});
        QCOMPARE(line->text(), QString());
    }

    void faultOfAStream()
    {
        Window window;
        const StatusLine* const line = window.statusLine();
        attach(window, camera(kLeftCamera));
        QString fault = "a fault";
        window.onLook([&fault] { return fault; });
        pass(window, 1);
        QCOMPARE(line->text(), fault);
        fault = "another";
        pass(window, 1);
        QCOMPARE(line->text(), fault);
        pass(window, 1);  // a camera that is silent comes first
        QCOMPARE(line->text(), QStringLiteral("No pictures from camera 30123456"));
        window.updateCameraFrame(kLeftCamera, frame());
        pass(window, 1);
        QCOMPARE(line->text(), fault);
        fault.clear();
        pass(window, 1);
        QCOMPARE(line->text(), QString());
    }

    void byItself()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        QTRY_COMPARE_WITH_TIMEOUT(window.statusLine()->text(),
                                  QStringLiteral("No pictures from camera 30123456"), 30000);
    }
};

QTEST_MAIN(MainWindowSilenceTest)
#include "mainwindow_silence_test.moc"
