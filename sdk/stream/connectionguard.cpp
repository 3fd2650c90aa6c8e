// SPDX-License-Identifier: Apache-2.0
// What connections may send, and the thread that looks after it.
#include "sdk/stream/connectionguard.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

namespace tq::stream {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(50);
// Viewers need 3 KB to begin with, and then some hundred bytes per minute.
constexpr double kBytesAtOnce = 64 * 1024;
constexpr double kBytesPerSecond = 16 * 1024;
constexpr double kStrangersRequest = 16 * 1024;
constexpr auto kStrangersTime = std::chrono::seconds(10);
// Reports of a viewer that takes its media by TCP: one each five seconds, or one for some hundred
// kilobytes of media from a viewer that sends requests too, at least every minute.
constexpr double kReportBytesPerSecond = 128;
constexpr double kReportShare = 1.0 / 1000;
constexpr double kLongestUnanswered = 60;
// A standstill of the network may take a moment; behind a longer one the library gives up, too.
constexpr auto kLongestStandstill = std::chrono::seconds(10);
constexpr double kLeastShare = 1.0 / 16;

/// Nothing at all on a system that does not count.
Traffic trafficOf(int socket)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    constexpr std::size_t kNeeded =
        offsetof(tcp_info, tcpi_notsent_bytes) + sizeof info.tcpi_notsent_bytes;
    if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < kNeeded) {
        return {};
    }
    return {info.tcpi_bytes_received, info.tcpi_bytes_acked, info.tcpi_notsent_bytes > 0};
}

/// Ends a connection for whoever reads it, also what has come and was not read.
void endSocket(int socket)
{
    shutdown(socket, SHUT_RDWR);
    char bytes[16384];
    while (recv(socket, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace

TrafficAccount::TrafficAccount(double streamBytes, Time now)
    : allowance(kBytesAtOnce + kReportShare * streamBytes * kLongestUnanswered,
                kBytesPerSecond + kReportShare * streamBytes, now),
      streamRate(streamBytes),
      since(now),
      lastTaken(now)
{
}

const char* TrafficAccount::objection(const Traffic& traffic, Time now)
{
    const auto more = static_cast<double>(traffic.received - counted);
    counted = traffic.received;
    if (answerSeen) {
        answerSeen = false;
        atAnswer = counted;
    }
    if (counted == atAnswer) {
        since = now;
    }
    if (!allowance.take(more, now)) {
        return "too much data";
    }
    if (hasNoEnd(now)) {
        return "a request without end";
    }
    return isStuck(traffic, now) ? "it takes no data" : nullptr;
}

bool TrafficAccount::hasNoEnd(Time now) const
{
    const auto bytes = static_cast<double>(counted - atAnswer);
    if (stranger) {
        return bytes > kStrangersRequest || (bytes > 0 && now - since > kStrangersTime);
    }
    const std::chrono::duration<double> waited = now - since;
    return bytes > kBytesAtOnce + kReportShare * streamRate * kLongestUnanswered +
                       kReportBytesPerSecond * waited.count();
}

// Who takes a few bytes now and then is as stuck as who takes none.
bool TrafficAccount::isStuck(const Traffic& traffic, Time now)
{
    const auto taken = static_cast<double>(traffic.taken - takenBefore);
    if (!traffic.waiting || taken > kLeastShare * streamRate) {
        takenBefore = traffic.taken;
        lastTaken = now;
    }
    return now - lastTaken > kLongestStandstill;
}

ConnectionGuard::ConnectionGuard(double streamBytes,
                                 std::function<void(const std::string&, const char*)> cutOff)
    : streamRate(streamBytes), report(std::move(cutOff)), thread([this] { run(); })
{
}

ConnectionGuard::~ConnectionGuard()
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopped = true;
    }
    changed.notify_all();
    thread.join();
    for (const auto& [key, entry] : entries) {
        close(entry.socket);
    }
}

void ConnectionGuard::add(Key key, int socket, const std::string& name)
{
    const int own = fcntl(socket, F_DUPFD_CLOEXEC, 0);
    if (own < 0) {
        shutdown(socket, SHUT_RDWR);
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (ending) {
        endSocket(own);
    }
    const auto now = std::chrono::steady_clock::now();
    if (!entries.emplace(key, Entry{own, name, TrafficAccount(streamRate, now), ending}).second) {
        close(own);
    }
    changed.notify_all();
}

void ConnectionGuard::remove(Key key)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = entries.find(key);
    if (entry != entries.end()) {
        shutdown(entry->second.socket, SHUT_RDWR);
        close(entry->second.socket);
        entries.erase(entry);
    }
}

void ConnectionGuard::admit(Key key)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = entries.find(key);
    if (entry != entries.end()) {
        entry->second.account.admit();
    }
}

void ConnectionGuard::answered(Key key)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = entries.find(key);
    if (entry != entries.end()) {
        entry->second.account.answered();
    }
}

void ConnectionGuard::end(Key key)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = entries.find(key);
    if (entry != entries.end()) {
        endSocket(entry->second.socket);
        entry->second.ended = true;
    }
}

void ConnectionGuard::endAll()
{
    const std::lock_guard<std::mutex> lock(mutex);
    ending = true;
    for (auto& [key, entry] : entries) {
        endSocket(entry.socket);
        entry.ended = true;
    }
}

void ConnectionGuard::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopped) {
        if (entries.empty()) {
            changed.wait(lock);
        } else {
            changed.wait_for(lock, kInterval, [this] { return stopped; });
            look(std::chrono::steady_clock::now());
        }
    }
}

void ConnectionGuard::look(TrafficAccount::Time now)
{
    for (auto& [key, entry] : entries) {
        if (entry.ended) {
            continue;
        }
        const char* reason = entry.account.objection(trafficOf(entry.socket), now);
        if (reason) {
            endSocket(entry.socket);
            entry.ended = true;
            report(entry.name, reason);
        }
    }
}

}  // namespace tq::stream
