// SPDX-License-Identifier: Apache-2.0
// The RTSP server of one sender, on a thread of its own.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "sdk/core/glibptr.h"
#include "sdk/rig/rig.h"
#include "sdk/stream/connectionguard.h"
#include "sdk/stream/connectionlog.h"
#include "sdk/stream/streamfeed.h"
#include "tq_kor/types.h"

namespace tq::stream {

/// Serves rtsp://<address>:<port>/stereo, or rtsps:// with a certificate, until it is stopped.
/// start() and stop() belong to one thread at a time.
class StreamServer {
public:
    /// @param serverName     in front of log lines
    /// @param ownCertificate with its key; clients must come by TLS. Null: they must not
    /// @param streamBytes    bytes per second of the stream
    StreamServer(std::string serverName, bool logStates, rig::StreamSettings streamSettings,
                 GObjectPtr<GTlsCertificate> ownCertificate, double streamBytes,
                 std::shared_ptr<StreamFeed> streamFeed);
    ~StreamServer();
    StreamServer(const StreamServer&) = delete;
    StreamServer& operator=(const StreamServer&) = delete;

    /// Listens and serves.
    /// @param reason filled when the result is not SUCCESS
    ErrorCode start(std::uint16_t port, GObjectPtr<GstRTSPMediaFactory> factory,
                    std::string& reason);

    /// Disconnects all clients; the port is free when the call returns.
    void stop();

private:
    struct Connection {
        GObjectPtr<GstRTSPClient> client;
        std::string address;
        gint64 since;                                    // µs of the monotonic clock
        std::list<GObjectPtr<GstRTSPSession>> sessions;  // begun on this connection
        bool ended = false;                              // disconnected, not yet read to its end
    };

    void configure(std::uint16_t port, GObjectPtr<GstRTSPMediaFactory> factory);
    GSource* listen(GError** error);
    void attachHousekeeping();
    void clientConnected(GstRTSPClient* client);
    void connectLimits(GstRTSPClient* client);
    GstRTSPStatusCode checkPictures(GstRTSPClient* client);
    GstRTSPStatusCode checkSetup(GstRTSPClient* client, GstRTSPContext* request);
    void sessionBegun(GstRTSPClient* client, GstRTSPSession* session);
    void sessionEnded(GstRTSPSession* session);
    void clientClosed(GstRTSPClient* client);
    void turnAwayIdleClient();
    void disconnect(Connection& connection);
    int sessionsAt(const std::string& address) const;
    std::list<Connection>::iterator find(GstRTSPClient* client);
    void houseKeeping();
    void closeAll();
    void log(const std::string& text);

    const std::string name;
    const bool verbose;
    const rig::StreamSettings settings;
    const GObjectPtr<GTlsCertificate> certificate;
    const std::shared_ptr<StreamFeed> feed;
    const double streamRate;
    ConnectionLog connectionLog;

    MainContextPtr context;
    MainLoopPtr loop;
    GObjectPtr<GstRTSPServer> server;
    GObjectPtr<GstRTSPSessionPool> sessions;
    GSourcePtr listener;
    GSourcePtr timer;
    std::list<Connection> connections;  // server thread only, oldest first
    std::list<Connection> departed;     // closed a moment ago
    std::unique_ptr<ConnectionGuard> guard;
    std::thread thread;
};

}  // namespace tq::stream
