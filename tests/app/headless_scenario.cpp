// SPDX-License-Identifier: Apache-2.0
// Runs the headless controller on scripted cameras, as told on the command line:
//
//     app_headless_scenario RECORD [camera=ID,SERIAL,MODEL,RESULT[,STATE[,OWN]]]
//                           [imu=SERIAL,SEQUENCE,TIMESTAMP] [frame=SERIAL,TIMESTAMP,VALUE]
//                           [sender=PORT,RESULT] [await=PORT,FRAMES]
//
// Cameras are enumerated in the order given; RESULT is what setUp or the sender's open returns,
// STATE what the enumeration says, OWN the serial that the opened camera gives itself.
// Calls to the SDK are appended to the file RECORD as they happen, and so are the controller's
// pauses, which are not waited for, and the connections it makes. Once the controller stands, the
// cameras deliver the frames, and the event loop runs until every port named by await has got so
// many; what the senders got is printed, and the controller is destroyed.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>
#include <QThread>
#include <cstdio>
#include <memory>

#include "app/AppCLI.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/qtcalls.h"

namespace {

/// The numbers behind "name=" of one argument.
QVector<qulonglong> numbers(const QString& argument)
{
    QVector<qulonglong> values;
    for (const QString& word : argument.section(QLatin1Char('='), 1).split(QLatin1Char(','))) {
        values << word.toULongLong();
    }
    return values;
}

struct Awaited {
    int port;
    std::size_t frames;
};

struct Delivered {
    int serial;
    tq::Timestamp timestamp;
    std::uint8_t value;
};

/// What happens once the controller stands.
struct Script {
    QVector<Delivered> frames;
    QVector<Awaited> awaited;
};

Script prepare(const QStringList& arguments)
{
    Script script;
    for (const QString& argument : arguments) {
        const QVector<qulonglong> value = numbers(argument);
        const int first = static_cast<int>(value.at(0));
        if (argument.startsWith(QLatin1String("camera="))) {
            sdkfake::CameraSetup setup;
            setup.id = first;
            setup.serial = static_cast<int>(value.at(1));
            setup.model = static_cast<tq::MODEL>(value.at(2));
            setup.setUpResult = static_cast<int>(value.at(3));
            setup.state = static_cast<tq::DeviceState>(value.value(4));
            if (value.size() > 5) {
                setup.ownSerial = static_cast<int>(value.at(5));
            }
            sdkfake::addCamera(setup);
        } else if (argument.startsWith(QLatin1String("imu="))) {
            sdkfake::pushImu(first, sdkfake::makeImuPacket(value.at(1), value.at(2)));
        } else if (argument.startsWith(QLatin1String("frame="))) {
            script.frames.append({first, value.at(1), static_cast<std::uint8_t>(value.at(2))});
        } else if (argument.startsWith(QLatin1String("sender="))) {
            sdkfake::setSenderResult(first, static_cast<int>(value.at(1)));
        } else if (argument.startsWith(QLatin1String("await="))) {
            script.awaited.append({first, value.at(1)});
        } else {
            qFatal("unknown argument %s", qPrintable(argument));
        }
    }
    return script;
}

bool play(const Script& script)
{
    for (const Delivered& frame : script.frames) {
        sdkfake::pushFrame(frame.serial, frame.timestamp, frame.value);
    }
    QElapsedTimer timer;
    timer.start();
    for (const Awaited& goal : script.awaited) {
        while (sdkfake::senderOnPort(goal.port).frames.size() < goal.frames) {
            if (timer.elapsed() > 10000) {
                return false;
            }
            QCoreApplication::processEvents();
            QThread::usleep(200);
        }
    }
    return true;
}

void printSenders()
{
    for (const sdkfake::Sender& sender : sdkfake::senders()) {
        for (const auto& frame : sender.frames) {
            std::printf("port %d: frame %llu left %d right %d\n", sender.port(),
                        static_cast<unsigned long long>(frame->timestamp), frame->pixels.front(),
                        frame->pixels.back());
        }
        std::printf("port %d: imu", sender.port());
        for (const tq::IMUPacket& packet : sender.imuPackets) {
            std::printf(" %llu", static_cast<unsigned long long>(packet.timestamp));
        }
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    std::FILE* const record = std::fopen(qPrintable(arguments.takeFirst()), "a");
    if (record == nullptr) {
        return 99;
    }
    sdkfake::mirrorCalls(record);
    qtcalls::record = record;
    const Script script = prepare(arguments);

    std::printf("begun\n");  // waits in the stream's buffer: the controller must not lose it
    auto controller = std::make_unique<AppCLI>(QString());
    std::fprintf(record, "started\n");
    std::fflush(record);
    if (!play(script)) {
        std::printf("frames are missing\n");
    }
    printSenders();
    controller.reset();
    std::printf("destroyed\n");
    for (const std::string& misuse : sdkfake::misuses()) {
        std::printf("misuse: %s\n", misuse.c_str());
    }
    return 0;
}
