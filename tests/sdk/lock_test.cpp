// SPDX-License-Identifier: Apache-2.0
// Tests of the camera locks.
#include "sdk/camera/cameralock.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtTest>
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "tests/sdk/sdktesting.h"

using tq::CameraLock;
using tq::ErrorCode;

namespace {

/// A child process that holds a camera's lock until it is killed.
class Holder {
public:
    explicit Holder(int serial)
    {
        int ready[2];
        if (::pipe(ready) != 0) {
            qFatal("no pipe");
        }
        child = ::fork();
        if (child == 0) {
            CameraLock lock;
            std::string reason;
            const char answer = lock.acquire(serial, reason) == ErrorCode::SUCCESS ? 'y' : 'n';
            (void)!::write(ready[1], &answer, 1);
            while (true) {
                ::pause();
            }
        }
        char answer = 0;
        (void)!::read(ready[0], &answer, 1);
        held = answer == 'y';
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~Holder() { kill(); }

    void kill()
    {
        if (child > 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            child = 0;
        }
    }

    bool held = false;

private:
    pid_t child = 0;
};

}  // namespace

class LockTest : public QObject {
    Q_OBJECT

private slots:
    void init() { serial = serials.make(); }
    void lockIsExclusiveWithinAProcess();
    void lockIsExclusiveBetweenProcesses();
    void killedHolderLeavesNoStaleLock();
    void fileIsForTheGroup_data();
    void fileIsForTheGroup();
    void othersFindItTaken();
    void probingCreatesNothing();
    void probingDoesNotDisturb();
    void slowProbingDoesNotDisturb();
    void removedFileIsNotLockedInVain();
    void otherThingsInTheWayAreReported_data();
    void otherThingsInTheWayAreReported();
    void childrenDoNotKeepTheLock();

private:
    Serials serials;
    int serial = 0;
    std::string reason;
};

void LockTest::lockIsExclusiveWithinAProcess()
{
    CameraLock first;
    CameraLock second;
    QVERIFY(first.acquire(serial, reason) == ErrorCode::SUCCESS);
    QVERIFY(CameraLock::isHeld(serial));
    QVERIFY(second.acquire(serial, reason) == ErrorCode::CAMERA_BUSY);
    first.release();
    QVERIFY(!CameraLock::isHeld(serial));
    QVERIFY(second.acquire(serial, reason) == ErrorCode::SUCCESS);
}

void LockTest::lockIsExclusiveBetweenProcesses()
{
    const Holder holder(serial);
    QVERIFY(holder.held);
    CameraLock lock;
    QVERIFY(CameraLock::isHeld(serial));
    QVERIFY(lock.acquire(serial, reason) == ErrorCode::CAMERA_BUSY);
}

void LockTest::killedHolderLeavesNoStaleLock()
{
    for (int i = 0; i < 10; ++i) {
        Holder holder(serial);
        QVERIFY(holder.held);
        holder.kill();
        QVERIFY(!CameraLock::isHeld(serial));
    }
    QVERIFY2(QFile::exists(Serials::lockFile(serial)), "the file stays");
    CameraLock lock;
    QVERIFY(lock.acquire(serial, reason) == ErrorCode::SUCCESS);
}

void LockTest::fileIsForTheGroup_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<unsigned>("mode");
    const struct group* own = ::getgrgid(::getegid());
    QTest::newRow("of operators") << (own != nullptr ? own->gr_name : "") << 0660u;
    QTest::newRow("that does not exist") << "no-such-group" << 0666u;
}

void LockTest::fileIsForTheGroup()
{
    QFETCH(QString, group);
    QFETCH(unsigned, mode);
    if (group.isEmpty()) {
        QSKIP("the system's group database has no name for the group of this user");
    }
    const QString file = Serials::lockFile(serial);
    for (const bool isNew : {true, false}) {
        // A file of a former version is made right.
        QVERIFY(isNew || QFile::setPermissions(file, QFile::ReadOwner | QFile::ReadOther));
        const mode_t before = ::umask(077);
        CameraLock lock(group.toStdString());
        const ErrorCode code = lock.acquire(serial, reason);
        ::umask(before);
        QVERIFY(code == ErrorCode::SUCCESS);
        struct stat status {};
        QCOMPARE(::stat(qPrintable(file), &status), 0);
        QCOMPARE(status.st_mode & 07777u, mode);
        QCOMPARE(status.st_gid, ::getegid());
    }
}

void LockTest::othersFindItTaken()
{
    CameraLock lock("root");
    QVERIFY(lock.acquire(serial, reason) == ErrorCode::SUCCESS);
    lock.release();
    QVERIFY(!CameraLock::isHeld(serial));
    const pid_t child = ::fork();
    if (child == 0) {
        // Root may open everything, and becomes somebody else; others take the right from
        // themselves.
        const bool other =
            ::geteuid() == 0
                ? ::setgroups(0, nullptr) == 0 && ::setgid(65534) == 0 && ::setuid(65534) == 0
                : ::chmod(qPrintable(Serials::lockFile(serial)), 0) == 0;
        CameraLock others;
        const bool failed = others.acquire(serial, reason) == ErrorCode::CAMERA_LOCK_FAILED;
        ::_exit(other && failed && CameraLock::isHeld(serial) ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    QCOMPARE(status, 0);
}

void LockTest::probingCreatesNothing()
{
    QVERIFY(!CameraLock::isHeld(serial));
    QVERIFY(!QFile::exists(Serials::lockFile(serial)));
}

void LockTest::probingDoesNotDisturb()
{
    std::atomic<bool> stop{false};
    std::thread prober([&] {
        while (!stop) {
            CameraLock::isHeld(serial);
        }
    });
    int failures = 0;
    for (int i = 0; i < 300; ++i) {
        CameraLock lock;
        failures += lock.acquire(serial, reason) == ErrorCode::SUCCESS ? 0 : 1;
    }
    stop = true;
    prober.join();
    QCOMPARE(failures, 0);
}

// The machine may halt whoever enumerates cameras for much longer than it takes to look.
void LockTest::slowProbingDoesNotDisturb()
{
    CameraLock lock;
    QVERIFY(lock.acquire(serial, reason) == ErrorCode::SUCCESS);
    lock.release();
    const int probe = ::open(qPrintable(Serials::lockFile(serial)), O_RDONLY | O_CLOEXEC);
    QVERIFY(probe >= 0);
    QCOMPARE(::flock(probe, LOCK_SH), 0);
    std::thread prober([probe] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ::close(probe);
    });
    const ErrorCode code = lock.acquire(serial, reason);
    prober.join();
    QVERIFY(code == ErrorCode::SUCCESS);
}

void LockTest::removedFileIsNotLockedInVain()
{
    CameraLock first;
    QVERIFY(first.acquire(serial, reason) == ErrorCode::SUCCESS);
    first.release();
    QVERIFY(QFile::remove(Serials::lockFile(serial)));
    QVERIFY(first.acquire(serial, reason) == ErrorCode::SUCCESS);
    QVERIFY(CameraLock::isHeld(serial));
}

void LockTest::otherThingsInTheWayAreReported_data()
{
    QTest::addColumn<QString>("thing");
    QTest::newRow("folder") << "folder";
    QTest::newRow("link") << "link";
    QTest::newRow("pipe") << "pipe";
}

void LockTest::otherThingsInTheWayAreReported()
{
    QFETCH(QString, thing);
    const QString path = Serials::lockFile(serial);
    if (thing == "folder") {
        QVERIFY(QDir().mkdir(path));
    } else if (thing == "link") {
        QVERIFY(QFile::link("/dev/shm/kor_lock_test_target", path));
    } else {
        QCOMPARE(::mkfifo(qPrintable(path), 0600), 0);
    }
    CameraLock lock;
    const ErrorCode code = lock.acquire(serial, reason);
    QVERIFY(!CameraLock::isHeld(serial));
    if (thing == "folder") {
        QVERIFY(QDir().rmdir(path));
    }
    QVERIFY(code == ErrorCode::CAMERA_LOCK_FAILED);
    QVERIFY2(QString::fromStdString(reason).startsWith(path + ": "), reason.c_str());
    QVERIFY(!QFile::exists("/dev/shm/kor_lock_test_target"));
}

void LockTest::childrenDoNotKeepTheLock()
{
    CameraLock lock;
    QVERIFY(lock.acquire(serial, reason) == ErrorCode::SUCCESS);
    const pid_t child = ::fork();
    if (child == 0) {
        while (true) {
            ::pause();
        }
    }
    lock.release();
    const bool held = CameraLock::isHeld(serial);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    QVERIFY(!held);
}

QTEST_GUILESS_MAIN(LockTest)
#include "lock_test.moc"
