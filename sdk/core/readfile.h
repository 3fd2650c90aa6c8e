// SPDX-License-Identifier: Apache-2.0
// Reading of whole files that somebody else has put there.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace tq {

/// The contents of a file, or the reason why there are none.
struct FileContents {
    std::optional<std::string> bytes;
    bool readableByAll = false;  ///< not the owner's and the group's alone
    std::string error;           ///< what is wrong, without the file's name

    explicit operator bool() const { return bytes.has_value(); }
};

/// Reads a regular file, or one that a link leads to. Anything else (a folder, a pipe, a device) is
/// refused without waiting for it. Any thread.
/// @param largest bytes; a larger file is refused and not read
FileContents readRegularFile(const std::string& path, std::size_t largest);

/// The words in which an operator is told that a secret file is readable by everybody.
std::string everybodyReads(const std::string& path);

}  // namespace tq
