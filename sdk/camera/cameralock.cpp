// SPDX-License-Identifier: Apache-2.0
// Camera locks on files in shared memory.
#include "sdk/camera/cameralock.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

namespace tq {

namespace {

constexpr mode_t kForOwner = 0600;
constexpr mode_t kForGroup = 0660;
constexpr mode_t kForEveryone = 0666;
constexpr mode_t kModeBits = 07777;
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
        descriptor = ::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | kFlags, kForOwner);
    }
    return descriptor;
}

std::optional<gid_t> groupId(const std::string& name)
{
    std::vector<char> texts(16384);
    struct group entry {};
    struct group* found = nullptr;
    const int error = ::getgrnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found);
    return error == 0 && found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

/// Lets those take the lock of an own file who may, whatever the umask or a former version says. A
/// user who is not in the group cannot give it the file, and keeps it.
void setRights(int descriptor, std::optional<gid_t> group)
{
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || status.st_uid != ::geteuid()) {
        return;
    }
    if (group && status.st_gid != *group) {
        (void)!::fchown(descriptor, static_cast<uid_t>(-1), *group);
    }
    const mode_t mode = group ? kForGroup : kForEveryone;
    if ((status.st_mode & kModeBits) != mode) {
        (void)::fchmod(descriptor, mode);
    }
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
    const std::optional<gid_t> operators = groupId(group);
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
        setRights(opened, operators);
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
        return errno == EACCES;
    }
    const bool held =
        isRegularFile(opened) && ::flock(opened, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (!held) {
        ::flock(opened, LOCK_UN);
    }
    ::close(opened);
    return held;
}

}  // namespace tq
