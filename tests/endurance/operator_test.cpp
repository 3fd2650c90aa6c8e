// SPDX-License-Identifier: Apache-2.0
// Operates the window at random, then as anybody does: it must still stream and save.
#include <unistd.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "capture/sdk.h"
#include "tests/endurance/operator.h"
#include "tests/endurance/world.h"
#include "tests/support/qtcalls.h"

namespace {

constexpr int kHangS = 120;       // for which no action begins
constexpr int kWholeRun = 20000;  // actions from which on everything must have happened often
constexpr int kOften = 200;
constexpr int kSpareThreads = 12;  // GLib and the encoders keep some for a while
constexpr int kSpareFiles = 8;

// What an operator is there for; everything else is by the way.
const std::vector<const char*> kWork{"rows made",
                                     "cameras chosen",
                                     "cameras changed",
                                     "streams started",
                                     "streams stopped",
                                     "rows removed",
                                     "box: Configuration has been saved in "
                                     "/usr/local/kor/settings/virtual_tsolo_config.json",
                                     "action: reload",
                                     "action: apply"};

struct Use {
    int threads = 0;
    int files = 0;
    long memoryKiB = 0;
};

Use currentUse()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    const QString text = QString::fromLatin1(status.readAll());
    const auto number = [&](const char* key) {
        return QRegularExpression(QStringLiteral("%1:\\s+(\\d+)").arg(QLatin1String(key)))
            .match(text)
            .captured(1)
            .toLong();
    };
    return {static_cast<int>(number("Threads")),
            static_cast<int>(QDir(QStringLiteral("/proc/self/fd")).count()), number("VmRSS")};
}

Operator* listener = nullptr;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    if (listener != nullptr) {
        listener->keepMessage(text);
    }
}

// Ends the program where an action does not return.
void watchForHangs(const Operator& person)
{
    std::thread([&person] {
        for (int before = -1;;) {
            const int now = person.begun();
            if (now == before) {
                std::fprintf(stderr, "operator: action %d does not return\n", now);
                std::abort();
            }
            before = now;
            std::this_thread::sleep_for(std::chrono::seconds(kHangS));
        }
    }).detach();
}

bool report(const QMap<QString, int>& counts, const Use& before, const Use& after, bool whole)
{
    for (auto count = counts.begin(); count != counts.end(); ++count) {
        std::printf("%7d  %s\n", *count, qPrintable(count.key()));
    }
    std::printf("before: %d threads, %d files, %ld KiB\nafter:  %d threads, %d files, %ld KiB\n",
                before.threads, before.files, before.memoryKiB, after.threads, after.files,
                after.memoryKiB);
    bool good = true;
    if (after.threads > before.threads + kSpareThreads ||
        after.files > before.files + kSpareFiles) {
        std::printf("operator: threads or files were left behind\n");
        good = false;
    }
    for (const char* const work : kWork) {
        if (whole && counts.value(QString::fromLatin1(work)) < kOften) {
            std::printf("operator: less than %d: %s\n", kOften, work);
            good = false;
        }
    }
    return good;
}

bool worked(const char* when, const QString& trouble)
{
    if (!trouble.isEmpty()) {
        std::printf("operator: %s: %s\n", when, qPrintable(trouble));
    }
    return trouble.isEmpty();
}

int operate(std::uint64_t seed, int actions, std::FILE* journal)
{
    World world;
    Operator person(world, seed, journal);
    listener = &person;
    watchForHangs(person);
    // The fixed script goes first, too: what is loaded and started once is there then.
    bool good = worked("before", person.fixedScript());
    const Use before = currentUse();
    person.operate(actions);
    good = worked("afterwards", person.fixedScript()) && good;
    const Use after = currentUse();
    person.end();
    listener = nullptr;
    std::printf("%7d  receivers with frames\n", world.receiversWithFrames());
    good = report(person.counts(), before, after, actions >= kWholeRun) && good;
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

// The program's paths are absolute, its ports are to be free: it starts itself again where both are
// its own.
int runInSandbox(int argc, char** argv)
{
    std::vector<std::string> words{RUN_IN_SANDBOX, "--private-network", "--"};
    words.insert(words.end(), argv, argv + argc);
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    execv(RUN_IN_SANDBOX, pointers.data());
    std::perror(RUN_IN_SANDBOX);
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qgetenv("VISTREL_SANDBOX").isEmpty()) {
        return runInSandbox(argc, argv);
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Operates the window at random."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("seed"), "of all actions; else drawn", "NUMBER",
                      QString::number(std::random_device()())});
    parser.addOption({QStringLiteral("actions"), "how many, default 20000", "NUMBER", "20000"});
    parser.addOption({QStringLiteral("journal"), "what was done, a line each", "FILE",
                      QStringLiteral("/dev/null")});
    parser.process(application);
    std::FILE* const journal = std::fopen(qPrintable(parser.value("journal")), "w");
    if (journal == nullptr) {
        std::perror(qPrintable(parser.value("journal")));
        return EXIT_FAILURE;
    }
    std::printf("operator: --seed %s --actions %s\n", qPrintable(parser.value("seed")),
                qPrintable(parser.value("actions")));
    sdk::registerMetaTypes();
    qInstallMessageHandler(keepMessage);
    qtcalls::record = std::fopen("/dev/null", "w");  // so that its pauses are passed over
    return operate(parser.value("seed").toULongLong(), parser.value("actions").toInt(), journal);
}
