// SPDX-License-Identifier: Apache-2.0
// A random operator of the window: clicks, keys and wheel turns from a seed.
#pragma once

#include <QMap>
#include <QObject>
#include <QStringList>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "app/AppGUI.h"
#include "tests/endurance/world.h"

class MainWindow;
class VirtualCamHandler;
class QComboBox;

/// What decides about one action. Every action has dice of its own, made from the seed and its
/// number, so that it does the same again however the ones before it went.
class Dice {
public:
    Dice(std::uint64_t seed, int action);
    /// A number below @p limit, 0 for a limit of 0.
    int below(int limit);
    bool chance(int percent) { return below(100) < percent; }

private:
    std::mt19937 engine;
};

/// Operates the real controller and its window. The next action comes when the one before it has
/// returned, or when it waits inside a modal box or a menu, which is then met. GUI thread.
class Operator : public QObject {
    Q_OBJECT

public:
    /// @param journal gets a line for each action and for each message of the program
    Operator(World& surroundings, std::uint64_t seed, std::FILE* journal);

    /// Starts the program and does so many actions.
    void operate(int actions);

    /// What any operator does: reloads, removes all rows, makes one, streams it and saves.
    /// @return what went wrong, empty when nothing did
    QString fixedScript();

    /// Ends the program as the closed window does.
    void end();

    /// How often something happened; actions that found nothing to act on do not count.
    const QMap<QString, int>& counts() const { return happened; }

    /// Keeps a message of the program, and counts it by its kind. Any thread.
    void keepMessage(const QString& text);

    /// How many actions have begun. Any thread.
    int begun() const { return number; }

signals:
    void finished();

private:
    struct Action {
        const char* name;
        int weight;
        bool (Operator::*act)(Dice&);
    };
    static const std::vector<Action>& actions();

    void start();
    void schedule();
    void step();
    void act(Dice dice);
    bool meetPopup(Dice& dice);
    void answer(QWidget* box, Dice& dice);
    void finishPopups();
    QString makeRow(VirtualCamHandler* row);
    QString streamRow(VirtualCamHandler* row);
    QString saveRow(const VirtualCamHandler* row);

    bool addRow(Dice& dice);
    bool removeRow(Dice& dice);
    bool generate(Dice& dice);
    bool chooseCamera(Dice& dice);
    bool setPort(Dice& dice);
    bool stream(Dice& dice);
    bool save(Dice& dice);
    bool reload(Dice& dice);
    bool chooseSize(Dice& dice);
    bool chooseRate(Dice& dice);
    bool apply(Dice& dice);
    bool switchService(Dice& dice);
    bool wheelSomewhere(Dice& dice);
    bool clickSomewhere(Dice& dice);
    bool pressKey(Dice& dice);
    bool dragSomewhere(Dice& dice);
    bool resizeWindow(Dice& dice);
    bool wait(Dice& dice);
    bool watchStream(Dice& dice);
    bool changeCameras(Dice& dice);
    bool holdCamera(Dice& dice);
    bool restart(Dice& dice);

    bool pick(QComboBox* list, int index);
    bool press(const char* button);
    void observe();
    void note(const QString& line);
    QList<VirtualCamHandler*> rows() const;
    VirtualCamHandler* row(Dice& dice) const;
    QPoint place(Dice& dice) const;

    template <typename Widget>
    Widget* part(const char* name) const;

    World& world;
    const std::uint64_t seed;
    std::FILE* const journal;
    std::unique_ptr<AppGui> controller;
    MainWindow* window = nullptr;
    QMap<QString, int> happened;
    std::atomic<int> number{0};
    int last = 0;
    int busyLevel = 0;  // of the event loop in which the innermost action runs
    int baseLevel = 0;
};
