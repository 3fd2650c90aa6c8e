// SPDX-License-Identifier: Apache-2.0
// Hears what a service tells systemd, in systemd's place.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QByteArray>
#include <QByteArrayList>
#include <QTemporaryDir>
#include <array>
#include <cstring>

/// A socket like the one that NOTIFY_SOCKET names.
class NotifySocket {
public:
    NotifySocket() : handle(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path().constData(), sizeof address.sun_path - 1);
        isBound = bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~NotifySocket() { ::close(handle); }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool bound() const { return isBound; }

    /// For NOTIFY_SOCKET.
    QByteArray path() const { return folder.filePath(QStringLiteral("notify")).toLocal8Bit(); }

    /// What has been told since the last call.
    QByteArrayList take()
    {
        QByteArrayList told;
        std::array<char, 4096> text{};
        for (;;) {
            const ssize_t size = recv(handle, text.data(), text.size(), 0);
            if (size < 0) {
                return told;
            }
            told << QByteArray(text.data(), static_cast<int>(size));
        }
    }

private:
    QTemporaryDir folder;
    int handle;
    bool isBound = false;
};
