// SPDX-License-Identifier: Apache-2.0
// RTSP server: clients, their limits and their end.
#include "sdk/stream/streamserver.h"

#include <gio/gio.h>

#include <algorithm>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/stream/serverauth.h"
#include "sdk/stream/stereomedia.h"

namespace tq::stream {

namespace {

constexpr const char* kMountPoint = "/stereo";
constexpr guint kHouseKeepingInterval = 1000;  // ms
constexpr gint64 kAfterlife = 2 * G_USEC_PER_SEC;
// Connections without a session that are put up with besides those of the clients served.
constexpr std::size_t kSpareConnections = 16;
constexpr int kListenBacklog = 16;

bool hasSession(GstRTSPClient* client)
{
    GList* list = gst_rtsp_client_session_filter(client, nullptr, nullptr);
    const bool any = list != nullptr;
    g_list_free_full(list, g_object_unref);
    return any;
}

std::string describe(GstRTSPClient* client)
{
    GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
    const char* address = connection ? gst_rtsp_connection_get_ip(connection) : nullptr;
    return std::string("client ") + (address ? address : "unknown address");
}

}  // namespace

StreamServer::StreamServer(std::string serverName, bool logStates,
                           rig::StreamSettings streamSettings,
                           GObjectPtr<GTlsCertificate> ownCertificate,
                           std::shared_ptr<StreamFeed> streamFeed)
    : name(std::move(serverName)),
      verbose(logStates),
      settings(std::move(streamSettings)),
      certificate(std::move(ownCertificate)),
      feed(std::move(streamFeed))
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
    GSource* source = gst_rtsp_server_create_source(server.get(), nullptr, failure.place());
    if (!source) {
        const bool taken = g_error_matches(failure.get(), G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE);
        reason = "cannot listen on " + settings.bindAddress + " port " + std::to_string(port) +
                 ": " + failure.text("unknown reason");
        stop();
        return taken ? ErrorCode::PORT_TAKEN : ErrorCode::SERVER_FAILED;
    }
    listener.reset(source);
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
    loop.reset();
    context.reset();
}

void StreamServer::configure(std::uint16_t port, GObjectPtr<GstRTSPMediaFactory> factory)
{
    server.reset(gst_rtsp_server_new());
    gst_rtsp_server_set_address(server.get(), settings.bindAddress.c_str());
    gst_rtsp_server_set_service(server.get(), std::to_string(port).c_str());
    gst_rtsp_server_set_backlog(server.get(), kListenBacklog);
    // No threads of their own for clients: they are served on this server's thread.
    const GObjectPtr<GstRTSPThreadPool> threads(gst_rtsp_thread_pool_new());
    gst_rtsp_thread_pool_set_max_threads(threads.get(), 0);
    gst_rtsp_server_set_thread_pool(server.get(), threads.get());
    sessions.reset(gst_rtsp_session_pool_new());
    gst_rtsp_session_pool_set_max_sessions(sessions.get(), static_cast<guint>(settings.maxClients));
    gst_rtsp_server_set_session_pool(server.get(), sessions.get());
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
    connections.push_back({shareObject(client), g_get_monotonic_time(), {}});
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
                         owner->feed->requestKeyFrame();
                     }),
                     this);
    if (connections.size() > static_cast<std::size_t>(settings.maxClients) + kSpareConnections) {
        turnAwayIdleClient();
    }
}

void StreamServer::sessionBegun(GstRTSPClient* client, GstRTSPSession* session)
{
    gst_rtsp_session_set_timeout(session, static_cast<guint>(settings.sessionTimeout));
    const auto connection = find(client);
    if (connection != connections.end()) {
        connection->sessions.push_back(shareObject(session));
    }
}

// The library takes the media of a closed connection away but keeps its session, which would
// count as a client until it times out.
void StreamServer::clientClosed(GstRTSPClient* client)
{
    const auto connection = find(client);
    if (connection == connections.end()) {
        return;
    }
    for (const auto& session : connection->sessions) {
        gst_rtsp_session_pool_remove(sessions.get(), session.get());
    }
    log(describe(client) + " is gone");
    // When a packet finds its client going, the library has it closed by an idle source that holds
    // no reference to it, and that may run after this. So the client lives on for a moment.
    connection->sessions.clear();
    connection->since = g_get_monotonic_time();
    departed.splice(departed.end(), connections, connection);
}

void StreamServer::turnAwayIdleClient()
{
    const auto idle = std::find_if(connections.begin(), connections.end(),
                                   [](const Connection& c) { return !hasSession(c.client.get()); });
    if (idle == connections.end()) {
        return;
    }
    log(describe(idle->client.get()) + " is turned away: too many connections");
    const GObjectPtr<GstRTSPClient> victim = shareObject(idle->client.get());
    gst_rtsp_client_close(victim.get());
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
    const gint64 now = g_get_monotonic_time();
    departed.remove_if(
        [now](const Connection& connection) { return now - connection.since > kAfterlife; });
    std::list<GObjectPtr<GstRTSPClient>> expired;
    for (Connection& connection : connections) {
        if (hasSession(connection.client.get())) {
            connection.since = now;
        } else if (now - connection.since > settings.sessionTimeout * gint64{G_USEC_PER_SEC}) {
            expired.push_back(shareObject(connection.client.get()));
        }
    }
    for (const auto& client : expired) {
        log(describe(client.get()) + " is disconnected: no session for " +
            std::to_string(settings.sessionTimeout) + " s");
        gst_rtsp_client_close(client.get());
    }
}

void StreamServer::closeAll()
{
    g_source_destroy(listener.get());
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

void StreamServer::log(const std::string& text) const
{
    if (verbose) {
        logLine(name + ": " + text);
    }
}

}  // namespace tq::stream
