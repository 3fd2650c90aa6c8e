// SPDX-License-Identifier: Apache-2.0
// Operates another program's windows: mouse, keyboard and what the screen shows.
#include "tests/system/remotewindow.h"

#include <QGuiApplication>
#include <QPixmap>
#include <QProcess>
#include <QScreen>
#include <QSet>
#include <QTest>
#include <cstdlib>

#include "tests/support/sanitizers.h"

namespace {

constexpr int kLimitMs = kSanitized ? 300000 : 30000;
constexpr char kProgramClass[] = "kor_vistrel";

QSet<QString> visibleWindows()
{
    const QStringList found = xdotool({"search", "--onlyvisible", "--class", kProgramClass})
                                  .split('\n', Qt::SkipEmptyParts);
    return QSet<QString>(found.begin(), found.end());
}

}  // namespace

QString xdotool(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    process.waitForFinished(kLimitMs);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

QStringList windowsTitled(const QString& title)
{
    return xdotool({"search", "--onlyvisible", "--name", title}).split('\n', Qt::SkipEmptyParts);
}

bool RemoteWindow::activate() const
{
    return QTest::qWaitFor(
        [this] {
            if (xdotool({"getactivewindow"}) == window) {
                return true;
            }
            xdotool({"windowactivate", window});
            return false;
        },
        kLimitMs);
}

void RemoteWindow::click(QPoint position) const
{
    xdotool({"mousemove", "--window", window, QString::number(position.x()),
             QString::number(position.y()), "click", "1"});
}

void RemoteWindow::point(QPoint position) const
{
    xdotool({"mousemove", "--window", window, QString::number(position.x()),
             QString::number(position.y())});
}

bool RemoteWindow::choose(QPoint position, int index) const
{
    const QSet<QString> before = visibleWindows();
    click(position);
    if (!QTest::qWaitFor([&] { return visibleWindows().size() > before.size(); }, kLimitMs)) {
        return false;
    }
    pressKey(QStringLiteral("Home"));
    for (int i = 0; i < index; ++i) {
        pressKey(QStringLiteral("Down"));
    }
    pressKey(QStringLiteral("Return"));
    return QTest::qWaitFor([&] { return visibleWindows() == before; }, kLimitMs);
}

void RemoteWindow::enter(QPoint position, const QString& text) const
{
    click(position);
    xdotool({"key", "ctrl+a"});
    xdotool({"type", text});
    xdotool({"key", "Tab"});
}

QImage RemoteWindow::grab(QRect area) const
{
    return QGuiApplication::primaryScreen()
        ->grabWindow(window.toULongLong(), area.x(), area.y(), area.width(), area.height())
        .toImage()
        .convertToFormat(QImage::Format_RGB32);
}

void pressKey(const QString& key)
{
    xdotool({"key", key});
}

double difference(const QImage& left, const QImage& right)
{
    if (left.size() != right.size() || left.isNull()) {
        return 255;
    }
    double sum = 0;
    for (int y = 0; y < left.height(); ++y) {
        for (int x = 0; x < left.width(); ++x) {
            const QRgb a = left.pixel(x, y);
            const QRgb b = right.pixel(x, y);
            sum += std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) +
                   std::abs(qBlue(a) - qBlue(b));
        }
    }
    return sum / (3.0 * left.width() * left.height());
}
