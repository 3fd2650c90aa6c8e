// SPDX-License-Identifier: Apache-2.0
// One camera, one user: the lock of an opened camera.
#pragma once

#include <string>

#include "tq_kor/types.h"

namespace tq {

/// An exclusive lock on /dev/shm/tq_local_<serial>. The system releases it when the process ends,
/// however it ends; the file stays. Two locks of one process exclude each other too.
class CameraLock {
public:
    CameraLock() = default;
    ~CameraLock() { release(); }
    CameraLock(const CameraLock&) = delete;
    CameraLock& operator=(const CameraLock&) = delete;

    /// @param reason one line when the result is CAMERA_LOCK_FAILED
    /// @return SUCCESS, CAMERA_BUSY or CAMERA_LOCK_FAILED
    ErrorCode acquire(int serial, std::string& reason);

    void release();

    /// Whether somebody holds the lock. Creates no file and does not disturb who wants the lock.
    static bool isHeld(int serial);

    static std::string path(int serial);

private:
    int descriptor = -1;
};

}  // namespace tq
