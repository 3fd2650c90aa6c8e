// SPDX-License-Identifier: Apache-2.0
// Shows the thread sanitizer an order of threads that libraries keep out of its sight, such as the
// wait for a thread's end or a lock of GLib. Nothing of it is in a program without the sanitizer.
#pragma once

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace threadsanitizer {

#ifdef __SANITIZE_THREAD__

/// What this thread did so far comes before whatever follows an acquire() of the same address.
inline void release(const void* address)
{
    __tsan_release(const_cast<void*>(address));
}

inline void acquire(const void* address)
{
    __tsan_acquire(const_cast<void*>(address));
}

#else

inline void release(const void*) {}
inline void acquire(const void*) {}

#endif

}  // namespace threadsanitizer
