// SPDX-License-Identifier: Apache-2.0
// Command line of vistrel-receive.
#include "tools/receive/options.h"

#include <getopt.h>
#include <glib.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace receive {

namespace {

constexpr const char* kHelp =
    R"(Usage: vistrel-receive [OPTION]... rtsp[s]://[USER:PASSWORD@]HOST:PORT/stereo
       vistrel-receive [OPTION]... FILE.ts

Receives a virtual stereo camera and shows a status line per second: serial
number, size, frames per second, bit rate of the video, latency from capture to
decoded picture, frames lost, IMU packets per second, the most time between the
eyes of cameras that run freely, and each eye. Or reads what was recorded to
FILE.ts, as fast as it can, with a status line per second of it.

Output:
  -s, --snapshot FILE   write the first stereo picture as PNG
  -r, --record FILE     record, the video not coded anew: FILE.ts is MPEG-TS
                        with the data (exact times, IMU) as KLV, any other
                        Matroska with the video only
  -a, --asl DIR         write pictures and IMU data as a folder in the ASL layout,
                        DIR/mav0 (cam0, cam1, imu0): grey PNG, exact times
  -i, --imu FILE        write every IMU packet as a line of CSV
  -j, --json FILE       write statistics as JSON when done; - is standard output
  -q, --quiet           show no status lines

When to end:
  -n, --frames N        after N frames
  -d, --duration SEC    after SEC seconds, 0: no limit
  -t, --timeout SEC     when no frame came for SEC seconds (default 10,
                        0: never)
      --memory MB       when the sender makes this program use more than MB
                        megabytes (default 512)

Transport:
      --tcp             media through the RTSP connection instead of UDP;
                        always so with rtsps://
      --ca FILE         trust the authorities in this PEM file instead of the
                        system's; for rtsps:// only
      --insecure        accept any certificate: nobody can listen in, but the
                        sender may be anybody; for rtsps:// only
      --jitter MS       wait MS milliseconds for a missing packet (default 200)
      --no-decode       do not decode: no latency to the picture, no eyes
                        (the latency shown is that of the received frame); not
                        with --snapshot and --asl

  -h, --help            show this help
      --version         show the version

The latency compares the capture time with the clock of this machine, so on
another machine than the sender's both clocks must be synchronised.

Exit status:
  0  frames came, with --frames all of them
  1  no frame came, or fewer than --frames asks for
  2  wrong use
  3  a file cannot be written, whether frames came or not

Interrupt (Ctrl-C) and SIGTERM end it cleanly, files are completed.
)";

// Upper case: without a short form.
const option kLongOptions[] = {{"snapshot", required_argument, nullptr, 's'},
                               {"record", required_argument, nullptr, 'r'},
                               {"asl", required_argument, nullptr, 'a'},
                               {"imu", required_argument, nullptr, 'i'},
                               {"json", required_argument, nullptr, 'j'},
                               {"quiet", no_argument, nullptr, 'q'},
                               {"frames", required_argument, nullptr, 'n'},
                               {"duration", required_argument, nullptr, 'd'},
                               {"timeout", required_argument, nullptr, 't'},
                               {"memory", required_argument, nullptr, 'M'},
                               {"tcp", no_argument, nullptr, 'T'},
                               {"ca", required_argument, nullptr, 'C'},
                               {"insecure", no_argument, nullptr, 'I'},
                               {"jitter", required_argument, nullptr, 'J'},
                               {"no-decode", no_argument, nullptr, 'D'},
                               {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, 'V'},
                               {nullptr, 0, nullptr, 0}};

[[noreturn]] void refuse(const std::string& reason)
{
    std::cerr << reason << "Try 'vistrel-receive --help'.\n";
    std::exit(WRONG_USE);
}

/// Refuses the command line unless the condition holds.
void demand(bool condition, const std::string& otherwise)
{
    if (!condition) {
        refuse(printable("vistrel-receive: " + otherwise) + '\n');
    }
}

/// The option's value, a number of the given range.
double number(const char* name, long least, long most)
{
    char* end = nullptr;
    const double value = std::strtod(optarg, &end);
    demand(end != optarg && *end == '\0' && value >= static_cast<double>(least) &&
               value <= static_cast<double>(most),
           std::string(name) + ": '" + optarg + "' is not a number from " + std::to_string(least) +
               " to " + std::to_string(most));
    return value;
}

unsigned wholeNumber(const char* name, long least, long most)
{
    const double value = number(name, least, most);
    demand(value == std::floor(value),
           std::string(name) + ": '" + optarg + "' is not a whole number");
    return static_cast<unsigned>(value);
}

}  // namespace

Options parseOptions(int argc, char** argv)
{
    Options options;
    for (int code = 0;
         (code = getopt_long(argc, argv, "s:r:a:i:j:qn:d:t:h", kLongOptions, nullptr)) != -1;) {
        switch (code) {
            case 's': options.snapshot = optarg; break;
            case 'r': options.recording = optarg; break;
            case 'a': options.aslFolder = optarg; break;
            case 'i': options.imuFile = optarg; break;
            case 'j': options.statistics = optarg; break;
            case 'q': options.quiet = true; break;
            case 'n': options.frames = wholeNumber("--frames", 1, 1000000000); break;
            case 'd': options.duration = number("--duration", 0, 1000000000); break;
            case 't': options.timeout = number("--timeout", 0, 1000000000); break;
            case 'M': options.memory = wholeNumber("--memory", 1, 1000000); break;
            case 'T': options.source.tcp = true; break;
            case 'C': options.source.authorities = optarg; break;
            case 'I': options.source.insecure = true; break;
            case 'J': options.source.jitter = wholeNumber("--jitter", 0, 60000); break;
            case 'D': options.source.decode = false; break;
            case 'h': std::cout << kHelp; std::exit(SUCCESS);
            case 'V': std::cout << "vistrel-receive " VISTREL_VERSION "\n"; std::exit(SUCCESS);
            default: refuse("");  // getopt has said why
        }
    }
    demand(optind < argc, "the address of a stream or a recorded file is missing");
    demand(optind + 1 == argc, "one address or file is expected");
    const std::string url = options.source.url = argv[optind];
    demand(options.source.isFile() || g_utf8_validate(argv[optind], -1, nullptr) != FALSE,
           "'" + withoutCredentials(url) + "' is not UTF-8");
    const bool secure = options.source.isSecure();
    demand(secure || options.source.isFile() || url.rfind("rtsp://", 0) == 0,
           "'" + withoutCredentials(url) + "' does not begin with rtsp:// or rtsps://");
    const bool trusts = options.source.insecure || !options.source.authorities.empty();
    demand(secure || !trusts, "--ca and --insecure need an address that begins with rtsps://");
    demand(!options.source.insecure || options.source.authorities.empty(),
           "--ca and --insecure exclude each other");
    demand((options.snapshot.empty() && options.aslFolder.empty()) || options.source.decode,
           "--snapshot and --asl need decoding");
    return options;
}

std::string withoutCredentials(const std::string& url)
{
    const std::size_t scheme = url.find("://");
    const std::size_t host = scheme < url.find('/') ? scheme + 3 : 0;
    const std::size_t at = url.rfind('@', url.find('/', host));
    const bool given = at != std::string::npos && at >= host;
    return given ? url.substr(0, host) + url.substr(at + 1) : url;
}

std::string printable(const std::string& text)
{
    const std::unique_ptr<gchar, decltype(&g_free)> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())), &g_free);
    std::string result;
    for (const gchar* at = valid.get(); *at != '\0'; at = g_utf8_next_char(at)) {
        result += g_unichar_isprint(g_utf8_get_char(at))
                      ? std::string(at, static_cast<const gchar*>(g_utf8_next_char(at)))
                      : std::string("?");
    }
    return result;
}

}  // namespace receive
