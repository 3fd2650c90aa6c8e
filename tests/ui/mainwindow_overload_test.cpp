// SPDX-License-Identifier: Apache-2.0
// The main window under more frames than there is time to draw.
#include <QElapsedTimer>
#include <QMap>
#include <QTest>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "tests/sandbox/sandbox.h"
#include "ui/drawbudget.h"
#include "ui/mainwindow.h"

namespace {

constexpr int kFirstCamera = 30123456;
constexpr int kRunMs = 5000;

// Takes a set time to draw, or draws and takes what that takes.
class SlowWindow : public MainWindow {
public:
    int drawMs = -1;
    QList<int> pictures;  // first byte of each frame drawn
    qint64 longestDrawMs = 0;
    QMap<qint64, int> draws;
    std::atomic<qint64> drawTimeMs{0};

protected:
    void drawPreview(CameraWidget& panel, const tq::Mat& frame) override
    {
        QElapsedTimer time;
        time.start();
        if (drawMs < 0) {
            MainWindow::drawPreview(panel, frame);
        } else {
            QTest::qSleep(drawMs);
        }
        pictures.append(*frame.getPtr<unsigned char>(sdk::kHostMemory));
        ++draws[panel.getInfos().serial_number];
        drawTimeMs += time.elapsed();
        longestDrawMs = std::max(longestDrawMs, time.elapsed());
    }
};

// Calls a function at a rate on a thread of its own.
class Ticker {
public:
    Ticker(double rate, std::function<void()> function)
        : thread([this, rate, tick = std::move(function)] {
              auto next = std::chrono::steady_clock::now();
              while (!stopped) {
                  tick();
                  next += std::chrono::microseconds(static_cast<int>(1e6 / rate));
                  std::this_thread::sleep_until(next);
              }
          })
    {
    }
    ~Ticker()
    {
        stopped = true;
        thread.join();
    }

private:
    std::atomic<bool> stopped{false};
    std::thread thread;
};

CameraInfos camera(int serial, int width, int height)
{
    CameraInfos infos;
    infos.serial_number = serial;
    infos.model = sdk::kSoloGs;
    infos.width = width;
    infos.height = height;
    infos.fps = 60;
    return infos;
}

// What an event that is posted every 10 ms met until the event loop came to it.
struct Answers {
    int count = 0;
    qint64 longestMs = 0;
    qint64 longestDrawnMs = 0;  // of it: drawing
    int worstBacklog = 0;       // frames
    int backlog = 0;            // frames, at the end
};

// Sends frames of all cameras and measures for a while what other events wait for.
Answers storm(SlowWindow& window, int count, int width, int height)
{
    std::atomic<int> backlog{0};
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                sdk::kHostMemory);
    Answers answers;
    QElapsedTimer clock;
    clock.start();
    {
        std::vector<std::unique_ptr<Ticker>> tickers;
        for (int i = 0; i < count; ++i) {
            const int serial = kFirstCamera + i;
            tickers.push_back(std::make_unique<Ticker>(60, [&, serial, image] {
                ++backlog;
                QMetaObject::invokeMethod(
                    &window,
                    [&, serial, image] {
                        answers.worstBacklog = std::max(answers.worstBacklog, backlog.load());
                        --backlog;
                        window.updateCameraFrame(serial, image);
                    },
                    Qt::QueuedConnection);
            }));
        }
        tickers.push_back(std::make_unique<Ticker>(100, [&] {
            const qint64 posted = clock.elapsed();
            const qint64 drawn = window.drawTimeMs;
            QMetaObject::invokeMethod(
                &window,
                [&, posted, drawn] {
                    ++answers.count;
                    answers.longestMs = std::max(answers.longestMs, clock.elapsed() - posted);
                    answers.longestDrawnMs =
                        std::max(answers.longestDrawnMs, window.drawTimeMs - drawn);
                },
                Qt::QueuedConnection);
        }));
        QTest::qWait(kRunMs);
    }
    QCoreApplication::processEvents();
    answers.backlog = backlog;
    return answers;
}

// The first draw of a panel is not paid for: it comes before what is measured.
void drawAllOnce(SlowWindow& window, int count, int width, int height)
{
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                sdk::kHostMemory);
    for (int i = 0; i < count; ++i) {
        window.updateCameraFrame(kFirstCamera + i, image);
    }
    window.draws.clear();
    window.pictures.clear();
    window.drawTimeMs = 0;
    window.longestDrawMs = 0;
}

// How much drawing an event may wait for: the draw that runs, what the reserve pays for, which
// lasts twice its length, and a draw that begins when hardly anything of it is left. Without the
// limit events wait for seconds of drawing, and ever more. How long the machine itself stands still
// meanwhile is not the window's doing.
qint64 mostDrawnMs(const SlowWindow& window)
{
    return 2 * window.longestDrawMs + 2 * DrawBudget::kReserveNs / 1'000'000 + 10;
}

// Two panels after a draw of a second: what they are given next has to wait, and it is the first
// one's turn.
class OverloadedPair {
public:
    OverloadedPair()
    {
        window.drawMs = 1;
        for (int i = 0; i < 2; ++i) {
            window.addCameraWidget(kFirstCamera + i);
            window.updateCameraWidget(kFirstCamera + i, camera(kFirstCamera + i, 16, 16));
        }
        image.alloc(16, 16, sdk::kYuyv, sdk::kHostMemory);
        drawAllOnce(window, 2, 16, 16);
        QTest::qSleep(40);
        window.drawMs = 1000;
        give(kFirstCamera + 1, 0);
        window.drawMs = 1;
        window.pictures.clear();
    }

    // Gives the window a frame in a buffer that is written again for the next one.
    void give(int serial, int value)
    {
        std::memset(image.getPtr<unsigned char>(sdk::kHostMemory), value, 16 * 16 * 2);
        window.updateCameraFrame(serial, image);
    }

    SlowWindow window;

private:
    tq::Mat image;
};

}  // namespace

class MainWindowOverloadTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void slowDrawingLeavesHalfOfTheTime_data();
    void slowDrawingLeavesHalfOfTheTime();
    void fastDrawingIsNotLimited();
    void lastFrameIsDrawn();
    void describedAnewForgetsItsFrame_data();
    void describedAnewForgetsItsFrame();
    void realPicturesOnTheProcessor_data();
    void realPicturesOnTheProcessor();

private:
    std::unique_ptr<sandbox::StandIns> standIns;
};

void MainWindowOverloadTest::init()
{
    standIns = std::make_unique<sandbox::StandIns>();
    standIns->answer("systemctl", "disabled\n", "", 1);
    standIns->install();
}

void MainWindowOverloadTest::cleanup()
{
    standIns.reset();
}

void MainWindowOverloadTest::slowDrawingLeavesHalfOfTheTime_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("drawMs");
    QTest::newRow("two, 40 ms") << 2 << 40;
    QTest::newRow("four, 40 ms") << 4 << 40;
    QTest::newRow("four, 120 ms") << 4 << 120;
}

void MainWindowOverloadTest::slowDrawingLeavesHalfOfTheTime()
{
    QFETCH(int, count);
    QFETCH(int, drawMs);
    SlowWindow window;
    window.drawMs = 1;
    for (int i = 0; i < count; ++i) {
        window.addCameraWidget(kFirstCamera + i);
        window.updateCameraWidget(kFirstCamera + i, camera(kFirstCamera + i, 16, 16));
    }
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    drawAllOnce(window, count, 16, 16);
    window.drawMs = drawMs;
    const Answers answers = storm(window, count, 16, 16);

    const qint64 limitMs = mostDrawnMs(window);
    QVERIFY(answers.count > 0);
    QVERIFY2(answers.longestDrawnMs <= limitMs,
             qPrintable(QStringLiteral("%1, not %2").arg(answers.longestDrawnMs).arg(limitMs)));
    // The reserve is spent once, and one draw may begin while nothing is owed.
    const double share =
        static_cast<double>(window.drawTimeMs - 60 - window.longestDrawMs) / kRunMs;
    QVERIFY2(share > 0.15 && share < 0.55, qPrintable(QString::number(share)));
    QCOMPARE(window.draws.size(), count);
    const auto [least, most] = std::minmax_element(window.draws.begin(), window.draws.end());
    QVERIFY2(*least >= *most - 3, qPrintable(QStringLiteral("%1, %2").arg(*least).arg(*most)));
    QCOMPARE(answers.backlog, 0);
}

void MainWindowOverloadTest::fastDrawingIsNotLimited()
{
    SlowWindow window;
    window.drawMs = 2;
    for (int i = 0; i < 2; ++i) {
        window.addCameraWidget(kFirstCamera + i);
        window.updateCameraWidget(kFirstCamera + i, camera(kFirstCamera + i, 16, 16));
    }
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    storm(window, 2, 16, 16);
    for (const int draws : window.draws) {
        // Every second frame of 60 per second comes at least 31 ms after the last one shown.
        QVERIFY2(draws > 15 * kRunMs / 1000 && draws <= 33 * kRunMs / 1000 + 1,
                 qPrintable(QString::number(draws)));
    }
}

// A frame that finds no time to be drawn is drawn later, unless a newer one has come. It is the
// window's own by then: the camera writes into its buffers again.
void MainWindowOverloadTest::lastFrameIsDrawn()
{
    OverloadedPair pair;
    pair.give(kFirstCamera, 11);
    pair.give(kFirstCamera + 1, 21);
    QTest::qSleep(40);
    pair.give(kFirstCamera, 12);
    pair.give(kFirstCamera + 1, 22);
    QCOMPARE(pair.window.pictures, QList<int>());
    QTRY_COMPARE(pair.window.pictures.size(), 2);
    QCOMPARE(pair.window.pictures, (QList<int>{12, 22}));
    // Nothing is drawn twice.
    pair.give(kFirstCamera, 13);
    QTRY_COMPARE(pair.window.pictures.size(), 3);
    QTest::qWait(100);
    QCOMPARE(pair.window.pictures, (QList<int>{12, 22, 13}));
}

void MainWindowOverloadTest::describedAnewForgetsItsFrame_data()
{
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("removed");
    QTest::newRow("closed") << 0 << false;
    QTest::newRow("another size") << 32 << false;
    QTest::newRow("removed and added again") << 16 << true;
}

// The frame that waits for a panel shows what its camera no longer is.
void MainWindowOverloadTest::describedAnewForgetsItsFrame()
{
    QFETCH(int, height);
    QFETCH(bool, removed);
    OverloadedPair pair;
    pair.give(kFirstCamera, 1);
    pair.give(kFirstCamera + 1, 2);
    if (removed) {
        pair.window.removeCameraWidget(kFirstCamera);
        pair.window.addCameraWidget(kFirstCamera);
    } else {
        pair.window.updateCameraWidget(kFirstCamera, camera(kFirstCamera, height, height));
    }
    // The other one's turn came after it.
    QTRY_COMPARE(pair.window.pictures.size(), 1);
    QCOMPARE(pair.window.pictures, QList<int>{2});
}

void MainWindowOverloadTest::realPicturesOnTheProcessor_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::newRow("two, 1920 x 1200") << 2 << 1920 << 1200;
    QTest::newRow("four, 1920 x 1200") << 4 << 1920 << 1200;
    QTest::newRow("four, 3840 x 2160") << 4 << 3840 << 2160;
}

void MainWindowOverloadTest::realPicturesOnTheProcessor()
{
    QFETCH(int, count);
    QFETCH(int, width);
    QFETCH(int, height);
    SlowWindow window;
    for (int i = 0; i < count; ++i) {
        window.addCameraWidget(kFirstCamera + i);
        window.updateCameraWidget(kFirstCamera + i, camera(kFirstCamera + i, width, height));
    }
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    drawAllOnce(window, count, width, height);  // builds shaders and textures
    const Answers answers = storm(window, count, width, height);
    qInfo(
        "longest wait %lld ms, %lld ms of drawing; longest backlog %d frames, longest draw %lld "
        "ms, %d %% drawing",
        static_cast<long long>(answers.longestMs), static_cast<long long>(answers.longestDrawnMs),
        answers.worstBacklog, static_cast<long long>(window.longestDrawMs),
        static_cast<int>(window.drawTimeMs * 100 / kRunMs));
    const qint64 limitMs = mostDrawnMs(window);
    QVERIFY(answers.count > 0);
    QVERIFY2(answers.longestDrawnMs <= limitMs,
             qPrintable(QStringLiteral("%1, not %2").arg(answers.longestDrawnMs).arg(limitMs)));
    QVERIFY(!window.draws.isEmpty());
    QCOMPARE(answers.backlog, 0);
}

QTEST_MAIN(MainWindowOverloadTest)
#include "mainwindow_overload_test.moc"
