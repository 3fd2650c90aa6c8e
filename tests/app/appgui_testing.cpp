// SPDX-License-Identifier: Apache-2.0
// What the tests of the desktop controller share: scripted cameras, the window, a sandbox.
#include "tests/app/appgui_testing.h"

#include <unistd.h>

void AppGuiTesting::initTestCase()
{
    sdk::registerMetaTypes();
}

void AppGuiTesting::init()
{
    directory = std::make_unique<QTemporaryDir>();
    standIns = std::make_unique<sandbox::StandIns>();
    // A command that runs in another folder than the program says so.
    const QByteArray note = "[ \"$(pwd -P)\" = '" + QDir::current().canonicalPath().toLocal8Bit() +
                            "' ] || name=\"elsewhere: $name\"\n"
                            "echo \"$name $*\" >>'" +
                            recordFile().toLocal8Bit() + "'\n";
    standIns->script("sudo", note);
    standIns->script("systemctl", note);
    standIns->script("rm", note);
    standIns->answer("systemctl", "disabled\n", "", 1);
    standIns->install();
    mirror = std::fopen(recordFile().toLocal8Bit().constData(), "a");
    sdkfake::reset();
    sdkfake::mirrorCalls(mirror);
    qtcalls::record = mirror;
    qtcalls::failing.clear();
    QFile::remove(appgui::kConfig);
    QSettings(QStringLiteral("Vellmark"), QStringLiteral("Vistrel")).clear();
}

void AppGuiTesting::cleanup()
{
    QCOMPARE(QStringList(), [] {
        QStringList misuses;
        for (const std::string& misuse : sdkfake::misuses()) {
            misuses << QString::fromStdString(misuse);
        }
        return misuses;
    }());
    sdkfake::mirrorCalls(nullptr);
    qtcalls::record = nullptr;
    std::fclose(mirror);
    standIns.reset();
    directory.reset();
}

// The program starts itself again where the paths are its own.
int runInSandbox(QObject& test, int argc, char** argv)
{
    if (qgetenv("VISTREL_SANDBOX").isEmpty()) {
        std::vector<std::string> words{RUN_IN_SANDBOX, "--"};
        words.insert(words.end(), argv, argv + argc);
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        execv(RUN_IN_SANDBOX, pointers.data());
        std::perror(RUN_IN_SANDBOX);
        return 1;
    }
    const QApplication application(argc, argv);
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
