// SPDX-License-Identifier: Apache-2.0
// Command line of vistrel-receive.
#pragma once

#include <cstdint>
#include <string>

namespace receive {

/// What the command line asks for.
struct Options {
    std::string url;
    std::string snapshot;      ///< PNG file, empty: none
    std::string recording;     ///< Matroska file, empty: none
    std::string imuFile;       ///< CSV file, empty: none
    std::string statistics;    ///< JSON file, "-" for standard output, empty: none
    std::uint64_t frames = 0;  ///< end after so many frames, 0: no limit
    double duration = 0;       ///< end after so many seconds, 0: no limit
    double timeout = 10;       ///< end when no frame came for so many seconds
    unsigned memory = 512;     ///< end when more is in use, MB
    unsigned jitter = 200;     ///< how long a missing packet is waited for, ms
    bool tcp = false;          ///< media through the RTSP connection
    std::string authorities;   ///< PEM file of the authorities to trust, empty: the system's
    bool insecure = false;     ///< accept any certificate
    bool decode = true;
    bool quiet = false;  ///< no status lines

    /// Whether the stream comes by TLS, its media included.
    bool isSecure() const { return url.rfind("rtsps://", 0) == 0; }
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
