// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK.
#include "sdk/core/log.h"

#include <glib.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>

namespace tq {

namespace {

constexpr const char* kPrefix = "[tq_kor] ";

/// What a terminal shows of a text: names and the contents of files may hold anything, also what
/// would make a terminal do something.
std::string harmless(const std::string& text)
{
    const std::unique_ptr<char, decltype(&g_free)> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())), g_free);
    std::string shown;
    const char* next = nullptr;
    for (const char* at = valid.get(); *at != '\0'; at = next) {
        next = g_utf8_next_char(at);
        const gunichar character = g_utf8_get_char(at);
        if (g_unichar_isprint(character) != FALSE) {
            shown.append(at, next);
        } else if (g_unichar_isspace(character) != FALSE) {
            shown += ' ';
        } else {
            std::array<char, 16> code{};
            std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(character));
            shown += code.data();
        }
    }
    return shown;
}

/// Writes a line in one piece, so that those of several threads and processes do not mix. Waits for
/// nobody: a pipe that has room takes this many bytes at once.
bool writeLine(std::string line)
{
    line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
    line += '\n';
    pollfd log{STDERR_FILENO, POLLOUT, 0};
    // A pipe whose reader is gone would end the program by a signal.
    return poll(&log, 1, 0) == 1 && log.revents == POLLOUT &&
           write(STDERR_FILENO, line.data(), line.size()) > 0;
}

}  // namespace

void logLine(const std::string& text)
{
    static std::mutex mutex;
    static std::uint64_t lost = 0;
    const std::string line = kPrefix + harmless(text);
    const std::lock_guard<std::mutex> lock(mutex);
    if (lost > 0 &&
        writeLine(kPrefix + std::to_string(lost) + " lines were lost: nobody read the log")) {
        lost = 0;
    }
    if (lost > 0 || !writeLine(line)) {
        ++lost;
    }
}

}  // namespace tq
