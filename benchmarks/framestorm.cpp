// SPDX-License-Identifier: Apache-2.0
// The desktop program under more frames than can be drawn: how soon it answers, what piles up.
#include <QApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMouseEvent>
#include <QPushButton>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include <unistd.h>

#include "app/AppGUI.h"
#include "capture/sdk.h"
#include "ui/mainwindow.h"

namespace {

constexpr int kFirstSerial = 30100001;
constexpr int kWarmUpMs = 5000;
constexpr int kAnswerLimitMs = 20000;
constexpr auto kPauseBetweenMoves = std::chrono::milliseconds(90);
constexpr auto kPauseBetweenProbes = std::chrono::milliseconds(20);

// The goals.
constexpr double kAnswerGoalMs = 200;      // with up to two cameras
constexpr double kAnswerGoalManyMs = 500;  // with more
constexpr int kFewCameras = 2;
constexpr double kPreviewGoal = 33;  // per second
// What piles up grows from third to third of the time. Frames that wait come and go with what else
// the machine does, and the allocator keeps a few frames more or less.
constexpr double kBacklogGrowthGoal = 10;  // frames
constexpr double kMemoryGrowthGoal = 0.05;

struct Arguments {
    int cameras = 2;
    int seconds = 120;
    int fps = 60;
    int width = 1920;
    int height = 1200;
};

[[noreturn]] void usage(const char* program, std::FILE* stream, int status)
{
    std::fprintf(stream, "usage: %s [--cameras N] [--seconds N] [--fps N]\n", program);
    std::exit(status);
}

Arguments parse(int argc, char** argv)
{
    Arguments arguments;
    for (int i = 1; i < argc; i += 2) {
        const QByteArray name = argv[i];
        if (name == "--help" || name == "-h") {
            usage(argv[0], stdout, 0);
        }
        const int value = i + 1 < argc ? std::atoi(argv[i + 1]) : 0;
        if (value < 1) {
            usage(argv[0], stderr, 2);
        }
        if (name == "--cameras") {
            arguments.cameras = value;
        } else if (name == "--seconds") {
            arguments.seconds = value;
        } else if (name == "--fps") {
            arguments.fps = value;
        } else {
            usage(argv[0], stderr, 2);
        }
    }
    return arguments;
}

QByteArray rig(int cameras)
{
    QJsonArray list;
    for (int i = 0; i < cameras; ++i) {
        list.append(QJsonObject{{"serial", kFirstSerial + i},
                                {"model", "KOR T Solo GS"},
                                {"source", QJsonObject{{"type", "simulated"},
                                                       {"eye", i % 2 == 0 ? "left" : "right"}}}});
    }
    return QJsonDocument(QJsonObject{{"cameras", list}}).toJson();
}

double residentMb()
{
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576;
}

double percentile(std::vector<double> values, double share)
{
    if (values.empty()) {
        return -1;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    return values[index];
}

void report(const char* name, const std::vector<double>& values, const char* unit)
{
    std::printf("%-34s p50 %7.1f  p99 %7.1f  max %7.1f %s (%zu)\n", name, percentile(values, 0.5),
                percentile(values, 0.99), percentile(values, 1), unit, values.size());
}

/// Sees every event of the GUI thread before its receiver does.
class Observer : public QObject {
public:
    Observer(QObject* mainWindow, QObject* hoverButton) : window(mainWindow), button(hoverButton)
    {
        clock.start();
        qApp->installEventFilter(this);
    }

    bool eventFilter(QObject* receiver, QEvent* event) override
    {
        if (event->type() == QEvent::MetaCall && receiver == window) {
            ++delivered;
        } else if (event->type() == QEvent::Paint) {
            if (receiver == button) {
                painted();
            } else if (receiver->inherits("GLWidget")) {
                previews[receiver].push_back(nowMs());
            }
        } else if (event->type() == QEvent::MouseMove) {
            moved(static_cast<const QMouseEvent*>(event)->globalPos());
        }
        return false;
    }

    double nowMs() const { return static_cast<double>(clock.nsecsElapsed()) * 1e-6; }

    /// From any thread but the GUI's: notes that the mouse is sent to a place, and waits until the
    /// program reacted or a limit is reached.
    template <typename Send>
    void expect(QPoint place, Send send)
    {
        std::unique_lock lock(mutex);
        target = place;
        hasArrived = false;
        hasPainted = false;
        isWaiting = true;
        sentMs = nowMs();
        send();
        const auto limit = std::chrono::milliseconds(kAnswerLimitMs);
        if (!changed.wait_for(lock, limit, [this] { return hasArrived && hasPainted; })) {
            ++unanswered;
        }
        isWaiting = false;
    }

    std::vector<double> arrivals;   // ms from the move to its event
    std::vector<double> reactions;  // ms from the move to the repaint of the button
    int unanswered = 0;
    std::map<QObject*, std::vector<double>> previews;  // times of repaints, ms
    std::atomic<long> delivered{0};                    // queued calls that the window received

private:
    void moved(QPoint position)
    {
        const std::lock_guard lock(mutex);
        if (isWaiting && !hasArrived && position == target) {
            hasArrived = true;
            arrivals.push_back(nowMs() - sentMs);
            changed.notify_one();
        }
    }
    void painted()
    {
        const std::lock_guard lock(mutex);
        if (isWaiting && !hasPainted) {
            hasPainted = true;
            reactions.push_back(nowMs() - sentMs);
            changed.notify_one();
        }
    }

    QObject* window;
    QObject* button;
    QElapsedTimer clock;
    std::mutex mutex;
    std::condition_variable changed;
    QPoint target;
    double sentMs = 0;
    bool isWaiting = false;
    bool hasArrived = false;  // these two come in either order: the button is a window of its own
    bool hasPainted = false;
};

/// Moves the mouse onto the button and off it again, each time to another pixel.
void moveMouse(Observer& observer, QRect buttonArea, const std::atomic<bool>& stopped)
{
    FILE* const xdotool = popen("xdotool -", "w");
    for (int i = 0; !stopped; ++i) {
        const int step = i / 2 % (buttonArea.width() - 10);
        const QPoint inside(buttonArea.left() + 5 + step, buttonArea.center().y());
        const QPoint place = i % 2 == 0 ? inside : inside + QPoint(buttonArea.width(), 0);
        observer.expect(place, [&] {
            std::fprintf(xdotool, "mousemove %d %d\n", place.x(), place.y());
            std::fflush(xdotool);
        });
        std::this_thread::sleep_for(kPauseBetweenMoves);
    }
    pclose(xdotool);
}

/// Queued calls are delivered in order, so what the window receives between the posting of a call
/// and its delivery is what was waiting when it was posted.
void probeBacklog(Observer& observer, QObject* window, std::vector<double>& backlogs,
                  const std::atomic<bool>& stopped)
{
    while (!stopped) {
        std::atomic<bool> done{false};
        const long before = observer.delivered;
        QMetaObject::invokeMethod(
            window,
            [&] {
                backlogs.push_back(static_cast<double>(observer.delivered - before - 1));
                done = true;
            },
            Qt::QueuedConnection);
        while (!done && !stopped) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        while (!done) {
            std::this_thread::yield();  // the call refers to what is on this stack
        }
        std::this_thread::sleep_for(kPauseBetweenProbes);
    }
}

/// Reports the previews' rates; returns the highest of any second.
double reportPreviews(const Observer& observer, double seconds)
{
    double busiestOfAll = 0;
    for (const auto& [view, times] : observer.previews) {
        double busiest = 0;
        for (std::size_t first = 0, last = 0; last < times.size(); ++last) {
            while (times[last] - times[first] >= 1000) {
                ++first;
            }
            busiest = std::max(busiest, static_cast<double>(last - first + 1));
        }
        std::printf("%-34s %.1f per second, %.0f in the busiest second\n", "preview",
                    static_cast<double>(times.size()) / seconds, busiest);
        busiestOfAll = std::max(busiestOfAll, busiest);
    }
    return busiestOfAll;
}

double mean(std::vector<double>::const_iterator first, std::vector<double>::const_iterator last)
{
    return first == last ? 0
                         : std::accumulate(first, last, 0.0) / static_cast<double>(last - first);
}

/// How much larger the last third is on average than the first.
double growth(const std::vector<double>& values)
{
    const auto third = static_cast<std::ptrdiff_t>(values.size() / 3);
    return mean(values.end() - third, values.end()) - mean(values.begin(), values.begin() + third);
}

/// Prints a line when a goal is missed.
bool check(bool reached, const char* what, double value, double goal)
{
    if (!reached) {
        std::printf("MISSED: %s: %.2f, goal %.2f\n", what, value, goal);
    }
    return reached;
}

/// Judges a run by the goals.
bool reachesGoals(int cameras, const Observer& observer, const std::vector<double>& backlogs,
                  const std::vector<double>& memory, double previews)
{
    const double answerGoal = cameras <= kFewCameras ? kAnswerGoalMs : kAnswerGoalManyMs;
    const double slowest =
        std::max(percentile(observer.arrivals, 1), percentile(observer.reactions, 1));
    const double backlogGrowth = growth(backlogs);
    const double memoryGrowth = growth(memory) / memory.front();
    bool good = check(observer.unanswered == 0, "moves without an answer", observer.unanswered, 0);
    good &= check(slowest >= 0 && slowest <= answerGoal, "slowest answer, ms", slowest, answerGoal);
    good &= check(previews > 0 && previews <= kPreviewGoal, "previews in the busiest second",
                  previews, kPreviewGoal);
    good &= check(backlogGrowth <= kBacklogGrowthGoal, "growth of the frames that wait",
                  backlogGrowth, kBacklogGrowthGoal);
    good &= check(memoryGrowth <= kMemoryGrowthGoal, "growth of the memory", memoryGrowth,
                  kMemoryGrowthGoal);
    return good;
}

/// Runs the event loop for a while.
void runFor(int milliseconds, const std::function<void()>& everySecond)
{
    QElapsedTimer time;
    time.start();
    qint64 next = 0;
    while (time.elapsed() < milliseconds) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        if (time.elapsed() >= next) {
            next += 1000;
            everySecond();
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const Arguments arguments = parse(argc, argv);
    const QTemporaryDir folder;
    const QString rigPath = folder.filePath("rig.json");
    std::ofstream(rigPath.toStdString()) << rig(arguments.cameras).constData();
    qputenv("KOR_RIG", rigPath.toLocal8Bit());

    const QApplication application(argc, argv);
    sdk::registerMetaTypes();
    AppGui controller;
    MainWindow* window = nullptr;
    for (QWidget* const widget : QApplication::topLevelWidgets()) {
        window = window == nullptr ? qobject_cast<MainWindow*>(widget) : window;
    }
    auto* const button = window->findChild<QPushButton*>("ReloadCamButton");
    window->setCurrentSettings(arguments.fps, arguments.width, arguments.height, false);
    runFor(kWarmUpMs, [] {});

    Observer observer(window, button);
    const QRect buttonArea(button->mapToGlobal(QPoint(0, 0)), button->size());
    std::atomic<bool> stopped{false};
    std::vector<double> backlogs;
    std::vector<double> memory;
    std::atomic<int> running{2};
    std::thread mover([&] {
        moveMouse(observer, buttonArea, stopped);
        --running;
    });
    std::thread prober([&] {
        probeBacklog(observer, window, backlogs, stopped);
        --running;
    });
    std::array<double, 3> loadBefore{};
    getloadavg(loadBefore.data(), 3);
    const double start = observer.nowMs();
    runFor(arguments.seconds * 1000, [&] { memory.push_back(residentMb()); });
    const double seconds = (observer.nowMs() - start) / 1000;
    const long frames = observer.delivered - static_cast<long>(backlogs.size());
    stopped = true;
    while (running > 0) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    mover.join();
    prober.join();

    std::array<double, 3> loadAfter{};
    getloadavg(loadAfter.data(), 3);
    std::printf("%d cameras, %d x %d, %d frames/s, %.0f s; load average %.1f to %.1f on %d cores\n",
                arguments.cameras, arguments.width, arguments.height, arguments.fps, seconds,
                loadBefore[0], loadAfter[0], QThread::idealThreadCount());
    report("mouse move to its event", observer.arrivals, "ms");
    report("mouse move to the button's repaint", observer.reactions, "ms");
    std::printf("%-34s %d\n", "moves without an answer", observer.unanswered);
    report("frames waiting for the window", backlogs, "");
    std::printf("%-34s %.1f per second and camera\n", "frames delivered to the window",
                static_cast<double>(frames) / seconds / arguments.cameras);
    const double previews = reportPreviews(observer, seconds);
    const auto [least, most] = std::minmax_element(memory.begin(), memory.end());
    std::printf("%-34s first %.0f, least %.0f, most %.0f, last %.0f MB\n", "resident memory",
                memory.front(), *least, *most, memory.back());
    return reachesGoals(arguments.cameras, observer, backlogs, memory, previews) ? 0 : 1;
}
