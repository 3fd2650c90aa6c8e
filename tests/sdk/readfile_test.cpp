// SPDX-License-Identifier: Apache-2.0
// Tests of reading whole files: what is no file of a fitting size is refused at once.
#include "sdk/core/readfile.h"

#include <sys/stat.h>

#include <QtTest>

using tq::FileContents;
using tq::readRegularFile;

class ReadFileTest : public QObject {
    Q_OBJECT

private slots:
    void readsUpToTheLimit_data();
    void readsUpToTheLimit();
    void readsWhatSaysNoSize();
    void seesWhoMayRead();
    void refusesWhatIsNoFile_data();
    void refusesWhatIsNoFile();

private:
    std::string file(const QByteArray& contents)
    {
        QFile made(folder.filePath("file"));
        if (!made.open(QIODevice::WriteOnly) || made.write(contents) != contents.size()) {
            qFatal("cannot write");
        }
        return made.fileName().toStdString();
    }

    QTemporaryDir folder;
};

void ReadFileTest::readsUpToTheLimit_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {0, 1, 65535, 65536, 65537, 200000}) {
        QTest::addRow("%d bytes", size) << size;
    }
}

void ReadFileTest::readsUpToTheLimit()
{
    QFETCH(int, size);
    QByteArray contents(size, '\0');
    for (int i = 0; i < size; ++i) {
        contents[i] = static_cast<char>(i % 251);
    }
    const std::string path = file(contents);
    const auto limit = static_cast<std::size_t>(size);
    for (const std::size_t largest : {limit, limit + 1, limit + 1000000}) {
        const FileContents read = readRegularFile(path, largest);
        QVERIFY2(bool(read), read.error.c_str());
        QVERIFY(*read.bytes == contents.toStdString());
    }
    if (size > 0) {
        const FileContents refused = readRegularFile(path, limit - 1);
        QVERIFY(!refused);
        QVERIFY2(refused.error.rfind("larger than ", 0) == 0, refused.error.c_str());
    }
}

void ReadFileTest::readsWhatSaysNoSize()
{
    const FileContents maps = readRegularFile("/proc/self/maps", 1 << 20);
    QVERIFY2(bool(maps), maps.error.c_str());
    QVERIFY(!maps.bytes->empty());
    QCOMPARE(readRegularFile("/proc/self/maps", 10).error, std::string("larger than 10 bytes"));
}

void ReadFileTest::seesWhoMayRead()
{
    const std::string path = file("secret");
    QVERIFY(::chmod(path.c_str(), 0640) == 0);
    QVERIFY(!readRegularFile(path, 100).readableByAll);
    QVERIFY(::chmod(path.c_str(), 0644) == 0);
    QVERIFY(readRegularFile(path, 100).readableByAll);
}

void ReadFileTest::refusesWhatIsNoFile_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const QString pipe = folder.filePath("pipe");
    QVERIFY(::mkfifo(qPrintable(pipe), 0600) == 0);
    const QString astray = folder.filePath("astray");
    QVERIFY(QFile::link(folder.filePath("none"), astray));
    const QString circle = folder.filePath("circle");
    QVERIFY(QFile::link(circle, circle));
    const QString toPipe = folder.filePath("to pipe");
    QVERIFY(QFile::link(pipe, toPipe));
    QTest::newRow("pipe") << pipe << "is not a regular file";
    QTest::newRow("link to a pipe") << toPipe << "is not a regular file";
    QTest::newRow("endless device") << "/dev/zero"
                                    << "is not a regular file";
    QTest::newRow("terminal") << "/dev/tty"
                              << "is not a regular file";
    QTest::newRow("folder") << folder.path() << "is a folder";
    QTest::newRow("nothing") << folder.filePath("none")
                             << "cannot be read: No such file or directory";
    QTest::newRow("link to nothing") << astray << "cannot be read: No such file or directory";
    QTest::newRow("circle") << circle << "cannot be read: Too many levels of symbolic links";
}

void ReadFileTest::refusesWhatIsNoFile()
{
    QFETCH(QString, path);
    QFETCH(QString, error);
    const FileContents read = readRegularFile(path.toStdString(), 1 << 20);
    QVERIFY(!read);
    QCOMPARE(QString::fromStdString(read.error), error);
}

QTEST_GUILESS_MAIN(ReadFileTest)
#include "readfile_test.moc"
