// SPDX-License-Identifier: Apache-2.0
// Entry point: chooses the run mode.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDebug>
#ifdef VISTREL_DESKTOP
#include <QApplication>
#endif
#include <cstdlib>
#include <iostream>

#include "app/AppCLI.h"
#ifdef VISTREL_DESKTOP
#include "app/AppGUI.h"
#endif
#include "app/commands/commandrunners.h"
#include "app/servicewatchdog.h"
#include "app/virtualcameraconfig.h"
#include "capture/sdk.h"

namespace {

/// The options of the command line, in the order of their precedence.
struct Options {
    // The misspelt description is what users have always seen; kept.
    QCommandLineOption cli{QStringLiteral("cli"),
                           QCoreApplication::translate("main", "specifiy configuration file"),
                           QString(), QString()};
    QCommandLineOption clearConfig{QStringLiteral("clear-config"),
                                   QCoreApplication::translate("main", "clear configuration file"),
                                   QString(), QString()};
    QCommandLineOption clearMemory{
        QStringLiteral("clear-memory"),
        QCoreApplication::translate("main", "clear shared memory. Use with caution."), QString(),
        QString()};
};

int runHeadless(int& argc, char** argv, const QString& path)
{
    qDebug() << "** CLI version **";
    const QCoreApplication application(argc, argv);
    const AppCLI controller(path);
    const ServiceWatchdog watchdog([&controller] { return controller.receivedImages(); });
    return QCoreApplication::exec();
}

// Both clearing modes end with status 0 whatever rm said, also when it could not be started.
// Deliberate: scripts clear before anything was ever stored, and that is no failure.
int clearConfiguration(int& argc, char** argv)
{
    qDebug() << "** Clear config file **";
    const QCoreApplication application(argc, argv);
    startBlockingProcess(
        QStringLiteral("."),
        QStringLiteral("rm %1").arg(QLatin1String(kVirtualCameraConfigPath), 0, QLatin1Char(' ')),
        false);
    return 0;
}

int clearMemory(int& argc, char** argv)
{
    qDebug() << "** Clear memory handler **";
    const QCoreApplication application(argc, argv);
    // No shell is involved, so the wildcard reaches rm literally. Deliberate: the locks of running
    // cameras must not be swept away.
    startBlockingProcess(QStringLiteral("."), QStringLiteral("rm /dev/shm/tq_local_*"), false);
    return 0;
}

#ifdef VISTREL_DESKTOP
int runDesktop(int& argc, char** argv)
{
    // Dense screens get whole multiples of the sizes in the forms, and the images drawn for them.
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    const QApplication application(argc, argv);
    const AppGui controller;
    return QApplication::exec();
}
#else
int runDesktop(int&, char** argv)
{
    std::cerr << argv[0] << ": built without the desktop mode; use --cli\n";
    return EXIT_FAILURE;
}
#endif

}  // namespace

int main(int argc, char** argv)
{
    qDebug() << "[KORVistrel] Version " << VISTREL_VERSION;
    sdk::registerMetaTypes();

    if (argc != 1) {
        // The chosen mode builds a second application object while this one still exists, and this
        // one goes last. Deliberate: the parser and the options live as long as the mode runs.
        const QCoreApplication application(argc, argv);
        QCommandLineParser parser;
        parser.setApplicationDescription(QStringLiteral("KOR Vistrel help"));
        parser.addHelpOption();
        const Options options;
        parser.addOption(options.cli);
        parser.addOption(options.clearConfig);
        parser.addOption(options.clearMemory);
        parser.process(application);

        const QString path = parser.value(options.cli);
        if (parser.isSet(options.cli)) {
            return runHeadless(argc, argv, path);
        }
        if (parser.isSet(options.clearConfig)) {
            return clearConfiguration(argc, argv);
        }
        if (parser.isSet(options.clearMemory)) {
            return clearMemory(argc, argv);
        }
    }
    return runDesktop(argc, argv);
}
