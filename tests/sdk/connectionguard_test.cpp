// SPDX-License-Identifier: Apache-2.0
// What one connection may send, judged on a clock of the test's.
#include "sdk/stream/connectionguard.h"

#include <QTest>

using namespace std::chrono_literals;
using tq::stream::TrafficAccount;
using Time = TrafficAccount::Time;

namespace {

constexpr double kStreamBytes = 20e6 / 8;
constexpr auto kLook = 50ms;

/// A connection that receives the same rate all the time.
struct Sender {
    double bytesPerSecond;
    std::chrono::milliseconds answerEvery{0};  // 0: never
};

/// How long it may go on, at most the given time.
std::chrono::milliseconds lasts(TrafficAccount account, const Sender& sender,
                                std::chrono::milliseconds most)
{
    for (std::chrono::milliseconds passed = kLook; passed < most; passed += kLook) {
        const double received = sender.bytesPerSecond * static_cast<double>(passed.count()) / 1e3;
        if (sender.answerEvery > 0ms && passed % sender.answerEvery < kLook)
            account.answered();
        if (account.objection({static_cast<std::uint64_t>(received), 0, false}, Time() + passed))
            return passed;
    }
    return most;
}

}  // namespace

class ConnectionGuardTest : public QObject {
    Q_OBJECT

private slots:
    void endsFloods_data();
    void endsFloods();
    void endsSlowRequestOfStranger();
    void countsAnew();
    void keepsIdleStranger();
    void keepsViewers_data();
    void keepsViewers();
    void endsStuckViewer_data();
    void endsStuckViewer();
};

void ConnectionGuardTest::endsFloods_data()
{
    QTest::addColumn<bool>("admitted");
    QTest::addColumn<int>("answerEvery");
    QTest::newRow("of a stranger") << false << 0;
    QTest::newRow("of answered requests") << false << 50;
    QTest::newRow("of a viewer") << true << 0;
    QTest::newRow("of a viewer's answered requests") << true << 50;
}

void ConnectionGuardTest::endsFloods()
{
    QFETCH(bool, admitted);
    QFETCH(int, answerEvery);
    TrafficAccount account(kStreamBytes, Time());
    if (admitted)
        account.admit();
    const Sender flood{1.5e6, std::chrono::milliseconds(answerEvery)};
    QVERIFY(lasts(account, flood, 10s) <= 250ms);
}

void ConnectionGuardTest::endsSlowRequestOfStranger()
{
    const TrafficAccount account(kStreamBytes, Time());
    const auto time = lasts(account, {10, 0ms}, 60s);
    QVERIFY(time > 9s && time < 12s);
}

// What was answered is settled; the time of the next request begins with its first byte.
void ConnectionGuardTest::countsAnew()
{
    TrafficAccount account(kStreamBytes, Time());
    QVERIFY(!account.objection({10000, 0, false}, Time() + 9s));
    account.answered();
    QVERIFY(!account.objection({10000, 0, false}, Time() + 10s));
    QVERIFY(!account.objection({10000, 0, false}, Time() + 99s));
    QVERIFY(!account.objection({20000, 0, false}, Time() + 100s));
    QVERIFY(!account.objection({20000, 0, false}, Time() + 109s));
    QVERIFY(account.objection({20000, 0, false}, Time() + 111s));
}

void ConnectionGuardTest::keepsIdleStranger()
{
    QCOMPARE(lasts(TrafficAccount(kStreamBytes, Time()), {0, 0ms}, 3600s), 3600s);
}

void ConnectionGuardTest::keepsViewers_data()
{
    QTest::addColumn<double>("bytesPerSecond");
    QTest::addColumn<int>("answerEvery");
    // Two reports of 120 bytes each five seconds, and no request at all.
    QTest::newRow("reports only") << 48.0 << 0;
    // A report of 100 bytes for every 280 000 bytes of media, and a request each half minute.
    QTest::newRow("many reports") << kStreamBytes / 2800 << 30000;
    QTest::newRow("many requests") << 5000.0 << 100;
}

void ConnectionGuardTest::keepsViewers()
{
    QFETCH(double, bytesPerSecond);
    QFETCH(int, answerEvery);
    TrafficAccount account(kStreamBytes, Time());
    account.admit();
    constexpr std::chrono::hours kWeekend(60);
    const Sender viewer{bytesPerSecond, std::chrono::milliseconds(answerEvery)};
    QCOMPARE(lasts(account, viewer, kWeekend), std::chrono::milliseconds(kWeekend));
}

void ConnectionGuardTest::endsStuckViewer_data()
{
    QTest::addColumn<double>("share");  // of the stream that it takes
    QTest::addColumn<bool>("waiting");
    QTest::addColumn<int>("after");  // s
    QTest::newRow("nothing") << 0.0 << true << 10;
    QTest::newRow("next to nothing") << 0.001 << true << 10;
    QTest::newRow("half") << 0.5 << true << 60;
    QTest::newRow("nothing to take") << 0.0 << false << 60;
}

void ConnectionGuardTest::endsStuckViewer()
{
    QFETCH(double, share);
    QFETCH(bool, waiting);
    QFETCH(int, after);
    TrafficAccount account(kStreamBytes, Time());
    account.admit();
    std::chrono::milliseconds passed = kLook;
    for (; passed < 60s; passed += kLook) {
        const double taken = share * kStreamBytes * static_cast<double>(passed.count()) / 1e3;
        if (account.objection({0, static_cast<std::uint64_t>(taken), waiting}, Time() + passed))
            break;
    }
    QVERIFY2(passed >= std::chrono::seconds(after) && passed < std::chrono::seconds(after + 1),
             qPrintable(QString::number(passed.count())));
}

QTEST_GUILESS_MAIN(ConnectionGuardTest)
#include "connectionguard_test.moc"
