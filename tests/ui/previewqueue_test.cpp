// SPDX-License-Identifier: Apache-2.0
// Frames that wait for their turn to be drawn.
#include "ui/previewqueue.h"

#include <QPair>
#include <QTest>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

namespace {

constexpr int kSize = 16;

using Drawn = QList<QPair<QString, int>>;

// Notes what is drawn. Every draw takes as long as the test says.
class Panels {
public:
    Panels()
    {
        queue = std::make_unique<PreviewQueue>([this](const QString& panel, const tq::Mat& frame) {
            std::this_thread::sleep_for(std::chrono::milliseconds(drawMs));
            drawn.append({panel, *frame.getPtr<unsigned char>(sdk::kHostMemory)});
        });
        image.alloc(kSize, kSize, sdk::kYuyv, sdk::kHostMemory);
    }

    // Each panel's first draw, which is free, and one that leaves nothing for the next second.
    void exhaust(const QStringList& names)
    {
        for (const QString& name : names) {
            show(name, 0);
        }
        drawMs = 600;
        show(names.last(), 0);
        drawMs = 0;
        drawn.clear();
    }

    // A frame in a buffer that is written again for the next one.
    void show(const QString& panel, int value)
    {
        std::memset(image.getPtr<unsigned char>(sdk::kHostMemory), value, kSize * kSize * 2);
        queue->show(panel, image);
    }

    std::unique_ptr<PreviewQueue> queue;
    Drawn drawn;

private:
    int drawMs = 0;
    tq::Mat image;
};

}  // namespace

class PreviewQueueTest : public QObject {
    Q_OBJECT

private slots:
    void drawsAtOnce();
    void newestOfEachPanelInTurn();
    void withdrawnIsNotDrawn();
    void panelThatComesBackIsNew();
    void destroyedWithAFrameThatWaits();
};

void PreviewQueueTest::drawsAtOnce()
{
    Panels panels;
    Drawn expected;
    for (int n = 0; n < 20; ++n) {
        const QString name = QString::number(n % 3);
        panels.show(name, n);
        expected.append({name, n});
        QCOMPARE(panels.drawn, expected);
    }
    QTest::qWait(20);
    QCOMPARE(panels.drawn, expected);
}

void PreviewQueueTest::newestOfEachPanelInTurn()
{
    Panels panels;
    panels.exhaust({"a", "b", "c"});
    for (int value = 1; value <= 3; ++value) {
        for (const char* name : {"c", "b", "a"}) {
            panels.show(name, value);
        }
    }
    QCOMPARE(panels.drawn, Drawn());
    const Drawn expected{{"a", 3}, {"b", 3}, {"c", 3}};
    QTRY_COMPARE(panels.drawn, expected);
    QTest::qWait(50);
    QCOMPARE(panels.drawn, expected);
}

void PreviewQueueTest::withdrawnIsNotDrawn()
{
    Panels panels;
    panels.exhaust({"a", "b"});
    panels.show("a", 1);
    panels.show("b", 2);
    panels.queue->withdraw("a");
    panels.queue->withdraw("unknown");
    // The other one's turn came after it.
    QTRY_COMPARE(panels.drawn, (Drawn{{"b", 2}}));
    // It is drawn again with its next frame.
    panels.show("a", 3);
    QTRY_COMPARE(panels.drawn, (Drawn{{"b", 2}, {"a", 3}}));
}

void PreviewQueueTest::panelThatComesBackIsNew()
{
    Panels panels;
    panels.exhaust({"a", "b"});
    panels.show("a", 1);
    panels.show("b", 2);
    panels.queue->forget("a");
    panels.queue->forget("unknown");
    // A new panel's first draw is free, and what waited for the former one is gone.
    panels.show("a", 3);
    QCOMPARE(panels.drawn, (Drawn{{"a", 3}}));
    QTRY_COMPARE(panels.drawn, (Drawn{{"a", 3}, {"b", 2}}));
    QTest::qWait(50);
    QCOMPARE(panels.drawn.size(), 2);
}

void PreviewQueueTest::destroyedWithAFrameThatWaits()
{
    Panels panels;
    panels.exhaust({"a", "b"});
    panels.show("a", 1);
    panels.queue.reset();
    QTest::qWait(1300);  // longer than its time would have been
    QCOMPARE(panels.drawn, Drawn());
}

QTEST_GUILESS_MAIN(PreviewQueueTest)
#include "previewqueue_test.moc"
