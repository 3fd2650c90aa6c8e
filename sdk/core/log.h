// SPDX-License-Identifier: Apache-2.0
// The log of the camera SDK: whole lines on standard error.
#pragma once

#include <string>

namespace tq {

/// Writes "[tq_kor] ", the text and a line break in one piece. Line breaks and other white space
/// within the text become blanks, other characters that a terminal does not show "\u" and their
/// code, broken UTF-8 replacement characters. Any thread.
void logLine(const std::string& text);

}  // namespace tq
