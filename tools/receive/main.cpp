// SPDX-License-Identifier: Apache-2.0
// vistrel-receive: receives a virtual stereo camera, shows how it does, and writes files.
#include <csignal>
#include <iostream>

#include "tools/receive/receiver.h"

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void catchSignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { stopRequested = 1; };
    action.sa_flags = SA_RESETHAND;  // a second signal ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv)
{
    const receive::Options options = receive::parseOptions(argc, argv);
    tq::Failure failure;
    if (!gst_init_check(nullptr, nullptr, failure.place())) {
        std::cerr << "vistrel-receive: " << failure.text("no GStreamer") << '\n';
        return receive::NO_FRAMES;
    }
    catchSignals();
    return receive::Receiver(options).run(stopRequested);
}
