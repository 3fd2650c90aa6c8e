// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK.
#include "sdk/core/log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tq {

void logLine(const std::string& text)
{
    std::string line = "[tq_kor] " + text;
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    line += '\n';
    // One write per line, so that lines of several threads and processes do not mix.
    const char* rest = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, rest, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        rest += written;
        left -= static_cast<std::size_t>(written);
    }
}

}  // namespace tq
