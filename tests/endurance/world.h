// SPDX-License-Identifier: Apache-2.0
// What a random operator works with and cannot see: cameras, the service, other users, receivers.
#pragma once

#include <QHash>
#include <QProcess>
#include <QTemporaryDir>
#include <memory>
#include <vector>

#include "tests/sandbox/sandbox.h"

/// Cameras of the rig file, who else holds them, the service's answers and receivers. The settings
/// store lies in a folder of its own. GUI thread.
class World {
public:
    /// Sets of cameras; they are there from the next enumeration on.
    enum Cameras {
        TwoGs,
        FourGs,
        TwoUhd,
        Faulty,     ///< four, of which one is out of step, one dies, one stalls, one loses frames
        Pipelines,  ///< two from GStreamer, of which one ends and one cannot be built
        Mixed,      ///< two models, which the program refuses
        None,
        Malformed,  ///< a rig that cannot be read
        kKinds
    };

    World();
    ~World();

    void connect(Cameras cameras);

    /// Holds a camera as another program does, or lets it go again.
    void toggleForeignUser(int serial);
    void releaseAll();

    /// Whether sudo does as it is told.
    void allowService(bool allowed);

    /// Starts a receiver that ends by itself, unless there are too many.
    void watch(int port);

    /// Runs a receiver until it has some frames, with the event loop going on.
    /// @return whether it got them
    static bool receives(int port, int frames);

    int receiversWithFrames() const { return satisfied; }

private:
    QTemporaryDir folder;
    sandbox::StandIns standIns;
    QHash<int, int> held;  // file descriptors by serial
    std::vector<std::unique_ptr<QProcess>> receivers;
    int satisfied = 0;
};
