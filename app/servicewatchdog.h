// SPDX-License-Identifier: Apache-2.0
// Tells systemd that the service is alive.
#pragma once

#include <QTimer>
#include <cstdint>
#include <functional>
#include <optional>

/// Tells systemd that the service has begun, and from then on that it is alive, as long as images
/// come. Both are told from the event loop: one that hangs tells nothing, and systemd, which waits
/// for it, ends the process and starts it again. Does nothing where systemd did not start the
/// process, or the build has no libsystemd. Main thread.
class ServiceWatchdog {
public:
    using Counter = std::function<std::optional<std::uint64_t>()>;

    /// @param images how many images all streams have received so far; nothing when there is no
    ///               stream that could receive any
    explicit ServiceWatchdog(Counter images);
    ServiceWatchdog(const ServiceWatchdog&) = delete;
    ServiceWatchdog& operator=(const ServiceWatchdog&) = delete;

private:
    void beat();

    Counter countImages;
    std::optional<std::uint64_t> known = 0;
    bool silent = false;
    QTimer timer;
};
