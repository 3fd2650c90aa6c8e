// SPDX-License-Identifier: Apache-2.0
// Command line of vistrel-receive.
#pragma once

#include <cstdint>
#include <string>

#include "tools/receive/session.h"

namespace receive {

/// What the command line asks for.
struct Options {
    Source source;             ///< the stream, or the file
    std::string snapshot;      ///< PNG file, empty: none
    std::string recording;     ///< MPEG-TS or Matroska file, empty: none
    std::string aslFolder;     ///< empty: none
    std::string imuFile;       ///< CSV file, empty: none
    std::string statistics;    ///< JSON file, "-" for standard output, empty: none
    std::uint64_t frames = 0;  ///< end after so many frames, 0: no limit
    double duration = 0;       ///< end after so many seconds, 0: no limit
    double timeout = 10;       ///< end when no frame came for so many seconds
    unsigned memory = 512;     ///< end when more is in use, MB
    bool quiet = false;        ///< no status lines
};

/// As the help explains them.
enum ExitStatus { SUCCESS, NO_FRAMES, WRONG_USE, FILE_ERROR };

/// Reads the command line. Help, version and wrong use end the program.
Options parseOptions(int argc, char** argv);

/// The address without its user and password, for output.
std::string withoutCredentials(const std::string& url);

/// Text of anybody's as it may be shown on a terminal: what is not a printable character becomes a
/// question mark.
std::string printable(const std::string& text);

}  // namespace receive
