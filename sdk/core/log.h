// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK: whole lines on standard error.
#pragma once

#include <string>

namespace tq {

/// Writes "[tq_kor] ", the text and a line break in one piece, cut at 4096 bytes. Line breaks and
/// other white space within the text become blanks, other characters that a terminal does not show
/// "\u" and their code, broken UTF-8 replacement characters. Never waits: while standard error
/// takes nothing (a pipe that nobody reads), lines are lost, and the next one that is written says
/// how many. Any thread.
void logLine(const std::string& text);

}  // namespace tq
