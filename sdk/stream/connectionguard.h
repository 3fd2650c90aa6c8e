// SPDX-License-Identifier: Apache-2.0
// Cuts connections off that send too much, from outside of the server's loop.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "sdk/core/tokenbucket.h"

namespace tq::stream {

/// What a connection has carried since it began, and what waits in it.
struct Traffic {
    std::uint64_t received = 0;  ///< bytes
    std::uint64_t taken = 0;     ///< bytes that the other side has confirmed
    bool waiting = false;        ///< bytes for the other side, which it has no room for
};

/// What one connection may send, and how slowly it may take. A stranger has no session yet. All
/// limits are rates or begin anew with each answer, so that a viewer's reports, which come through
/// the same connection when it takes its media by TCP and have no answer, never add up. One thread
/// at a time.
class TrafficAccount {
public:
    using Time = TokenBucket::Time;

    /// @param streamBytes bytes per second of the stream; reports grow with it
    TrafficAccount(double streamBytes, Time now);

    /// It has begun a session: from now on it is no stranger.
    void admit() { stranger = false; }

    /// A request of it was answered.
    void answered() { answerSeen = true; }

    /// @param traffic never less than before
    /// @return why it must be cut off, or null
    const char* objection(const Traffic& traffic, Time now);

private:
    bool hasNoEnd(Time now) const;
    bool isStuck(const Traffic& traffic, Time now);

    TokenBucket allowance;
    const double streamRate;
    bool stranger = true;
    bool answerSeen = false;
    std::uint64_t counted = 0;
    std::uint64_t atAnswer = 0;
    Time since;  // when the first byte came that has no answer
    std::uint64_t takenBefore = 0;
    Time lastTaken;
};

/// The library reads a connection for as long as bytes come, on the one thread of the server, and
/// keeps all lines of a request. So a thread of its own looks twenty times per second what the
/// connections have carried, and ends those that send more than they may or take nothing. It sleeps
/// while there is none. Any thread.
class ConnectionGuard {
public:
    using Key = const void*;

    /// @param cutOff is told what was cut off and why, on the guard's thread
    ConnectionGuard(double streamBytes,
                    std::function<void(const std::string& name, const char* reason)> cutOff);
    ~ConnectionGuard();
    ConnectionGuard(const ConnectionGuard&) = delete;
    ConnectionGuard& operator=(const ConnectionGuard&) = delete;

    /// @param socket  of the connection; stays the caller's
    /// @param name    for cutOff
    void add(Key key, int socket, const std::string& name);
    void remove(Key key);
    void admit(Key key);
    void answered(Key key);
    /// Ends a connection for whoever reads it; it stays until remove().
    void end(Key key);

    /// Ends all connections, and those that are added later at once.
    void endAll();

private:
    struct Entry {
        int socket;  // a duplicate, which cannot become somebody else's
        std::string name;
        TrafficAccount account;
        bool ended;
    };

    void run();
    void look(TrafficAccount::Time now);

    const double streamRate;
    const std::function<void(const std::string&, const char*)> report;
    std::mutex mutex;
    std::condition_variable changed;
    std::map<Key, Entry> entries;
    bool ending = false;
    bool stopped = false;
    std::thread thread;
};

}  // namespace tq::stream
