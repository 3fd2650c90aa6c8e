// SPDX-License-Identifier: Apache-2.0
// Ports for servers that tests start.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>

/// A TCP socket that is bound to a port of its own and does not listen.
///
/// The system gives the port to nobody who asks for any, and refuses connections to it. A server
/// that names it can listen all the same if it sets SO_REUSEADDR, as servers do; a second one is
/// refused as long as the first listens.
class HeldPort {
public:
    HeldPort() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t size = sizeof address;
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
            port = ntohs(address.sin_port);
        }
    }
    ~HeldPort() { close(fd); }
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;

    /// 0 when there is none.
    int number() const { return port; }

    /// The socket, for who wants it to listen after all.
    int descriptor() const { return fd; }

private:
    int fd;
    int port = 0;
};

/// A TCP port for a server of this process or of one that it starts; held until this process ends.
inline int freePort()
{
    static std::deque<HeldPort> held;
    return held.emplace_back().number();
}
