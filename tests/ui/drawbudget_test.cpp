// SPDX-License-Identifier: Apache-2.0
// The share of the GUI thread's time that drawing previews may take, and whose turn it is, on a
// clock of the test's own.
#include "ui/drawbudget.h"

#include <QMap>
#include <QTest>
#include <algorithm>

namespace {

constexpr qint64 kMs = 1'000'000;
constexpr qint64 kSecond = 1000 * kMs;

struct Camera {
    QString name;
    qint64 period;  // between two frames, ns
    qint64 phase;   // of its first frame, ns
};

struct Load {
    QMap<QString, int> draws;
    QMap<QString, qint64> longestGap;
    qint64 drawTime = 0;
    int refused = 0;

    double share(qint64 duration) const
    {
        return static_cast<double>(drawTime) / static_cast<double>(duration);
    }
};

// One thread that is given the frames of all cameras in order of arrival, with the 31 ms between
// two frames of one panel, and draws what waits when its time has come.
Load simulate(DrawBudget& budget, const QList<Camera>& cameras, qint64 drawTime, qint64 duration)
{
    Load load;
    QMap<QString, qint64> next;
    QMap<QString, qint64> lastGiven;
    QMap<QString, qint64> lastDrawn;
    for (const Camera& camera : cameras) {
        next[camera.name] = camera.phase;
        lastGiven[camera.name] = -kSecond;
        load.draws[camera.name] = 0;
    }
    qint64 now = 0;
    const auto draw = [&](const QString& name) {
        if (load.draws[name] > 0) {
            load.longestGap[name] = qMax(load.longestGap[name], now - lastDrawn[name]);
        }
        lastDrawn[name] = now;
        now += drawTime;
        budget.drawn(name, now - drawTime, now);
        load.drawTime += drawTime;
        ++load.draws[name];
    };
    while (now < duration) {
        const Camera* first = &cameras.first();
        for (const Camera& camera : cameras) {
            if (next[camera.name] < next[first->name]) {
                first = &camera;
            }
        }
        const QString waiting = budget.next();
        if (!waiting.isNull() && now + budget.delay(now) < next[first->name]) {
            now += budget.delay(now);
            draw(waiting);
            continue;
        }
        const QString name = first->name;
        now = qMax(now, next[name]);
        next[name] += first->period;
        if (now - lastGiven[name] < 31 * kMs) {
            continue;
        }
        lastGiven[name] = now;
        if (budget.request(name, now)) {
            draw(name);
        } else {
            ++load.refused;
        }
    }
    return load;
}

QList<Camera> camerasAt(int count, double fps, bool inPhase)
{
    QList<Camera> cameras;
    const auto period = static_cast<qint64>(1e9 / fps);
    for (int i = 0; i < count; ++i) {
        cameras.append({QString::number(i), period, inPhase ? i : i * period / count});
    }
    return cameras;
}

}  // namespace

class DrawBudgetTest : public QObject {
    Q_OBJECT

private slots:
    void fastDrawingIsNeverLimited_data();
    void fastDrawingIsNeverLimited();
    void slowDrawingTakesHalfOfTheTime_data();
    void slowDrawingTakesHalfOfTheTime();
    void nothingIsDrawnForAsLongAsADrawTook();
    void firstDrawOfAPanelIsFree();
    void oneSlowDrawIsForgiven();
    void panelsTakeTurns();
    void delay();
    void panelLosesItsTurn_data();
    void panelLosesItsTurn();
};

void DrawBudgetTest::fastDrawingIsNeverLimited_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<qint64>("drawTime");
    QTest::newRow("one, 14 ms") << 1 << 14 * kMs;
    QTest::newRow("two, 7 ms") << 2 << 7 * kMs;
    QTest::newRow("four, 3 ms") << 4 << 3 * kMs;
}

void DrawBudgetTest::fastDrawingIsNeverLimited()
{
    QFETCH(int, count);
    QFETCH(qint64, drawTime);
    for (const bool inPhase : {true, false}) {
        DrawBudget budget;
        const Load load = simulate(budget, camerasAt(count, 60, inPhase), drawTime, 60 * kSecond);
        QCOMPARE(load.refused, 0);
    }
}

void DrawBudgetTest::slowDrawingTakesHalfOfTheTime_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<double>("fps");
    QTest::addColumn<qint64>("drawTime");
    QTest::newRow("two, 30 ms") << 2 << 60.0 << 30 * kMs;
    QTest::newRow("four, 30 ms") << 4 << 60.0 << 30 * kMs;
    QTest::newRow("four, 80 ms") << 4 << 60.0 << 80 * kMs;
    QTest::newRow("four at 15, 50 ms") << 4 << 15.0 << 50 * kMs;
    QTest::newRow("eight, 12 ms") << 8 << 30.0 << 12 * kMs;
}

void DrawBudgetTest::slowDrawingTakesHalfOfTheTime()
{
    QFETCH(int, count);
    QFETCH(double, fps);
    QFETCH(qint64, drawTime);
    const qint64 duration = 60 * kSecond;
    for (const bool inPhase : {true, false}) {
        DrawBudget budget;
        const Load load = simulate(budget, camerasAt(count, fps, inPhase), drawTime, duration);
        QVERIFY2(load.share(duration) <= 0.52, qPrintable(QString::number(load.share(duration))));
        // There is always a frame that waits.
        QVERIFY2(load.share(duration) >= 0.49, qPrintable(QString::number(load.share(duration))));
        const QList<int> draws = load.draws.values();
        const auto [least, most] = std::minmax_element(draws.begin(), draws.end());
        QVERIFY2(*least >= *most - 2,
                 qPrintable(QStringLiteral("%1 to %2 draws").arg(*least).arg(*most)));
        for (const qint64 gap : load.longestGap) {
            QVERIFY2(gap <= 2 * count * drawTime + kSecond / 10,
                     qPrintable(QString::number(gap / kMs)));
        }
    }
}

void DrawBudgetTest::nothingIsDrawnForAsLongAsADrawTook()
{
    DrawBudget budget;
    const QString panel = QStringLiteral("a");
    budget.drawn(panel, 0, kMs);
    qint64 now = kMs;
    // Until the reserve is spent.
    while (budget.request(panel, now)) {
        budget.drawn(panel, now, now + 40 * kMs);
        now += 40 * kMs;
        QVERIFY(now < kSecond);
    }
    while (!budget.request(panel, now)) {
        now += kMs;
    }
    budget.drawn(panel, now, now + 40 * kMs);
    now += 40 * kMs;
    QVERIFY(!budget.request(panel, now));
    QVERIFY(!budget.request(panel, now + 38 * kMs));
    QVERIFY(budget.request(panel, now + 40 * kMs));
}

void DrawBudgetTest::firstDrawOfAPanelIsFree()
{
    DrawBudget budget;
    const QString first = QStringLiteral("a");
    const QString second = QStringLiteral("b");
    QVERIFY(budget.request(first, 0));
    budget.drawn(first, 0, 900 * kMs);
    QVERIFY(budget.request(second, 900 * kMs));
    budget.drawn(second, 900 * kMs, 1800 * kMs);
    QVERIFY(budget.request(first, 1800 * kMs));
    budget.drawn(first, 1800 * kMs, 1800 * kMs);
    QVERIFY(budget.request(second, 1800 * kMs));
}

void DrawBudgetTest::oneSlowDrawIsForgiven()
{
    DrawBudget budget;
    const QString panel = QStringLiteral("a");
    budget.drawn(panel, 0, kMs);
    QVERIFY(budget.request(panel, kSecond));
    budget.drawn(panel, kSecond, kSecond + 100 * kMs);
    // 60 ms of it were in reserve, the other 40 are paid back in twice that time.
    QVERIFY(!budget.request(panel, kSecond + 178 * kMs));
    QVERIFY(budget.request(panel, kSecond + 180 * kMs));
}

void DrawBudgetTest::panelsTakeTurns()
{
    DrawBudget budget;
    const QStringList names{"a", "b", "c"};
    qint64 now = 0;
    for (const QString& name : {names.at(2), names.at(0), names.at(1)}) {
        budget.drawn(name, now, now + kMs);
        now += kMs;
    }
    QVERIFY(budget.next().isNull());
    budget.drawn(names.at(1), now, now + 200 * kMs);
    now += 200 * kMs;
    for (const QString& name : names) {
        QVERIFY(!budget.request(name, now));
    }
    QCOMPARE(budget.next(), names.at(2));
    now += budget.delay(now);
    QCOMPARE(budget.delay(now), qint64{0});
    // Time has come, but not for the others.
    QVERIFY(!budget.request(names.at(0), now));
    QVERIFY(!budget.request(names.at(1), now));
    QVERIFY(budget.request(names.at(2), now));
    for (const QString& name : {names.at(2), names.at(0), names.at(1)}) {
        QCOMPARE(budget.next(), name);
        budget.drawn(name, now, now + kMs);
        now += kMs;
    }
    QVERIFY(budget.next().isNull());
}

void DrawBudgetTest::delay()
{
    DrawBudget budget;
    const QString panel = QStringLiteral("a");
    QCOMPARE(budget.delay(0), qint64{0});
    budget.drawn(panel, 0, kMs);
    budget.drawn(panel, kSecond, kSecond + 100 * kMs);
    // 60 ms of it were in reserve, the other 40 are paid back in twice that time.
    QCOMPARE(budget.delay(kSecond + 100 * kMs), 80 * kMs);
    QCOMPARE(budget.delay(kSecond + 179 * kMs), kMs);
    QCOMPARE(budget.delay(kSecond + 180 * kMs), qint64{0});
    QCOMPARE(budget.delay(kSecond + 300 * kMs), qint64{0});

    // A draw in which the machine stood still.
    budget.drawn(panel, 2 * kSecond, 9 * kSecond);
    QCOMPARE(budget.delay(9 * kSecond), 2 * (DrawBudget::kMostPaidNs - DrawBudget::kReserveNs));
}

void DrawBudgetTest::panelLosesItsTurn_data()
{
    QTest::addColumn<bool>("gone");
    QTest::newRow("withdrawn") << false;
    QTest::newRow("gone") << true;
}

void DrawBudgetTest::panelLosesItsTurn()
{
    QFETCH(bool, gone);
    DrawBudget budget;
    const QString first = QStringLiteral("a");
    const QString other = QStringLiteral("b");
    budget.drawn(first, 0, kMs);
    budget.drawn(other, kMs, 2 * kMs);
    budget.drawn(other, 2 * kMs, 2 * kMs + 150 * kMs);
    qint64 now = 152 * kMs;
    QVERIFY(!budget.request(first, now));
    now += 200 * kMs;
    QVERIFY(!budget.request(other, now));
    if (gone) {
        budget.forget(first);
    } else {
        budget.withdraw(first);
    }
    QCOMPARE(budget.next(), other);
    QVERIFY(budget.request(other, now));
    budget.drawn(other, now, now + 500 * kMs);
    // Its next draw is free only if it is a new panel.
    QCOMPARE(budget.request(first, now + 500 * kMs), gone);
    budget.withdraw(QStringLiteral("unknown"));
    budget.forget(QStringLiteral("unknown"));
}

QTEST_APPLESS_MAIN(DrawBudgetTest)
#include "drawbudget_test.moc"
