// SPDX-License-Identifier: Apache-2.0
// Writes the frames of a simulated camera as raw YUYV into a named pipe at their capture times, for
// programs that read nothing else.
//
//   bench_camera left|right WIDTH HEIGHT FPS PIPE
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "benchmarks/simulatedcamera.h"

namespace {

constexpr int kLargestPipe = 1 << 20;  // bytes, what an ordinary user may have

bool writeWhole(int file, const unsigned char* bytes, std::size_t count)
{
    while (count > 0) {
        const ssize_t written = ::write(file, bytes, count);
        if (written <= 0) {
            return false;
        }
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::cerr << "usage: bench_camera left|right WIDTH HEIGHT FPS PIPE\n";
        return EXIT_FAILURE;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const int pipe = ::open(argv[5], O_WRONLY | O_CLOEXEC);
    if (pipe < 0) {
        std::cerr << "bench_camera: cannot open " << argv[5] << '\n';
        return EXIT_FAILURE;
    }
    ::fcntl(pipe, F_SETPIPE_SZ, kLargestPipe);
    const tq::FrameFormat format{std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])};
    const auto camera = openSimulatedCamera(
        std::string(argv[1]) == "left" ? tq::rig::Eye::LEFT : tq::rig::Eye::RIGHT, format);
    std::vector<std::vector<unsigned char>> buffers(tq::kFrameBuffers,
                                                    std::vector<unsigned char>(format.bytes()));
    tq::Timestamp time = 0;
    for (int n = 0;; n = (n + 1) % tq::kFrameBuffers) {
        auto& pixels = buffers[static_cast<std::size_t>(n)];
        if (!camera->next({pixels.data(), n}, time) ||
            !writeWhole(pipe, pixels.data(), pixels.size())) {
            return EXIT_SUCCESS;
        }
    }
}
