// SPDX-License-Identifier: Apache-2.0
// The frames that preview panels have been given and that are not drawn yet.
#include "ui/previewqueue.h"

#include <algorithm>
#include <utility>

namespace {

constexpr qint64 kNsPerMs = 1'000'000;

}  // namespace

PreviewQueue::PreviewQueue(Draw drawFrame) : draw(std::move(drawFrame))
{
    clock.start();
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &timer, [this] { drawNext(); });
}

PreviewQueue::~PreviewQueue()
{
    for (auto& frame : frames) {
        frame.second.free(sdk::kAllMemory);
    }
}

void PreviewQueue::show(const QString& panel, const tq::Mat& frame)
{
    if (budget.request(panel, clock.nsecsElapsed())) {
        drawNow(panel, frame);
    } else {
        frames[panel].clone(frame);
    }
    scheduleNext();
}

void PreviewQueue::withdraw(const QString& panel)
{
    budget.withdraw(panel);
    freeFrame(panel);
}

void PreviewQueue::forget(const QString& panel)
{
    budget.forget(panel);
    freeFrame(panel);
}

void PreviewQueue::drawNow(const QString& panel, const tq::Mat& frame)
{
    const qint64 start = clock.nsecsElapsed();
    draw(panel, frame);
    budget.drawn(panel, start, clock.nsecsElapsed());
}

void PreviewQueue::drawNext()
{
    const QString panel = budget.next();
    if (!panel.isNull() && budget.delay(clock.nsecsElapsed()) == 0) {
        drawNow(panel, frames[panel]);
    }
    scheduleNext();
}

// Never without a pause, so that other events come in between two draws.
void PreviewQueue::scheduleNext()
{
    if (!budget.next().isNull() && !timer.isActive()) {
        const qint64 delay = budget.delay(clock.nsecsElapsed());
        timer.start(static_cast<int>(std::max<qint64>(1, (delay + kNsPerMs - 1) / kNsPerMs)));
    }
}

void PreviewQueue::freeFrame(const QString& panel)
{
    const auto frame = frames.find(panel);
    if (frame != frames.end()) {
        frame->second.free(sdk::kAllMemory);
        frames.erase(frame);
    }
}
