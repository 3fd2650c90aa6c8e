// SPDX-License-Identifier: Apache-2.0
// Which sanitizer a test runs under, where that changes what can be measured.
#pragma once

#if defined(__has_feature)
#define VISTREL_HAS_FEATURE(feature) __has_feature(feature)
#else
#define VISTREL_HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || VISTREL_HAS_FEATURE(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

/// It also loses track of a thread that is cancelled: whatever such a thread touched is reported.
#if defined(__SANITIZE_THREAD__) || VISTREL_HAS_FEATURE(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

/// Memory and speed are not the program's own.
constexpr bool kSanitized = kAddressSanitizer || kThreadSanitizer;
