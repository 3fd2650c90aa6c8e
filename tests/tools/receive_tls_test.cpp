// SPDX-License-Identifier: Apache-2.0
// vistrel-receive and encrypted streams: whom it trusts, and what it says when it does not.
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

#include "tests/support/certificates.h"
#include "tests/support/freeport.h"
#include "tests/tools/receive_testing.h"

class ReceiveTlsTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup();

    void verifies_data();
    void verifies();
    void refusesWrongUse_data();
    void refusesWrongUse();
    void isNotServedInTheOpen();
    void senderNeedsItsLibrary();

private:
    void send(const QByteArray& more = {},
              const QProcessEnvironment& added = QProcessEnvironment());
    QString file(const char* name) const { return folder.filePath(name); }

    QTemporaryDir folder;
    const Certificate authority{file("authority")};
    const Certificate stranger{file("stranger")};
    const Certificate board{file("board"), {}, &authority};
    std::unique_ptr<QProcess> sender;
    int port = 0;
};

void ReceiveTlsTest::cleanup()
{
    if (sender) {
        sender->terminate();
        QVERIFY(sender->waitForFinished(20000));
        sender.reset();
    }
}

void ReceiveTlsTest::send(const QByteArray& more, const QProcessEnvironment& added)
{
    QFile rig(file("rig.json"));
    QVERIFY(rig.open(QIODevice::WriteOnly));
    // Paths from the rig's folder on.
    rig.write(R"({"cameras": [], "stream": {"certificate": "board.pem", "key": "board.key")" +
              more + "}}");
    rig.close();
    port = freePort();
    sender = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("KOR_RIG", rig.fileName());
    environment.insert(added);
    sender->setProcessEnvironment(environment);
    sender->start(VISTREL_SAMPLE_SENDER, {QString::number(port)});
}

void ReceiveTlsTest::verifies_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("host");
    QTest::addColumn<QByteArray>("refusal");
    const QString right = "viewer:secret@";
    const QString here = "127.0.0.1";
    QTest::newRow("by itself") << QStringList() << right << here
                               << QByteArray("its authority is not known here");
    QTest::newRow("another authority") << QStringList{"--ca", stranger.file()} << right << here
                                       << QByteArray("its authority is not known here");
    QTest::newRow("its authority")
        << QStringList{"--ca", authority.file()} << right << here << QByteArray();
    QTest::newRow("the certificate itself")
        << QStringList{"--ca", board.file()} << right << here << QByteArray();
    QTest::newRow("another host") << QStringList{"--ca", authority.file()} << right << "127.0.0.2"
                                  << QByteArray("it is of another host");
    QTest::newRow("insecure") << QStringList{"--insecure"} << right << "127.0.0.2" << QByteArray();
    QTest::newRow("wrong password") << QStringList{"--ca", authority.file()} << "viewer:guess@"
                                    << here << QByteArray("Unauthorized");
}

void ReceiveTlsTest::verifies()
{
    QFETCH(QStringList, options);
    QFETCH(QString, user);
    QFETCH(QString, host);
    QFETCH(QByteArray, refusal);
    send(R"(, "user": "viewer", "password": "secret")");
    QVERIFY2(sender->waitForReadyRead(60000), sender->readAllStandardError());
    const QString url = "rtsps://" + user + host + ':' + QString::number(port) + "/stereo";
    const Outcome outcome =
        receive(options + QStringList{"-q", "-t", "50", "-n", "5", "-j", "-", url});
    QCOMPARE(outcome.status, refusal.isEmpty() ? 0 : 1);
    QVERIFY2(outcome.err.contains(refusal), outcome.err);
    QVERIFY(!outcome.err.contains("secret") && !outcome.out.contains("secret"));
    if (!refusal.isEmpty() && !refusal.startsWith("Un"))
        QVERIFY2(outcome.err.startsWith("vistrel-receive: the sender's certificate is refused: "),
                 outcome.err);
}

void ReceiveTlsTest::refusesWrongUse_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QByteArray>("error");
    const QString plain = "rtsp://127.0.0.1:1/stereo";
    const QString secure = "rtsps://127.0.0.1:1/stereo";
    QTest::newRow("authority of a plain stream")
        << QStringList{"--ca", authority.file()} << plain << QByteArray("begins with rtsps://");
    QTest::newRow("plain stream, insecure")
        << QStringList{"--insecure"} << plain << QByteArray("begins with rtsps://");
    QTest::newRow("both") << QStringList{"--insecure", "--ca", authority.file()} << secure
                          << QByteArray("exclude each other");
    QTest::newRow("no file") << QStringList{"--ca", file("none")} << secure
                             << file("none").toLocal8Bit();
    QTest::newRow("no certificate")
        << QStringList{"--ca", board.keyFile()} << secure << board.keyFile().toLocal8Bit();
}

void ReceiveTlsTest::refusesWrongUse()
{
    QFETCH(QStringList, options);
    QFETCH(QString, url);
    QFETCH(QByteArray, error);
    // What is there of an earlier run stays when nothing can come.
    QFile kept(file("kept.csv"));
    QVERIFY(kept.open(QIODevice::WriteOnly));
    kept.write("kept");
    kept.close();
    const Outcome outcome = receive(options + QStringList{"-i", kept.fileName(), url});
    QCOMPARE(outcome.status, 2);
    QVERIFY2(outcome.err.contains(error), outcome.err);
    QCOMPARE(kept.size(), qint64(4));
}

void ReceiveTlsTest::isNotServedInTheOpen()
{
    send();
    QVERIFY2(sender->waitForReadyRead(60000), sender->readAllStandardError());
    const QString host = "127.0.0.1:" + QString::number(port) + "/stereo";
    QCOMPARE(receive({"-q", "-t", "20", "-n", "5", "rtsp://" + host}).status, 1);
    QCOMPARE(receive({"-q", "-t", "50", "-n", "5", "--insecure", "rtsps://" + host}).status, 0);
}

void ReceiveTlsTest::senderNeedsItsLibrary()
{
    // As where the package is not installed: no module of GIO's is found.
    QProcessEnvironment environment;
    environment.insert("GIO_MODULE_DIR", file("none"));
    send({}, environment);
    QVERIFY(sender->waitForFinished(60000));
    QCOMPARE(sender->exitCode(), 7);
    const QByteArray error = sender->readAllStandardError();
    QVERIFY2(error.contains("the package glib-networking is not installed"), error);
    sender.reset();
}

QTEST_GUILESS_MAIN(ReceiveTlsTest)
#include "receive_tls_test.moc"
