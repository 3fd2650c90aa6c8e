// SPDX-License-Identifier: Apache-2.0
// Tests of the settings store, each on a store of its own.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <memory>

#include "app/confFileManager.h"

class ConfFileManagerTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void constructorSetsNamesAndLoadsNothing();
    void emptyStoreYieldsDefaults();
    void defaultFolderFollowsTheUsersDocuments();
    void savedCaptureSettingsAreLoadedAgain();
    void captureSettingsAreStoredAsIntegersInTheInputGroup();
    void savingCaptureSettingsTouchesNothingElse();
    void hdrModeIsReadAsBool_data();
    void hdrModeIsReadAsBool();
    void firmwareCheckIsStored();
    void fullVariantStoresByItsOwnOrderAndWritesNoWidth();
    void applicationsHaveSeparateStores();
    void openReloadsWhatAnotherManagerStored();
    void unreadableNumbersBecomeZero();
    void damagedStoreIsReadAsFarAsItGoesAndReplaced_data();
    void damagedStoreIsReadAsFarAsItGoesAndReplaced();
    void killedWriterLeavesAWholeStore();

private:
    QString storePath(const QString& application) const;
    QByteArray storedText(const QString& application) const;

    std::unique_ptr<QTemporaryDir> home;
};

void ConfFileManagerTest::initTestCase()
{
    QCOMPARE(QSettings::defaultFormat(), QSettings::NativeFormat);
}

// A fresh folder per test; QSettings reads the environment when its paths are first needed, so the
// path is set for the running process as well.
void ConfFileManagerTest::init()
{
    home = std::make_unique<QTemporaryDir>();
    QVERIFY(home->isValid());
    qputenv("XDG_CONFIG_HOME", home->path().toLocal8Bit());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home->path());
}

void ConfFileManagerTest::cleanup()
{
    home.reset();
}

QString ConfFileManagerTest::storePath(const QString& application) const
{
    return home->filePath("Vellmark/" + application + ".conf");
}

QByteArray ConfFileManagerTest::storedText(const QString& application) const
{
    QFile file(storePath(application));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void ConfFileManagerTest::constructorSetsNamesAndLoadsNothing()
{
    const ConfFileManager manager;
    QCOMPARE(manager.organization, QString("Vellmark"));
    QVERIFY(manager.application.isEmpty());
    QCOMPARE(manager.inputGroup, QString("input"));
    QCOMPARE(manager.heightKey, QString("height"));
    QCOMPARE(manager.widthKey, QString("width"));
    QCOMPARE(manager.fpsKey, QString("fps"));
    QCOMPARE(manager.hdrModeKey, QString("hdr_mode"));
    QCOMPARE(manager.qualityKey, QString("quality"));
    QCOMPARE(manager.depthMaxKey, QString("depth_max"));
    QCOMPARE(manager.depthMinKey, QString("depth_min"));
    QCOMPARE(manager.fwCheckKey, QString("fw_check"));
    QCOMPARE(manager.sdkVersionKey, QString("sdk_v"));
    QCOMPARE(manager.dirGroup, QString("dir"));
    QCOMPARE(manager.saveKey, QString("save"));
    QVERIFY(manager.archConf.save.empty());
    QVERIFY(!QFile::exists(home->filePath("Vellmark")));
}

void ConfFileManagerTest::emptyStoreYieldsDefaults()
{
    ConfFileManager manager;
    manager.open("Vistrel");
    QCOMPARE(manager.application, QString("Vistrel"));
    QCOMPARE(manager.archConf.width, 0);
    QCOMPARE(manager.archConf.height, 0);
    QCOMPARE(manager.archConf.fps, 30);
    QCOMPARE(manager.archConf.quality, 1);
    QCOMPARE(manager.archConf.depth_max, 20000);
    QCOMPARE(manager.archConf.depth_min, 0);
    QCOMPARE(manager.archConf.fw_check, false);
    QCOMPARE(manager.archConf.sdk_v, 0);
    QCOMPARE(manager.archConf.hdr_mode, false);
    const QString documents =
        QStandardPaths::standardLocations(QStandardPaths::DocumentsLocation).constFirst();
    QCOMPARE(QString::fromStdString(manager.archConf.save), documents + "/KOR");
}

void ConfFileManagerTest::defaultFolderFollowsTheUsersDocuments()
{
    const QString documents = home->filePath("my papers");
    QVERIFY(QDir().mkpath(documents));
    QFile directories(home->filePath("user-dirs.dirs"));
    QVERIFY(directories.open(QIODevice::WriteOnly));
    directories.write("XDG_DOCUMENTS_DIR=\"" + documents.toUtf8() + "\"\n");
    directories.close();

    ConfFileManager manager;
    manager.open("Vistrel");
    QCOMPARE(QString::fromStdString(manager.archConf.save), documents + "/KOR");
}

void ConfFileManagerTest::savedCaptureSettingsAreLoadedAgain()
{
    ConfFileManager writer;
    writer.open("Vistrel");
    writer.saveConf(1920, 1200, 30, 1);
    QCOMPARE(writer.archConf.width, 0);  // what was loaded stays until the next open

    ConfFileManager reader;
    reader.open("Vistrel");
    QCOMPARE(reader.archConf.width, 1920);
    QCOMPARE(reader.archConf.height, 1200);
    QCOMPARE(reader.archConf.fps, 30);
    QCOMPARE(reader.archConf.hdr_mode, true);
}

void ConfFileManagerTest::captureSettingsAreStoredAsIntegersInTheInputGroup()
{
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConf(1920, 1200, 30, 1);
    QCOMPARE(storedText("Vistrel"),
             QByteArray("[input]\nfps=30\nhdr_mode=1\nheight=1200\nwidth=1920\n"));
}

void ConfFileManagerTest::savingCaptureSettingsTouchesNothingElse()
{
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConfFw(true);
    manager.saveConf(1, 2, 3, 4, 5, "/six", 7, 8);
    manager.saveConf(3840, 2160, 15, 0);

    manager.open("Vistrel");
    QCOMPARE(manager.archConf.width, 3840);
    QCOMPARE(manager.archConf.height, 2160);
    QCOMPARE(manager.archConf.fps, 15);
    QCOMPARE(manager.archConf.hdr_mode, false);
    QCOMPARE(manager.archConf.quality, 3);
    QCOMPARE(manager.archConf.depth_max, 5);
    QCOMPARE(manager.archConf.depth_min, 7);
    QCOMPARE(manager.archConf.sdk_v, 8);
    QCOMPARE(manager.archConf.fw_check, true);
    QCOMPARE(manager.archConf.save, std::string("/six"));
}

void ConfFileManagerTest::hdrModeIsReadAsBool_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<bool>("loaded");
    QTest::newRow("off") << 0 << false;
    QTest::newRow("on") << 1 << true;
    QTest::newRow("any other number") << 2 << true;
    QTest::newRow("negative") << -1 << true;
}

void ConfFileManagerTest::hdrModeIsReadAsBool()
{
    QFETCH(int, stored);
    QFETCH(bool, loaded);
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConf(1920, 1080, 60, stored);
    QVERIFY(storedText("Vistrel").contains("hdr_mode=" + QByteArray::number(stored) + "\n"));
    manager.open("Vistrel");
    QCOMPARE(manager.archConf.hdr_mode, loaded);
}

void ConfFileManagerTest::firmwareCheckIsStored()
{
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConfFw(true);
    QCOMPARE(storedText("Vistrel"), QByteArray("[input]\nfw_check=true\n"));
    manager.open("Vistrel");
    QCOMPARE(manager.archConf.fw_check, true);
    manager.saveConfFw(false);
    manager.open("Vistrel");
    QCOMPARE(manager.archConf.fw_check, false);
}

void ConfFileManagerTest::fullVariantStoresByItsOwnOrderAndWritesNoWidth()
{
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConf(11, 12, 13, 14, 15, "/data/KOR", 17, 18);
    QCOMPARE(storedText("Vistrel"),
             QByteArray("[input]\ndepth_max=15\ndepth_min=17\ndir\\save=/data/KOR\nfps=12\n"
                        "hdr_mode=14\nheight=11\nquality=13\nsdk_v=18\n"));

    manager.open("Vistrel");
    QCOMPARE(manager.archConf.width, 0);
    QCOMPARE(manager.archConf.height, 11);
    QCOMPARE(manager.archConf.fps, 12);
    QCOMPARE(manager.archConf.quality, 13);
    QCOMPARE(manager.archConf.hdr_mode, true);
    QCOMPARE(manager.archConf.depth_max, 15);
    QCOMPARE(manager.archConf.save, std::string("/data/KOR"));
    QCOMPARE(manager.archConf.depth_min, 17);
    QCOMPARE(manager.archConf.sdk_v, 18);
    QCOMPARE(manager.archConf.fw_check, false);
}

void ConfFileManagerTest::applicationsHaveSeparateStores()
{
    ConfFileManager one;
    one.open("Vistrel");
    one.saveConf(1920, 1200, 30, 0);
    ConfFileManager other;
    other.open("Another");
    QCOMPARE(other.archConf.width, 0);
    QVERIFY(QFile::exists(storePath("Vistrel")));
    QVERIFY(!QFile::exists(storePath("Another")));
}

void ConfFileManagerTest::openReloadsWhatAnotherManagerStored()
{
    ConfFileManager reader;
    reader.open("Vistrel");
    ConfFileManager writer;
    writer.open("Vistrel");
    writer.saveConf(1280, 720, 60, 0);
    reader.open("Vistrel");
    QCOMPARE(reader.archConf.width, 1280);
    QCOMPARE(reader.archConf.fps, 60);
}

void ConfFileManagerTest::unreadableNumbersBecomeZero()
{
    QVERIFY(QDir().mkpath(home->filePath("Vellmark")));
    QFile file(storePath("Vistrel"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[input]\nfps=fast\nwidth=1920\n");
    file.close();
    ConfFileManager manager;
    manager.open("Vistrel");
    QCOMPARE(manager.archConf.fps, 0);
    QCOMPARE(manager.archConf.width, 1920);
}

void ConfFileManagerTest::damagedStoreIsReadAsFarAsItGoesAndReplaced_data()
{
    QTest::addColumn<QByteArray>("text");
    const QByteArray whole = "[input]\nfps=30\nhdr_mode=1\nheight=1200\nwidth=1920\n";
    for (int length = 0; length < whole.size(); ++length) {
        QTest::addRow("cut after %d bytes", length) << whole.left(length);
    }
    QTest::newRow("zeros") << QByteArray(4096, '\0');
    QTest::newRow("no text") << QByteArray("\xff\xfe\x80[\x01]=\n\\x", 11);
    QTest::newRow("open bracket") << QByteArray("[input\nfps=60\n");
    QTest::newRow("unknown type") << QByteArray("[input]\nfps=@Variant(\\0\\0\\0\\x7f)\n");
}

void ConfFileManagerTest::damagedStoreIsReadAsFarAsItGoesAndReplaced()
{
    QFETCH(QByteArray, text);
    QVERIFY(QDir().mkpath(home->filePath("Vellmark")));
    QFile file(storePath("Vistrel"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(text);
    file.close();

    ConfFileManager manager;
    manager.open("Vistrel");
    QVERIFY(manager.archConf.width == 0 ||
            QByteArray("1920").startsWith(QByteArray::number(manager.archConf.width)));
    manager.saveConf(960, 600, 15, 0);
    manager.open("Vistrel");
    QCOMPARE(manager.archConf.width, 960);
    QCOMPARE(manager.archConf.height, 600);
    QCOMPARE(manager.archConf.fps, 15);
    QCOMPARE(manager.archConf.hdr_mode, false);
}

// Settings change as a whole or not at all, whenever the program is killed.
void ConfFileManagerTest::killedWriterLeavesAWholeStore()
{
    constexpr int kRounds = 20;
    ConfFileManager manager;
    manager.open("Vistrel");
    manager.saveConf(1920, 1200, 30, 0);
    const QByteArray one = storedText("Vistrel");
    manager.saveConf(960, 600, 60, 0);
    const QByteArray other = storedText("Vistrel");

    int changes = 0;
    QByteArray before = other;
    for (int round = 0; round < kRounds; ++round) {
        int ready[2];
        QCOMPARE(pipe(ready), 0);
        const pid_t writer = fork();
        if (writer == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (bool first = true;; first = !first) {
                manager.saveConf(first ? 1920 : 960, first ? 1200 : 600, first ? 30 : 60, 0);
                (void)!write(ready[1], "", 1);
            }
        }
        char byte = 0;
        for (int writes = 0; writes <= round % 5; ++writes) {
            QCOMPARE(read(ready[0], &byte, 1), ssize_t(1));
        }
        usleep(300u * static_cast<unsigned int>(round % 10));  // somewhere in a write
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        // Killed before the lock says whose it is, it counts for the toolkit's 30 s.
        QFile::remove(storePath("Vistrel") + ".lock");
        close(ready[0]);
        close(ready[1]);
        const QByteArray now = storedText("Vistrel");
        QVERIFY2(now == one || now == other, now.constData());
        changes += now == before ? 0 : 1;
        before = now;
    }
    QVERIFY(changes > 0);
}

QTEST_GUILESS_MAIN(ConfFileManagerTest)
#include "settings_test.moc"
