// SPDX-License-Identifier: Apache-2.0
// The SDK's log: lines that come too fast, and lines that nobody reads.
#include "sdk/core/log.h"

#include <fcntl.h>

#include <QScopeGuard>
#include <QStringList>
#include <QTest>
#include <future>

#include "sdk/stream/connectionlog.h"
#include "tests/sdk/sdktesting.h"

using namespace std::chrono_literals;
using tq::stream::ConnectionLog;

class LogTest : public QObject {
    Q_OBJECT

private slots:
    void writesWholeLines();
    void neverWaitsForReader();
    void survivesReaderThatIsGone();
    void limitsLinesAboutClients();
};

void LogTest::writesWholeLines()
{
    const ErrorLog log;
    tq::logLine("one\ntwo\r");
    tq::logLine(std::string(10000, 'x'));
    const QByteArray text = log.text();
    QVERIFY(text.startsWith("[tq_kor] one two \n[tq_kor] xxx"));
    QVERIFY(text.endsWith("x\n"));
    QCOMPARE(text.count('\n'), 2);
}

void LogTest::neverWaitsForReader()
{
    int ends[2];
    QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
    const int kept = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    std::future<void> writing = std::async(std::launch::async, [] {
        for (int i = 0; i < 10000; ++i)
            tq::logLine("nobody reads this line");
    });
    const bool written = writing.wait_for(10s) == std::future_status::ready;
    const auto readAll = [&] {
        QByteArray text(1 << 20, '\0');
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        text.resize(static_cast<int>(std::max<ssize_t>(
            read(ends[0], text.data(), static_cast<std::size_t>(text.size())), 0)));
        return text;
    };
    while (writing.wait_for(0s) != std::future_status::ready)
        readAll();
    const int before = readAll().count("nobody reads");
    tq::logLine("somebody reads again");
    const QByteArray after = readAll();
    dup2(kept, STDERR_FILENO);
    for (const int descriptor : {kept, ends[0], ends[1]})
        close(descriptor);
    QVERIFY(written);
    QVERIFY(before > 0);
    const QByteArray lost = QByteArray::number(10000 - before);
    QCOMPARE(after, "[tq_kor] " + lost +
                        " lines were lost: nobody read the log\n[tq_kor] somebody reads again\n");
}

void LogTest::survivesReaderThatIsGone()
{
    int ends[2];
    QCOMPARE(pipe2(ends, O_CLOEXEC), 0);
    const int kept = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    tq::logLine("nobody will ever read this");
    dup2(kept, STDERR_FILENO);
    close(kept);
}

void LogTest::limitsLinesAboutClients()
{
    QStringList lines;
    ConnectionLog::Time now;
    ConnectionLog log([&](const std::string& text) { lines << QString::fromStdString(text); }, now);
    for (int i = 0; i < 4000; ++i)
        log.line("client 203.0.113.7 is gone", now);
    QCOMPARE(lines.size(), 20);
    now += 1s;
    log.catchUp(now);
    QCOMPARE(lines.size(), 21);
    QCOMPARE(lines.last(), QString("3980 lines about clients were left out"));
    log.catchUp(now + 100s);
    QCOMPARE(lines.size(), 21);
    log.line("client 203.0.113.8 plays", now + 100s);
    QCOMPARE(lines.last(), QString("client 203.0.113.8 plays"));
}

QTEST_GUILESS_MAIN(LogTest)
#include "log_test.moc"
