// SPDX-License-Identifier: Apache-2.0
// A random operator of the window: clicks, keys and wheel turns from a seed.
#include "tests/endurance/operator.h"

#include <QApplication>
#include <QComboBox>
#include <QEventLoop>
#include <QFile>
#include <QLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <numeric>

#include "app/virtualcameraconfig.h"
#include "tests/endurance/hands.h"
#include "tests/support/qtcalls.h"
#include "tests/ui/messageboxes.h"
#include "ui/camerawidget.h"
#include "ui/mainwindow.h"
#include "ui/virtualcamhandler.h"

namespace {

constexpr int kManyRows = 8;
constexpr int kFrameMs = 40;

int eventLoopLevel()
{
    return QThread::currentThread()->loopLevel();
}

MainWindow* shownWindow()
{
    const QWidgetList widgets = QApplication::topLevelWidgets();
    for (QWidget* const widget : widgets) {
        if (auto* const window = qobject_cast<MainWindow*>(widget)) {
            return window;
        }
    }
    return nullptr;
}

// A text with its numbers left out, to count its kind.
QString kindOf(QString text)
{
    return text.replace(QRegularExpression(QStringLiteral("[0-9]+")), QStringLiteral("N"))
        .simplified();
}

}  // namespace

Dice::Dice(std::uint64_t seed, int action)
{
    std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                           static_cast<std::uint32_t>(action)};
    engine.seed(sequence);
}

int Dice::below(int limit)
{
    return limit <= 0 ? 0 : static_cast<int>(engine() % static_cast<unsigned int>(limit));
}

const std::vector<Operator::Action>& Operator::actions()
{
    static const std::vector<Action> all{
        {"add", 60, &Operator::addRow},
        {"remove", 50, &Operator::removeRow},
        {"generate", 80, &Operator::generate},
        {"choose camera", 200, &Operator::chooseCamera},
        {"port", 30, &Operator::setPort},
        {"stream", 120, &Operator::stream},
        {"save", 25, &Operator::save},
        {"reload", 20, &Operator::reload},
        {"size", 25, &Operator::chooseSize},
        {"rate", 15, &Operator::chooseRate},
        {"apply", 30, &Operator::apply},
        {"service", 8, &Operator::switchService},
        {"wheel", 60, &Operator::wheelSomewhere},
        {"click", 110, &Operator::clickSomewhere},
        {"key", 130, &Operator::pressKey},
        {"drag", 20, &Operator::dragSomewhere},
        {"resize", 15, &Operator::resizeWindow},
        {"wait", 15, &Operator::wait},
        {"watch", 8, &Operator::watchStream},
        {"cameras", 8, &Operator::changeCameras},
        {"hold", 6, &Operator::holdCamera},
        {"restart", 3, &Operator::restart},
    };
    return all;
}

Operator::Operator(World& surroundings, std::uint64_t seedOfActions, std::FILE* journalFile)
    : world(surroundings), seed(seedOfActions), journal(journalFile)
{
}

// ---- The course of things ----------------------------------------------------------------------

void Operator::operate(int actions)
{
    last = number + actions;
    QEventLoop loop;
    connect(this, &Operator::finished, &loop, &QEventLoop::quit, Qt::QueuedConnection);
    QTimer::singleShot(0, this, [this] {
        baseLevel = eventLoopLevel();
        busyLevel = 0;
        schedule();
    });
    loop.exec();
}

void Operator::schedule()
{
    QTimer::singleShot(1, this, &Operator::step);
}

// Input is delivered by rounds of the event loop, in which the next action must not come: only a
// loop that the program runs itself, for a box or a menu, waits for one.
void Operator::step()
{
    const int level = eventLoopLevel();
    if (busyLevel >= level) {
        schedule();
        return;
    }
    if (number >= last && level == baseLevel && QApplication::activePopupWidget() == nullptr &&
        QApplication::activeModalWidget() == nullptr) {
        emit finished();
        return;
    }
    const int outer = std::exchange(busyLevel, level);
    schedule();
    if (number >= last) {
        finishPopups();
    } else {
        const int action = number++;
        qtcalls::connections.clear();
        act(Dice(seed, action));
    }
    busyLevel = outer;
}

void Operator::act(Dice dice)
{
    if (!controller && eventLoopLevel() == baseLevel) {
        start();
        return;
    }
    window = shownWindow();
    if (meetPopup(dice)) {
        return;
    }
    const auto sum = [](int weight, const Action& action) { return weight + action.weight; };
    static const int total = std::accumulate(actions().begin(), actions().end(), 0, sum);
    int roll = dice.below(total);
    const auto action = std::find_if(actions().begin(), actions().end(),
                                     [&](const Action& each) { return (roll -= each.weight) < 0; });
    note(QString::fromLatin1(action->name));
    if ((this->*action->act)(dice)) {
        ++happened[QStringLiteral("action: ") + QLatin1String(action->name)];
    }
    observe();
}

void Operator::start()
{
    note(QStringLiteral("start"));
    controller = std::make_unique<AppGui>();
    connect(controller.get(), &AppGui::StreamEnabled, this, [this](int, bool on) {
        ++happened[on ? QStringLiteral("streams started") : QStringLiteral("streams stopped")];
    });
    observe();
}

void Operator::end()
{
    window->close();
    controller.reset();
}

void Operator::note(const QString& line)
{
    std::fprintf(journal, "%d %s\n", number.load(), qPrintable(line));
    std::fflush(journal);
}

void Operator::keepMessage(const QString& text)
{
    note(QStringLiteral("| ") + text);
    if (QThread::currentThread() == thread()) {
        ++happened[QStringLiteral("log: ") + kindOf(text)];
    }
}

// Counts what becomes of the rows.
void Operator::observe()
{
    window = shownWindow();
    for (VirtualCamHandler* const row : rows()) {
        if (row->property("seen").isValid()) {
            continue;
        }
        row->setProperty("seen", true);
        ++happened[QStringLiteral("rows made")];
        connect(row, &QObject::destroyed, this,
                [this] { ++happened[QStringLiteral("rows removed")]; });
        const QList<QComboBox*> lists = row->findChildren<QComboBox*>();
        for (QComboBox* const list : lists) {
            list->setProperty("former", list->currentText());
            connect(list, &QComboBox::currentTextChanged, this, [this, list](const QString& text) {
                const bool was = !list->property("former").toString().isEmpty();
                if (!text.isEmpty()) {
                    ++happened[was ? QStringLiteral("cameras changed")
                                   : QStringLiteral("cameras chosen")];
                }
                list->setProperty("former", text);
            });
        }
    }
}

// ---- Boxes and lists that are in front ---------------------------------------------------------

bool Operator::meetPopup(Dice& dice)
{
    QWidget* const popup = QApplication::activePopupWidget();
    if (popup == nullptr) {
        QWidget* const box = QApplication::activeModalWidget();
        if (box != nullptr) {
            answer(box, dice);
        }
        return box != nullptr;
    }
    note(QStringLiteral("popup ") + QLatin1String(popup->metaObject()->className()));
    ++happened[QStringLiteral("popups met")];
    const int roll = dice.below(100);
    if (roll < 40) {
        hands::clickAt(
            popup, {dice.below(popup->width() + 20) - 10, dice.below(popup->height() + 20) - 10},
            Qt::LeftButton);
    } else if (roll < 75) {
        hands::key(popup, dice.chance(50) ? Qt::Key_Down : Qt::Key_Up);
        hands::key(popup, Qt::Key_Return);
    } else if (roll < 85) {
        hands::wheel(popup, popup->rect().center(), dice.below(7) - 3);
    } else {
        hands::key(popup, Qt::Key_Escape);
    }
    return true;
}

void Operator::answer(QWidget* widget, Dice& dice)
{
    const QPointer<QMessageBox> box = qobject_cast<QMessageBox*>(widget);
    if (box && !box->property("met").isValid()) {
        box->setProperty("met", true);
        note(QStringLiteral("box ") + box->text());
        ++happened[QStringLiteral("box: ") + kindOf(box->text())];
    }
    const int roll = dice.below(100);
    if (roll < 15 && window) {
        note(QStringLiteral("click behind the box"));
        hands::clickAt(window, place(dice), Qt::LeftButton);
    } else if (roll < 75 && box) {
        const QList<QAbstractButton*> buttons = box->buttons();
        hands::click(buttons.at(dice.below(buttons.size())));
    } else if (roll < 85) {
        hands::key(widget, Qt::Key_Return);
    } else if (roll < 95) {
        hands::key(widget, Qt::Key_Escape);
    } else {
        widget->close();
    }
}

void Operator::finishPopups()
{
    for (QWidget* const widget :
         {QApplication::activePopupWidget(), QApplication::activeModalWidget()}) {
        if (widget != nullptr) {
            hands::key(widget, Qt::Key_Escape);
            return;
        }
    }
}

// ---- Rows --------------------------------------------------------------------------------------

template <typename Widget>
Widget* Operator::part(const char* name) const
{
    return window->findChild<Widget*>(QLatin1String(name));
}

QList<VirtualCamHandler*> Operator::rows() const
{
    QList<VirtualCamHandler*> all;
    const QLayout* const layout = part<QLayout>("scrollAreaWidgetContentsVerticalLayout");
    for (int i = 0; i < layout->count(); ++i) {
        if (auto* const row = qobject_cast<VirtualCamHandler*>(layout->itemAt(i)->widget())) {
            all.append(row);
        }
    }
    return all;
}

VirtualCamHandler* Operator::row(Dice& dice) const
{
    const QList<VirtualCamHandler*> all = rows();
    return all.value(dice.below(all.size()));
}

bool Operator::press(const char* button)
{
    return hands::click(part<QAbstractButton>(button));
}

bool Operator::addRow(Dice& dice)
{
    return rows().size() < kManyRows + dice.below(kManyRows) && press("addVCamButton");
}

bool Operator::removeRow(Dice& dice)
{
    VirtualCamHandler* const chosen = row(dice);
    return chosen != nullptr &&
           hands::click(chosen->findChild<QWidget*>(QStringLiteral("RemoveButton")));
}

bool Operator::generate(Dice& dice)
{
    VirtualCamHandler* const chosen = row(dice);
    return chosen != nullptr &&
           hands::click(chosen->findChild<QWidget*>(QStringLiteral("VirtualSNGenerateButton")));
}

// Opens a list and takes an entry by keyboard.
bool Operator::pick(QComboBox* list, int index)
{
    if (!hands::click(list)) {
        return false;
    }
    QPointer<QWidget> popup = QApplication::activePopupWidget();
    if (popup) {
        hands::key(popup, Qt::Key_Home);
    }
    for (int i = 0; i < index && popup; ++i) {
        hands::key(popup, Qt::Key_Down);
    }
    if (popup) {
        hands::key(popup, Qt::Key_Return);
    }
    return true;
}

bool Operator::chooseCamera(Dice& dice)
{
    VirtualCamHandler* const chosen = row(dice);
    if (chosen == nullptr) {
        return false;
    }
    const char* const names[] = {"LeftSensorSNChoice", "RightSensorSNChoice"};
    const int side = dice.below(2);
    auto* const list = chosen->findChild<QComboBox*>(QLatin1String(names[side]));
    const auto* const other = chosen->findChild<QComboBox*>(QLatin1String(names[1 - side]));
    int index = dice.below(list->count());
    if (dice.chance(80) && index == other->currentIndex()) {
        index = (index + 1) % qMax(1, list->count());  // most operators know what they do
    }
    return pick(list, index);
}

bool Operator::setPort(Dice& dice)
{
    VirtualCamHandler* const chosen = row(dice);
    auto* const port =
        chosen == nullptr ? nullptr : chosen->findChild<QSpinBox*>(QStringLiteral("RTPPortChoice"));
    if (port == nullptr || !hands::click(port)) {
        return false;
    }
    switch (dice.below(4)) {
        case 0: hands::key(port, dice.chance(50) ? Qt::Key_Up : Qt::Key_Down); break;
        case 1: hands::wheel(window, hands::reach(port), dice.below(5) - 2); break;
        case 2: hands::type(port, QString::number(dice.below(100000))); break;
        default:
            hands::key(port, Qt::Key_A, Qt::ControlModifier);
            hands::type(port, QString::number(34000 + 10 * dice.below(kManyRows)));
            hands::key(port, Qt::Key_Return);
    }
    return true;
}

bool Operator::stream(Dice& dice)
{
    VirtualCamHandler* const chosen = row(dice);
    return chosen != nullptr &&
           hands::click(chosen->findChild<QWidget*>(QStringLiteral("TestButton")));
}

// ---- The window --------------------------------------------------------------------------------

bool Operator::save(Dice&)
{
    return press("ApplyButton");
}

bool Operator::reload(Dice&)
{
    return press("ReloadCamButton");
}

bool Operator::chooseSize(Dice& dice)
{
    auto* const list = part<QComboBox>("ResolutionComboBox");
    return pick(list, dice.below(list->count()));
}

bool Operator::chooseRate(Dice& dice)
{
    auto* const list = part<QComboBox>("FPSComboBox");
    return pick(list, dice.below(list->count()));
}

bool Operator::apply(Dice&)
{
    return press("ApplyResFPSButton");
}

bool Operator::switchService(Dice& dice)
{
    world.allowService(dice.chance(70));
    return press("toggleDaemonButton");
}

QPoint Operator::place(Dice& dice) const
{
    return {dice.below(window->width()), dice.below(window->height())};
}

bool Operator::wheelSomewhere(Dice& dice)
{
    const QPoint position = place(dice);
    hands::wheel(window, position, dice.below(9) - 4);
    return true;
}

bool Operator::clickSomewhere(Dice& dice)
{
    const QPoint position = place(dice);
    const int roll = dice.below(10);
    hands::clickAt(window, position,
                   roll < 6   ? Qt::LeftButton
                   : roll < 9 ? Qt::RightButton
                              : Qt::MiddleButton);
    return true;
}

bool Operator::pressKey(Dice& dice)
{
    static const QList<Qt::Key> keys{
        Qt::Key_Tab,    Qt::Key_Tab,       Qt::Key_Backtab, Qt::Key_Return, Qt::Key_Space,
        Qt::Key_Space,  Qt::Key_Escape,    Qt::Key_Up,      Qt::Key_Down,   Qt::Key_Left,
        Qt::Key_Right,  Qt::Key_Home,      Qt::Key_End,     Qt::Key_PageUp, Qt::Key_PageDown,
        Qt::Key_Delete, Qt::Key_Backspace, Qt::Key_F4,      Qt::Key_Menu,   Qt::Key_0,
        Qt::Key_3,      Qt::Key_A,         Qt::Key_V,       Qt::Key_Z};
    const Qt::Key chosen = keys.at(dice.below(keys.size()));
    const bool control = dice.chance(10);
    const bool shift = dice.chance(10);
    hands::key(window, chosen,
               Qt::KeyboardModifiers(control ? Qt::ControlModifier : Qt::NoModifier) |
                   (shift ? Qt::ShiftModifier : Qt::NoModifier));
    return true;
}

bool Operator::dragSomewhere(Dice& dice)
{
    const QPoint from = place(dice);
    hands::drag(window, from, place(dice));
    return true;
}

bool Operator::resizeWindow(Dice& dice)
{
    const int width = 500 + dice.below(1000);
    window->resize(width, 500 + dice.below(500));
    return true;
}

// Frames come, previews are drawn.
bool Operator::wait(Dice& dice)
{
    QTest::qWait(kFrameMs * (1 + dice.below(4)));
    return true;
}

// ---- Surroundings ------------------------------------------------------------------------------

// Starts a receiver of a row that streams, else of any row.
bool Operator::watchStream(Dice& dice)
{
    const VirtualCamHandler* chosen = row(dice);
    for (const VirtualCamHandler* const row : rows()) {
        const auto* const button = row->findChild<QPushButton*>(QStringLiteral("TestButton"));
        if (button->text() == QLatin1String("Streaming...") && dice.chance(50)) {
            chosen = row;
        }
    }
    if (chosen == nullptr) {
        return false;
    }
    world.watch(static_cast<int>(chosen->getInfos().port));
    return true;
}

bool Operator::changeCameras(Dice& dice)
{
    world.connect(dice.chance(60) ? static_cast<World::Cameras>(dice.below(2))
                                  : static_cast<World::Cameras>(dice.below(World::kKinds)));
    return true;
}

bool Operator::holdCamera(Dice& dice)
{
    if (dice.chance(30)) {
        world.releaseAll();
    } else {
        world.toggleForeignUser(30100001 + dice.below(4));
    }
    return true;
}

bool Operator::restart(Dice&)
{
    if (eventLoopLevel() != baseLevel) {
        return false;
    }
    end();
    start();
    return true;
}

// ---- What any operator does --------------------------------------------------------------------

QString Operator::fixedScript()
{
    note(QStringLiteral("fixed script"));
    world.connect(World::TwoGs);
    world.releaseAll();
    world.allowService(true);
    const MessageBoxes boxes;
    if (!controller) {
        start();
    }
    window->resize(1384, 779);
    QTest::qWait(kFrameMs);
    press("ReloadCamButton");
    if (window->findChildren<CameraWidget*>().size() != 2) {
        return QStringLiteral("not two cameras after \"Reload\"");
    }
    for (int tries = 2 * rows().size(); tries > 0 && !rows().isEmpty(); --tries) {
        hands::click(rows().first()->findChild<QWidget*>(QStringLiteral("RemoveButton")));
        QTest::qWait(kFrameMs);  // the rows below move up
    }
    press("addVCamButton");
    observe();
    QTest::qWait(kFrameMs);
    if (rows().size() != 1) {
        return QStringLiteral("\"+\" made a row of %1").arg(rows().size());
    }
    VirtualCamHandler* const row = rows().first();
    QString trouble = makeRow(row);
    trouble = trouble.isEmpty() ? streamRow(row) : trouble;
    trouble = trouble.isEmpty() ? saveRow(row) : trouble;
    hands::click(row->findChild<QWidget*>(QStringLiteral("RemoveButton")));
    QTest::qWait(kFrameMs);
    return trouble;
}

QString Operator::makeRow(VirtualCamHandler* row)
{
    hands::click(row->findChild<QWidget*>(QStringLiteral("VirtualSNGenerateButton")));
    pick(row->findChild<QComboBox*>(QStringLiteral("LeftSensorSNChoice")), 0);
    pick(row->findChild<QComboBox*>(QStringLiteral("RightSensorSNChoice")), 1);
    const VirtualCameraInfos made = row->getInfos();
    const bool right = made.virtualSerialNumber > 100000000 && made.leftSerialNumber == 30100001 &&
                       made.rightSerialNumber == 30100002;
    return right ? QString() : QStringLiteral("the row does not show what was chosen");
}

QString Operator::streamRow(VirtualCamHandler* row)
{
    auto* const button = row->findChild<QPushButton*>(QStringLiteral("TestButton"));
    hands::click(button);
    if (button->text() != QLatin1String("Streaming...")) {
        return QStringLiteral("the row does not stream");
    }
    const bool received = World::receives(static_cast<int>(row->getInfos().port), 10);
    hands::click(button);
    return received ? QString() : QStringLiteral("a receiver got no frames");
}

QString Operator::saveRow(const VirtualCamHandler* row)
{
    const QString path = QString::fromLatin1(kVirtualCameraConfigPath);
    QFile::remove(path);
    press("ApplyButton");
    const QList<VirtualCameraInfos> saved =
        QFile::exists(path) ? readVirtualCameraConfig(path) : QList<VirtualCameraInfos>();
    const VirtualCameraInfos shown = row->getInfos();
    const bool right = saved.size() == 1 &&
                       saved.first().virtualSerialNumber == shown.virtualSerialNumber &&
                       saved.first().port == shown.port && saved.first().width > 0;
    return right ? QString() : QStringLiteral("the row was not saved");
}
