// SPDX-License-Identifier: Apache-2.0
// Command line of vistrel-receive.
#include "tools/receive/options.h"

#include <getopt.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace receive {

namespace {

constexpr const char* kHelp =
    R"(Usage: vistrel-receive [OPTION]... rtsp://[USER:PASSWORD@]HOST:PORT/stereo

Receives a virtual stereo camera and shows a status line per second: serial
number, size, frames per second, bit rate of the video, latency from capture to
decoded picture, frames lost, IMU packets per second, and each eye.

Output:
  -s, --snapshot FILE   write the first stereo picture as PNG
  -r, --record FILE     record the video as Matroska, not coded anew
  -i, --imu FILE        write every IMU packet as a line of CSV
  -j, --json FILE       write statistics as JSON when done; - is standard output
  -q, --quiet           show no status lines

When to end:
  -n, --frames N        after N frames
  -d, --duration SEC    after SEC seconds, 0: no limit
  -t, --timeout SEC     when no frame came for SEC seconds (default 10,
                        0: never)

Transport:
      --tcp             media through the RTSP connection instead of UDP
      --jitter MS       wait MS milliseconds for a missing packet (default 200)
      --no-decode       do not decode: no latency to the picture, no eyes
                        (the latency shown is that of the received frame); not
                        with --snapshot

  -h, --help            show this help
      --version         show the version

The latency compares the capture time with the clock of this machine, so on
another machine than the sender's both clocks must be synchronised.

Exit status:
  0  frames came, with --frames all of them
  1  no frame came, or fewer than --frames asks for
  2  wrong use
  3  a file cannot be written

Interrupt (Ctrl-C) and SIGTERM end it cleanly, files are completed.
)";

enum LongOnly { OPTION_TCP = 1000, OPTION_JITTER, OPTION_NO_DECODE, OPTION_VERSION };

const option kLongOptions[] = {{"snapshot", required_argument, nullptr, 's'},
                               {"record", required_argument, nullptr, 'r'},
                               {"imu", required_argument, nullptr, 'i'},
                               {"json", required_argument, nullptr, 'j'},
                               {"quiet", no_argument, nullptr, 'q'},
                               {"frames", required_argument, nullptr, 'n'},
                               {"duration", required_argument, nullptr, 'd'},
                               {"timeout", required_argument, nullptr, 't'},
                               {"tcp", no_argument, nullptr, OPTION_TCP},
                               {"jitter", required_argument, nullptr, OPTION_JITTER},
                               {"no-decode", no_argument, nullptr, OPTION_NO_DECODE},
                               {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, OPTION_VERSION},
                               {nullptr, 0, nullptr, 0}};

bool wrong(const std::string& reason)
{
    std::fprintf(stderr, "vistrel-receive: %s\nTry 'vistrel-receive --help'.\n", reason.c_str());
    return false;
}

/// Reads a number of the given range that fills the whole text.
bool readNumber(const char* name, const char* text, double least, double most, double& value)
{
    char* end = nullptr;
    value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= least && value <= most)) {
        return wrong(std::string("--") + name + ": '" + text + "' is not a number from " +
                     std::to_string(static_cast<long>(least)) + " to " +
                     std::to_string(static_cast<long>(most)));
    }
    return true;
}

bool readInteger(const char* name, const char* text, double least, double most, double& value)
{
    if (!readNumber(name, text, least, most, value)) {
        return false;
    }
    return value == std::floor(value) ||
           wrong(std::string("--") + name + ": '" + text + "' is not a whole number");
}

bool applyNumber(int code, Options& options)
{
    double value = 0;
    switch (code) {
        case 'n':
            if (!readInteger("frames", optarg, 1, 1e9, value)) {
                return false;
            }
            options.frames = static_cast<std::uint64_t>(value);
            return true;
        case 'd': return readNumber("duration", optarg, 0, 1e9, options.duration);
        case 't': return readNumber("timeout", optarg, 0, 1e9, options.timeout);
        default:
            if (!readInteger("jitter", optarg, 0, 60000, value)) {
                return false;
            }
            options.jitterBuffer = static_cast<int>(value);
            return true;
    }
}

/// Takes one option; false when it is wrong.
bool apply(int code, Options& options)
{
    switch (code) {
        case 's': options.snapshot = optarg; return true;
        case 'r': options.recording = optarg; return true;
        case 'i': options.imuFile = optarg; return true;
        case 'j': options.statistics = optarg; return true;
        case 'q': options.quiet = true; return true;
        case OPTION_TCP: options.tcp = true; return true;
        case OPTION_NO_DECODE: options.decode = false; return true;
        case 'n':
        case 'd':
        case 't':
        case OPTION_JITTER: return applyNumber(code, options);
        default: std::fprintf(stderr, "Try 'vistrel-receive --help'.\n"); return false;
    }
}

bool checkUrl(int argc, char** argv, Options& options)
{
    if (optind + 1 != argc) {
        return wrong(optind == argc ? "the address of a stream is missing"
                                    : "one address is expected");
    }
    options.url = argv[optind];
    if (options.url.rfind("rtsp://", 0) != 0) {
        return wrong("'" + withoutCredentials(options.url) + "' does not begin with rtsp://");
    }
    if (!options.snapshot.empty() && !options.decode) {
        return wrong("--snapshot needs decoding");
    }
    return true;
}

}  // namespace

ParseResult parseOptions(int argc, char** argv, Options& options)
{
    for (int code = 0;
         (code = getopt_long(argc, argv, "s:r:i:j:qn:d:t:h", kLongOptions, nullptr)) != -1;) {
        if (code == 'h') {
            std::fputs(kHelp, stdout);
            return ParseResult::EXIT;
        }
        if (code == OPTION_VERSION) {
            std::puts("vistrel-receive " VISTREL_VERSION);
            return ParseResult::EXIT;
        }
        if (!apply(code, options)) {
            return ParseResult::USAGE;
        }
    }
    return checkUrl(argc, argv, options) ? ParseResult::RUN : ParseResult::USAGE;
}

std::string withoutCredentials(const std::string& url)
{
    const std::size_t scheme = url.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t host = url.find('/', begin);
    const std::size_t at = url.rfind('@', host);
    if (at == std::string::npos || at < begin) {
        return url;
    }
    return url.substr(0, begin) + url.substr(at + 1);
}

}  // namespace receive
