// SPDX-License-Identifier: Apache-2.0
// What a random operator works with and cannot see.
#include "tests/endurance/world.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

namespace {

constexpr int kFirstGs = 30100001;
constexpr int kFirstUhd = 31100001;
constexpr std::size_t kMostReceivers = 2;

QJsonObject camera(int serial, QJsonObject source)
{
    if (!source.contains("type")) {
        source["type"] = "simulated";
    }
    return {{"serial", serial},
            {"model", serial < kFirstUhd ? "KOR T Solo GS" : "KOR T Solo UHD"},
            {"source", source},
            {"imu", QJsonObject{{"type", "simulated"}}}};
}

QJsonObject pipeline(const char* description)
{
    return {{"type", "gstreamer"}, {"pipeline", description}, {"timeout", 1}};
}

QJsonArray cameras(int first, const QList<QJsonObject>& sources)
{
    QJsonArray all;
    for (const QJsonObject& source : sources) {
        all.append(camera(first + all.size(), source));
    }
    return all;
}

QJsonArray cameras(World::Cameras kind)
{
    const QJsonObject left{{"eye", "left"}};
    const QJsonObject right{{"eye", "right"}};
    switch (kind) {
        case World::TwoGs: return cameras(kFirstGs, {left, right});
        case World::FourGs: return cameras(kFirstGs, {left, right, left, right});
        case World::TwoUhd: return cameras(kFirstUhd, {left, right});
        case World::Faulty:
            return cameras(kFirstGs,
                           {{{"phase", 9000}},
                            {{"deathAfter", 0.5}},
                            {{"stall", QJsonObject{{"at", 0.2}, {"for", 0.5}}}, {"jitter", 4000}},
                            {{"drop", 0.3}, {"drift", 900}}});
        case World::Pipelines:
            return cameras(kFirstGs,
                           {pipeline("videotestsrc is-live=true num-buffers=30"),
                            pipeline("videotestsrc is-live=true"), pipeline("nosuchelement")});
        case World::Mixed:
            return {camera(kFirstGs, left), camera(kFirstUhd, right), camera(kFirstGs + 1, left)};
        default: return {};
    }
}

QStringList receiverArguments(int port, int frames)
{
    return {QStringLiteral("--quiet"), QStringLiteral("--frames"),
            QString::number(frames),   QStringLiteral("--timeout"),
            QStringLiteral("10"),      QStringLiteral("rtsp://127.0.0.1:%1/stereo").arg(port)};
}

}  // namespace

World::World()
{
    qputenv("KOR_RIG", folder.filePath(QStringLiteral("rig.json")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", folder.filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("HOME", folder.path().toLocal8Bit());
    standIns.answer("systemctl", "disabled\n", "", 1);
    allowService(true);
    standIns.install();
    connect(TwoGs);
}

World::~World()
{
    releaseAll();
    for (const auto& receiver : receivers) {
        receiver->kill();
        receiver->waitForFinished();
    }
}

void World::connect(Cameras cameras)
{
    QByteArray text = QJsonDocument(QJsonObject{{"cameras", ::cameras(cameras)}}).toJson();
    if (cameras == Malformed) {
        text.truncate(10);
    }
    sandbox::writeFile(folder.filePath(QStringLiteral("rig.json")), text);
}

void World::toggleForeignUser(int serial)
{
    if (held.contains(serial)) {
        close(held.take(serial));
        return;
    }
    const QByteArray path = "/dev/shm/tq_local_" + QByteArray::number(serial);
    const int file = open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
    if (file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0) {
        held.insert(serial, file);
    } else if (file >= 0) {
        close(file);
    }
}

void World::releaseAll()
{
    for (const int file : qAsConst(held)) {
        close(file);
    }
    held.clear();
}

void World::allowService(bool allowed)
{
    // "enable" and "disable" change what systemctl answers.
    standIns.script("sudo", allowed ? "case $2 in\n"
                                      "enable) echo enabled >\"$answers/systemctl.out\" ;;\n"
                                      "disable) echo disabled >\"$answers/systemctl.out\" ;;\n"
                                      "esac\n"
                                    : "exit 1\n");
}

void World::watch(int port)
{
    receivers.erase(std::remove_if(receivers.begin(), receivers.end(),
                                   [this](const std::unique_ptr<QProcess>& receiver) {
                                       const bool ended = receiver->state() == QProcess::NotRunning;
                                       satisfied += ended && receiver->exitCode() == 0 ? 1 : 0;
                                       return ended;
                                   }),
                    receivers.end());
    if (receivers.size() >= kMostReceivers) {
        return;
    }
    receivers.push_back(std::make_unique<QProcess>());
    receivers.back()->start(VISTREL_RECEIVE, receiverArguments(port, 5));
}

bool World::receives(int port, int frames)
{
    QProcess receiver;
    receiver.setProcessChannelMode(QProcess::ForwardedChannels);
    QEventLoop loop;
    QObject::connect(&receiver, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished),
                     &loop, &QEventLoop::quit);
    receiver.start(VISTREL_RECEIVE, receiverArguments(port, frames));
    loop.exec();
    return receiver.exitCode() == 0;
}
