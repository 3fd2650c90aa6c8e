// SPDX-License-Identifier: Apache-2.0
// Camera locks on files in shared memory.
#include "sdk/camera/cameralock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace tq {

namespace {

constexpr mode_t kForEveryone = 0666;
constexpr int kFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr int kAttempts = 10;
constexpr std::chrono::milliseconds kBetweenAttempts{2};
// An enumeration holds a shared lock for some microseconds, or for as long as a busy machine halts
// it meanwhile.
constexpr std::chrono::seconds kForEnumerations{2};

// For reading, which is enough to lock it.
int openExisting(const std::string& path)
{
    return ::open(path.c_str(), O_RDONLY | kFlags);
}

// O_CREAT is given only when the file is missing: with it, the kernel refuses files of other users
// in a sticky folder.
int openOrCreate(const std::string& path)
{
    int descriptor = openExisting(path);
    if (descriptor < 0 && errno == ENOENT) {
        descriptor = ::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | kFlags, kForEveryone);
        if (descriptor >= 0) {
            // The umask must not keep other users out.
            (void)::fchmod(descriptor, kForEveryone);
        }
    }
    return descriptor;
}

bool isRegularFile(int descriptor)
{
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

/// Whether the path still names the opened file: somebody may have removed it meanwhile.
bool isCurrent(int descriptor, const std::string& path)
{
    struct stat opened {};
    struct stat named {};
    return ::fstat(descriptor, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// Whether those who hold the lock only look at it.
bool isShared(int descriptor)
{
    if (::flock(descriptor, LOCK_SH | LOCK_NB) != 0) {
        return false;
    }
    ::flock(descriptor, LOCK_UN);
    return true;
}

/// A user is in the way at every one of some attempts; who enumerates cameras, much longer.
bool lockedWithin(int descriptor)
{
    const auto end = std::chrono::steady_clock::now() + kForEnumerations;
    int inUse = 0;
    while (inUse < kAttempts && std::chrono::steady_clock::now() < end) {
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        inUse += isShared(descriptor) ? 0 : 1;
        std::this_thread::sleep_for(kBetweenAttempts);
    }
    errno = EWOULDBLOCK;
    return false;
}

std::string failure(const std::string& path)
{
    return path + ": " + std::strerror(errno);
}

}  // namespace

std::string CameraLock::path(int serial)
{
    return "/dev/shm/tq_local_" + std::to_string(serial);
}

ErrorCode CameraLock::acquire(int serial, std::string& reason)
{
    release();
    const std::string file = path(serial);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int opened = openOrCreate(file);
        if (opened < 0 && errno == EEXIST) {
            continue;  // somebody made it in between
        }
        if (opened < 0) {
            reason = failure(file);
            return ErrorCode::CAMERA_LOCK_FAILED;
        }
        if (!isRegularFile(opened)) {
            ::close(opened);
            reason = file + ": is not a file";
            return ErrorCode::CAMERA_LOCK_FAILED;
        }
        if (!lockedWithin(opened)) {
            const bool busy = errno == EWOULDBLOCK;
            reason = failure(file);
            ::close(opened);
            return busy ? ErrorCode::CAMERA_BUSY : ErrorCode::CAMERA_LOCK_FAILED;
        }
        if (isCurrent(opened, file)) {
            descriptor = opened;
            return ErrorCode::SUCCESS;
        }
        ::close(opened);
    }
    reason = file + ": is made and removed again and again";
    return ErrorCode::CAMERA_LOCK_FAILED;
}

void CameraLock::release()
{
    if (descriptor >= 0) {
        // Explicitly, because a child that was just forked may still share the descriptor.
        ::flock(descriptor, LOCK_UN);
        ::close(descriptor);
        descriptor = -1;
    }
}

bool CameraLock::isHeld(int serial)
{
    const int opened = openExisting(path(serial));
    if (opened < 0) {
        return false;
    }
    const bool held = ::flock(opened, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (!held) {
        ::flock(opened, LOCK_UN);
    }
    ::close(opened);
    return held;
}

}  // namespace tq
