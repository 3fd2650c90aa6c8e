// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK.
#include "sdk/core/log.h"

#include <algorithm>
#include <cstdio>

namespace tq {

void logLine(const std::string& text)
{
    std::string line = "[tq_kor] " + text;
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    line += '\n';
    // In one piece, so that lines of several threads and processes do not mix.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace tq
