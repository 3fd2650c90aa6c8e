// SPDX-License-Identifier: Apache-2.0
// The frames that preview panels have been given and that are not drawn yet.
#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>
#include <functional>
#include <map>

#include "capture/sdk.h"
#include "ui/drawbudget.h"

/// Draws each frame at once while there is time to draw; where drawing is slower than the frames
/// come, keeps the newest frame of each panel and draws one after another as DrawBudget allows,
/// with other events between two draws. The last frame that a panel was given is always drawn.
///
/// GUI thread.
class PreviewQueue {
public:
    using Draw = std::function<void(const QString& panel, const tq::Mat& frame)>;

    /// @param drawFrame draws a frame on the panel of that name
    explicit PreviewQueue(Draw drawFrame);
    ~PreviewQueue();
    PreviewQueue(const PreviewQueue&) = delete;
    PreviewQueue& operator=(const PreviewQueue&) = delete;

    /// Draws a frame, now or later; it is copied when it has to wait.
    void show(const QString& panel, const tq::Mat& frame);

    /// Forgets the frame that waits for a panel, if there is one.
    void withdraw(const QString& panel);

    /// Forgets a panel that is gone.
    void forget(const QString& panel);

private:
    void drawNow(const QString& panel, const tq::Mat& frame);
    void drawNext();
    void scheduleNext();
    void freeFrame(const QString& panel);

    Draw draw;
    DrawBudget budget;
    QElapsedTimer clock;
    QTimer timer;
    std::map<QString, tq::Mat> frames;  // kept for reuse; one waits while the budget says so
};
