// SPDX-License-Identifier: Apache-2.0
// Tells systemd that the service is alive.
#include "app/servicewatchdog.h"

#include <QDebug>
#include <algorithm>
#include <chrono>
#include <utility>
#ifdef VISTREL_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// Some go by without an image before systemd's patience ends.
constexpr int kBeatsPerLimit = 4;

#ifdef VISTREL_SYSTEMD
void tell(const char* state)
{
    sd_notify(0, state);
}

/// How long systemd waits for a sign of life; zero when it does not.
microseconds limit()
{
    std::uint64_t count = 0;
    return sd_watchdog_enabled(0, &count) > 0 ? microseconds(count) : microseconds(0);
}
#else
void tell(const char*) {}

microseconds limit()
{
    return microseconds(0);
}
#endif

}  // namespace

ServiceWatchdog::ServiceWatchdog(Counter images) : countImages(std::move(images))
{
    QTimer::singleShot(0, &timer, [] { tell("READY=1"); });
    if (limit() > microseconds(0)) {
        QObject::connect(&timer, &QTimer::timeout, [this] { beat(); });
        timer.start(std::chrono::duration_cast<milliseconds>(limit() / kBeatsPerLimit));
    }
}

void ServiceWatchdog::beat()
{
    const std::optional<std::uint64_t> images = countImages();
    const bool alive = !images || images != known;
    known = images;
    if (alive) {
        tell("WATCHDOG=1");
    } else if (!silent) {
        qWarning()
            << "[KORVistrel] No camera of any stream delivers: systemd will start the service "
               "again unless one does";
    }
    silent = !alive;
}
