// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK.
#include "sdk/core/log.h"

#include <glib.h>

#include <array>
#include <cstdio>
#include <memory>

namespace tq {

namespace {

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

}  // namespace

void logLine(const std::string& text)
{
    const std::string line = "[tq_kor] " + harmless(text) + '\n';
    // In one piece, so that lines of several threads and processes do not mix.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace tq
