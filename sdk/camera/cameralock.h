// SPDX-License-Identifier: Apache-2.0
// One camera, one user: the lock of an opened camera.
#pragma once

#include <string>
#include <utility>

#include "tq_kor/types.h"

namespace tq {

/// An exclusive lock on /dev/shm/tq_local_<serial>. The system releases it when the process ends,
/// however it ends; the file stays. Two locks of one process exclude each other too. Where the
/// group of the operators exists, only it and the file's owner may take the lock: whoever may read
/// the file could keep the camera from all others.
class CameraLock {
public:
    /// @param operators who may take the lock besides the owner; everyone, where it does not exist
    explicit CameraLock(std::string operators = "kor") : group(std::move(operators)) {}
    ~CameraLock() { release(); }
    CameraLock(const CameraLock&) = delete;
    CameraLock& operator=(const CameraLock&) = delete;

    /// @param reason one line when the result is CAMERA_LOCK_FAILED
    /// @return SUCCESS, CAMERA_BUSY or CAMERA_LOCK_FAILED
    ErrorCode acquire(int serial, std::string& reason);

    void release();

    /// Whether somebody holds the lock, or this user may not take it. Creates no file and does not
    /// disturb who wants the lock.
    static bool isHeld(int serial);

    static std::string path(int serial);

private:
    const std::string group;
    int descriptor = -1;
};

}  // namespace tq
