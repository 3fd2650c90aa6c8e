// SPDX-License-Identifier: Apache-2.0
// The configuration file as a file: what it may be, and that it is never a part.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtTest>
#include <csignal>

#include "app/virtualcameraconfig.h"
#include "tests/sandbox/sandbox.h"
#include "tests/support/messagelog.h"

namespace {

QList<VirtualCameraInfos> records(int count)
{
    QList<VirtualCameraInfos> all;
    for (int n = 0; n < count; ++n) {
        VirtualCameraInfos record;
        record.virtualSerialNumber = static_cast<std::uint64_t>(100'000'001 + n);
        all << record;
    }
    return all;
}

QByteArray content(int count)
{
    return QByteArray::fromStdString(serializeVirtualCameraConfig(records(count))) + '\n';
}

}  // namespace

class ConfigurationFileTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> directory;
    QString path;

    /// The message of the JSON library's exception.
    QByteArray failure()
    {
        try {
            readVirtualCameraConfig(path);
        } catch (const nlohmann::json::exception& error) {
            return error.what();
        }
        return {};
    }

private slots:
    void init()
    {
        directory = std::make_unique<QTemporaryDir>();
        path = directory->filePath("config.json");
    }

    // One line, and the same end as that of an empty file: nothing hangs, no memory fills.
    void noRegularFile_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("reason");
        for (const char* kind : {"pipe", "folder", "endless"}) {
            QTest::newRow(kind) << kind << "it is no regular file";
        }
        QTest::newRow("large") << "large"
                               << "it is larger than 16 MB";
        QTest::newRow("absent") << "absent"
                                << "No such file or directory";
    }
    void noRegularFile()
    {
        QFETCH(QString, kind);
        QFETCH(QString, reason);
        if (kind == "pipe") {
            QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        } else if (kind == "folder") {
            QVERIFY(QDir().mkdir(path));
        } else if (kind == "endless") {
            QVERIFY(QFile::link("/dev/zero", path));
        } else if (kind == "large") {
            QVERIFY(sandbox::writeFile(path, "{}"));
            QVERIFY(QFile::resize(path, 16'000'001));
        }
        const MessageLog log;
        QVERIFY2(failure().contains("unexpected end of input"), failure());
        QCOMPARE(log.messages().value(0),
                 "[KORVistrel] The configuration cannot be read: \"" + reason + '"');
    }

    // The library's errors quote the file; a terminal must not obey it.
    void errorsHoldNoCommands_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("escape") << QByteArray("{\"\x1b[31m");
        QTest::newRow("one character") << QByteArray(
            "{\"\xc2\x9b"
            "31m");
        QTest::newRow("delete") << QByteArray("{\"\x7f");
        QTest::newRow("outside of a string") << QByteArray(
            "\xc2\x9b"
            "31m");
    }
    void errorsHoldNoCommands()
    {
        QFETCH(QByteArray, text);
        QVERIFY(sandbox::writeFile(path, text));
        const QByteArray message = failure();
        QVERIFY(message.contains("parse error"));
        for (const char byte : message) {
            QVERIFY2(byte >= ' ' && byte < '\x7f', message);
        }
    }

    void errorsOfOtherCharacters()
    {
        QVERIFY(sandbox::writeFile(path, "{\"\xff\":1}"));
        QVERIFY2(failure().contains("UTF-8"), failure());
        QVERIFY(sandbox::writeFile(path, "{\"\xc3\xa4\":1}"));
        QVERIFY2(failure().contains("type must be number"), failure());
    }

    // A process that saves all the time is killed again and again.
    void killedWhileSaving()
    {
        constexpr int kKills = 40;
        const QByteArrayList whole = {content(1), content(60)};
        QVERIFY(writeVirtualCameraConfig(path, records(1)).isEmpty());
        for (int n = 0; n < kKills; ++n) {
            int saved[2];
            QCOMPARE(pipe(saved), 0);
            const pid_t child = fork();
            if (child == 0) {
                for (int count = 60;; count = 61 - count) {
                    writeVirtualCameraConfig(path, records(count));
                    static_cast<void>(!write(saved[1], "", 1));
                }
            }
            ::close(saved[1]);
            char once = 1;
            QCOMPARE(read(saved[0], &once, 1), ssize_t{1});
            ::usleep(static_cast<useconds_t>(n * 137 % 3000));
            ::kill(child, SIGKILL);
            QCOMPARE(waitpid(child, nullptr, 0), child);
            ::close(saved[0]);
            const QByteArray found = sandbox::readFile(path);
            QVERIFY2(whole.contains(found), found);
        }
    }

    void fullDisk()
    {
        QVERIFY(writeVirtualCameraConfig(path, records(1)).isEmpty());
        rlimit former{};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &former), 0);
        const rlimit small{1000, former.rlim_max};
        std::signal(SIGXFSZ, SIG_IGN);
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
        const QString error = writeVirtualCameraConfig(path, records(60));
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &former), 0);
        std::signal(SIGXFSZ, SIG_DFL);
        QVERIFY(!error.isEmpty());
        QCOMPARE(sandbox::readFile(path), content(1));
        QCOMPARE(QDir(directory->path()).entryList(QDir::Files), QStringList("config.json"));
    }
};

QTEST_GUILESS_MAIN(ConfigurationFileTest)
#include "configurationfile_test.moc"
