// SPDX-License-Identifier: Apache-2.0
// What the library shows; everything else is built with hidden visibility.
#pragma once

#define TQ_KOR_API __attribute__((visibility("default")))
#define TQ_KOR_PRIVATE __attribute__((visibility("hidden")))
