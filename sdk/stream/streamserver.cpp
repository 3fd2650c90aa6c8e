// SPDX-License-Identifier: Apache-2.0
// RTSP server: clients, their limits and their end.
#include "sdk/stream/streamserver.h"

#include <gio/gio.h>
#include <sys/socket.h>

#include <malloc.h>

#include <algorithm>
#include <map>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/stream/serverauth.h"
#include "sdk/stream/stereomedia.h"

namespace tq::stream {

namespace {

constexpr const char* kMountPoint = "/stereo";
constexpr guint kHouseKeepingInterval = 1000;  // ms
constexpr gint64 kAfterlife = 2 * G_USEC_PER_SEC;
constexpr gint64 kEndingTime = G_USEC_PER_SEC / 4;
// Connections without a session that are put up with besides those of the clients served.
constexpr std::size_t kSpareConnections = 16;
// The TLS library shakes hands with ten at once; whoever comes next waits for one of them to end.
// So one address has this many connections without a session besides its share of clients.
constexpr std::size_t kSpareHandshakes = 4;
// Connections of a flood in the queue would make a newcomer try again after 1, 3, 7 s.
constexpr int kListenBacklog = 128;
// Requests are small; what a client sends beyond waits in its own machine.
constexpr int kReceiveBuffer = 32 * 1024;
constexpr guint kLongestBody = 4096;

bool hasSession(GstRTSPClient* client)
{
    GList* list = gst_rtsp_client_session_filter(client, nullptr, nullptr);
    const bool any = list != nullptr;
    g_list_free_full(list, g_object_unref);
    return any;
}

std::string addressOf(GstRTSPClient* client)
{
    GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
    const char* address = connection ? gst_rtsp_connection_get_ip(connection) : nullptr;
    return address ? address : "unknown address";
}

std::string describe(GstRTSPClient* client)
{
    return "client " + addressOf(client);
}

}  // namespace

StreamServer::StreamServer(std::string serverName, bool logStates,
                           rig::StreamSettings streamSettings,
                           GObjectPtr<GTlsCertificate> ownCertificate, double streamBytes,
                           std::shared_ptr<StreamFeed> streamFeed)
    : name(std::move(serverName)),
      verbose(logStates),
      settings(std::move(streamSettings)),
      certificate(std::move(ownCertificate)),
      feed(std::move(streamFeed)),
      streamRate(streamBytes),
      connectionLog([this](const std::string& text) { logLine(name + ": " + text); },
                    std::chrono::steady_clock::now())
{
}

StreamServer::~StreamServer()
{
    stop();
}

ErrorCode StreamServer::start(std::uint16_t port, GObjectPtr<GstRTSPMediaFactory> factory,
                              std::string& reason)
{
    configure(port, std::move(factory));
    Failure failure;
    context.reset(g_main_context_new());
    GSource* source = listen(failure.place());
    if (!source) {
        const bool taken = g_error_matches(failure.get(), G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE);
        reason = "cannot listen on " + settings.bindAddress + " port " + std::to_string(port) +
                 ": " + failure.text("unknown reason");
        stop();
        return taken ? ErrorCode::PORT_TAKEN : ErrorCode::SERVER_FAILED;
    }
    listener.reset(source);
    guard = std::make_unique<ConnectionGuard>(streamRate,
                                              [this](const std::string& client, const char* why) {
                                                  log("client " + client + " is cut off: " + why);
                                              });
    g_source_attach(source, context.get());
    attachHousekeeping();
    loop.reset(g_main_loop_new(context.get(), FALSE));
    thread = std::thread([this] {
        g_main_context_push_thread_default(context.get());
        g_main_loop_run(loop.get());
        g_main_context_pop_thread_default(context.get());
    });
    return ErrorCode::SUCCESS;
}

void StreamServer::stop()
{
    if (thread.joinable()) {
        // Whoever keeps the server's thread busy stops it from closing.
        guard->endAll();
        const GSourcePtr task(g_idle_source_new());
        g_source_set_priority(task.get(), G_PRIORITY_HIGH);
        g_source_set_callback(
            task.get(),
            [](gpointer self) -> gboolean {
                static_cast<StreamServer*>(self)->closeAll();
                return G_SOURCE_REMOVE;
            },
            this, nullptr);
        g_source_attach(task.get(), context.get());
        thread.join();
    }
    listener.reset();
    timer.reset();
    connections.clear();
    departed.clear();
    server.reset();
    sessions.reset();
    guard.reset();
    loop.reset();
    context.reset();
}

// As the library's own source, with limits that accepted connections inherit.
GSource* StreamServer::listen(GError** error)
{
    const GObjectPtr<GSocket> socket(gst_rtsp_server_create_socket(server.get(), nullptr, error));
    if (!socket) {
        return nullptr;
    }
    g_socket_set_option(socket.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBuffer, nullptr);
    GSource* source = g_socket_create_source(
        socket.get(), GIOCondition(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL), nullptr);
    g_source_set_callback(source, G_SOURCE_FUNC(gst_rtsp_server_io_func),
                          g_object_ref(server.get()), g_object_unref);
    return source;
}

void StreamServer::configure(std::uint16_t port, GObjectPtr<GstRTSPMediaFactory> factory)
{
    server.reset(gst_rtsp_server_new());
    gst_rtsp_server_set_address(server.get(), settings.bindAddress.c_str());
    gst_rtsp_server_set_service(server.get(), std::to_string(port).c_str());
    gst_rtsp_server_set_backlog(server.get(), kListenBacklog);
    gst_rtsp_server_set_content_length_limit(server.get(), kLongestBody);
    // No threads of their own for clients: they are served on this server's thread.
    const GObjectPtr<GstRTSPThreadPool> threads(gst_rtsp_thread_pool_new());
    gst_rtsp_thread_pool_set_max_threads(threads.get(), 0);
    gst_rtsp_server_set_thread_pool(server.get(), threads.get());
    sessions.reset(gst_rtsp_session_pool_new());
    gst_rtsp_session_pool_set_max_sessions(sessions.get(), static_cast<guint>(settings.maxClients));
    gst_rtsp_server_set_session_pool(server.get(), sessions.get());
    g_signal_connect(sessions.get(), "session-removed",
                     G_CALLBACK(+[](GstRTSPSessionPool*, GstRTSPSession* session, gpointer self) {
                         static_cast<StreamServer*>(self)->sessionEnded(session);
                     }),
                     this);
    if (certificate || !settings.user.empty()) {
        const auto auth = makeServerAuth(settings, certificate.get(), factory.get());
        gst_rtsp_server_set_auth(server.get(), auth.get());
    }
    const GObjectPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server.get()));
    gst_rtsp_mount_points_add_factory(mounts.get(), kMountPoint, factory.release());
    g_signal_connect(server.get(), "client-connected",
                     G_CALLBACK(+[](GstRTSPServer*, GstRTSPClient* client, gpointer self) {
                         static_cast<StreamServer*>(self)->clientConnected(client);
                     }),
                     this);
}

void StreamServer::attachHousekeeping()
{
    timer.reset(g_timeout_source_new(kHouseKeepingInterval));
    g_source_set_callback(
        timer.get(),
        [](gpointer self) -> gboolean {
            static_cast<StreamServer*>(self)->houseKeeping();
            return G_SOURCE_CONTINUE;
        },
        this, nullptr);
    g_source_attach(timer.get(), context.get());
}

void StreamServer::clientConnected(GstRTSPClient* client)
{
    GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
    // No tunnels through HTTP: the guard would not see the second connection of one.
    gst_rtsp_connection_set_http_mode(connection, TRUE);
    connections.push_back(
        {shareObject(client), addressOf(client), g_get_monotonic_time(), {}, false});
    guard->add(client, g_socket_get_fd(gst_rtsp_connection_get_read_socket(connection)),
               connections.back().address);
    connectLimits(client);
    g_signal_connect(client, "closed", G_CALLBACK(+[](GstRTSPClient* closed, gpointer self) {
                         static_cast<StreamServer*>(self)->clientClosed(closed);
                     }),
                     this);
    g_signal_connect(client, "new-session",
                     G_CALLBACK(+[](GstRTSPClient* owner, GstRTSPSession* session, gpointer self) {
                         static_cast<StreamServer*>(self)->sessionBegun(owner, session);
                     }),
                     this);
    g_signal_connect(client, "play-request",
                     G_CALLBACK(+[](GstRTSPClient* player, GstRTSPContext*, gpointer self) {
                         auto* owner = static_cast<StreamServer*>(self);
                         owner->log(describe(player) + " plays");
                         owner->feed->viewerCame();
                     }),
                     this);
    turnAwayIdleClient();
}

void StreamServer::connectLimits(GstRTSPClient* client)
{
    g_signal_connect(client, "send-message",
                     G_CALLBACK(+[](GstRTSPClient* to, GstRTSPContext*, gpointer, gpointer self) {
                         static_cast<StreamServer*>(self)->guard->answered(to);
                     }),
                     this);
    g_signal_connect(client, "pre-describe-request",
                     G_CALLBACK(+[](GstRTSPClient* from, GstRTSPContext*, gpointer self) {
                         return static_cast<StreamServer*>(self)->checkPictures(from);
                     }),
                     this);
    g_signal_connect(client, "pre-setup-request",
                     G_CALLBACK(+[](GstRTSPClient* from, GstRTSPContext* request, gpointer self) {
                         return static_cast<StreamServer*>(self)->checkSetup(from, request);
                     }),
                     this);
}

// The library makes the media now and waits for its first frame, on the thread that serves all.
GstRTSPStatusCode StreamServer::checkPictures(GstRTSPClient* client)
{
    if (feed->hasPictures()) {
        return GST_RTSP_STS_OK;
    }
    log(describe(client) + " is refused: there are no pictures");
    return GST_RTSP_STS_SERVICE_UNAVAILABLE;
}

GstRTSPStatusCode StreamServer::checkSetup(GstRTSPClient* client, GstRTSPContext* request)
{
    if (!request->session) {
        const auto all = static_cast<int>(gst_rtsp_session_pool_get_n_sessions(sessions.get()));
        const int here = sessionsAt(addressOf(client));
        const std::string full =
            all >= settings.maxClients       ? std::to_string(settings.maxClients) + " clients"
            : here >= settings.clientShare() ? std::to_string(here) + " clients of one address"
                                             : "";
        if (!full.empty()) {
            log(describe(client) + " is refused: no more than " + full + " are served");
            return GST_RTSP_STS_SERVICE_UNAVAILABLE;
        }
    }
    return checkPictures(client);
}

void StreamServer::sessionBegun(GstRTSPClient* client, GstRTSPSession* session)
{
    gst_rtsp_session_set_timeout(session, static_cast<guint>(settings.sessionTimeout));
    guard->admit(client);
    const auto connection = find(client);
    if (connection != connections.end()) {
        connection->sessions.push_back(shareObject(session));
    }
}

void StreamServer::sessionEnded(GstRTSPSession* session)
{
    for (Connection& connection : connections) {
        connection.sessions.remove_if(
            [session](const GObjectPtr<GstRTSPSession>& own) { return own.get() == session; });
    }
}

// The library takes the media of a closed connection away but keeps its session, which would
// count as a client until it times out.
void StreamServer::clientClosed(GstRTSPClient* client)
{
    guard->remove(client);
    const auto connection = find(client);
    if (connection == connections.end()) {
        return;
    }
    const auto ended = std::move(connection->sessions);
    connection->sessions.clear();
    for (const auto& session : ended) {
        gst_rtsp_session_pool_remove(sessions.get(), session.get());
    }
    log("client " + connection->address + " is gone");
    // When a packet finds its client going, the library has it closed by an idle source that holds
    // no reference to it, and that may run after this. So the client lives on for a moment.
    connection->since = g_get_monotonic_time();
    departed.splice(departed.end(), connections, connection);
}

// When there are too many: the oldest one of the address that has most of them, so that a flood
// turns itself away, and of addresses with equally many the one that has been silent for longest.
void StreamServer::turnAwayIdleClient()
{
    std::size_t all = 0;
    std::map<std::string, std::size_t> idle;
    for (const Connection& connection : connections) {
        if (!connection.ended) {
            ++all;
            idle[connection.address] += hasSession(connection.client.get()) ? 0 : 1;
        }
    }
    Connection* oldest = nullptr;
    std::size_t most = 0;
    for (Connection& connection : connections) {
        if (!connection.ended && !hasSession(connection.client.get()) &&
            idle[connection.address] > most) {
            oldest = &connection;
            most = idle[connection.address];
        }
    }
    const auto share = static_cast<std::size_t>(settings.clientShare()) + kSpareHandshakes;
    if (oldest && (all > static_cast<std::size_t>(settings.maxClients) + kSpareConnections ||
                   (certificate && most > share))) {
        log("client " + oldest->address + " is turned away: too many connections");
        disconnect(*oldest);
    }
}

// The library reads the end and closes the connection itself: what it closes in the middle of a
// handshake it never frees.
void StreamServer::disconnect(Connection& connection)
{
    connection.ended = true;
    guard->end(connection.client.get());
}

int StreamServer::sessionsAt(const std::string& address) const
{
    std::size_t count = 0;
    for (const Connection& connection : connections) {
        count += connection.address == address ? connection.sessions.size() : 0;
    }
    return static_cast<int>(count);
}

std::list<StreamServer::Connection>::iterator StreamServer::find(GstRTSPClient* client)
{
    return std::find_if(connections.begin(), connections.end(),
                        [client](const Connection& c) { return c.client.get() == client; });
}

// Ends sessions that gave no sign of life, and connections that never came to a session.
void StreamServer::houseKeeping()
{
    gst_rtsp_session_pool_cleanup(sessions.get());
    connectionLog.catchUp(std::chrono::steady_clock::now());
    const gint64 now = g_get_monotonic_time();
    const std::size_t before = departed.size();
    departed.remove_if(
        [now](const Connection& connection) { return now - connection.since > kAfterlife; });
    // Else the allocator keeps what they took, which is megabytes for each encrypted connection:
    // GLib's TLS reads the system's certificates for every one.
    if (departed.size() < before) {
        malloc_trim(0);
    }
    for (Connection& connection : connections) {
        if (hasSession(connection.client.get())) {
            connection.since = now;
        } else if (!connection.ended &&
                   now - connection.since > settings.sessionTimeout * gint64{G_USEC_PER_SEC}) {
            log(describe(connection.client.get()) + " is disconnected: no session for " +
                std::to_string(settings.sessionTimeout) + " s");
            disconnect(connection);
        }
    }
}

void StreamServer::closeAll()
{
    g_source_destroy(listener.get());
    // All have been ended, and halves of handshakes must be read to their end; see disconnect().
    const gint64 end = g_get_monotonic_time() + kEndingTime;
    while (certificate && !connections.empty() && g_get_monotonic_time() < end) {
        g_main_context_iteration(context.get(), FALSE);
        g_usleep(1000);
    }
    gst_rtsp_server_client_filter(
        server.get(),
        [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; }, nullptr);
    gst_rtsp_session_pool_filter(
        sessions.get(),
        [](GstRTSPSessionPool*, GstRTSPSession*, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
    while (g_main_context_iteration(context.get(), FALSE)) {
    }
    g_main_loop_quit(loop.get());
}

void StreamServer::log(const std::string& text)
{
    if (verbose) {
        connectionLog.line(text, std::chrono::steady_clock::now());
    }
}

}  // namespace tq::stream
