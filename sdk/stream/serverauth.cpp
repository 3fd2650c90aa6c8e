// SPDX-License-Identifier: Apache-2.0
// Who may watch, and that nobody listens in.
#include "sdk/stream/serverauth.h"

#include <gio/gio.h>

#include <cstring>

#include "sdk/stream/derivedtype.h"

namespace tq::stream {

namespace {

constexpr const char* kRole = "viewer";
constexpr const char* kRealm = "KOR stereo";

bool isOldTls(GstRTSPConnection* connection)
{
    GTlsConnection* const tls = gst_rtsp_connection_get_tls(connection, nullptr);
    return !tls || g_tls_connection_get_protocol_version(tls) < G_TLS_PROTOCOL_VERSION_TLS_1_2;
}

// The TLS library agrees to versions 1.0 and 1.1 when a client knows no better, and can be told
// otherwise for the whole process only. Such a client gets this answer and nothing else.
gboolean checkTls(GstRTSPAuth* auth, GstRTSPContext* context, const gchar* check)
{
    if (std::strcmp(check, GST_RTSP_AUTH_CHECK_URL) == 0 && isOldTls(context->conn)) {
        gst_rtsp_message_init_response(context->response, GST_RTSP_STS_FORBIDDEN,
                                       "TLS 1.2 or later is required", context->request);
        gst_rtsp_client_send_message(context->client, nullptr, context->response);
        return FALSE;
    }
    auto* base = GST_RTSP_AUTH_CLASS(g_type_class_peek(GST_TYPE_RTSP_AUTH));
    return base->check(auth, context, check);
}

GType tlsAuthType()
{
    static const GType type =
        deriveType(GST_TYPE_RTSP_AUTH, "TlsAuth",
                   [](gpointer auth, gpointer) { GST_RTSP_AUTH_CLASS(auth)->check = checkTls; });
    return type;
}

}  // namespace

GObjectPtr<GstRTSPAuth> makeServerAuth(const rig::StreamSettings& settings,
                                       GTlsCertificate* certificate, GstRTSPMediaFactory* factory)
{
    GObjectPtr<GstRTSPAuth> auth(
        GST_RTSP_AUTH(g_object_new(certificate ? tlsAuthType() : GST_TYPE_RTSP_AUTH, nullptr)));
    const std::unique_ptr<GstRTSPToken, MiniObjectRelease> token(
        gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, kRole, nullptr));
    if (certificate) {
        gst_rtsp_auth_set_tls_certificate(auth.get(), certificate);
    }
    if (settings.user.empty()) {
        gst_rtsp_auth_set_default_token(auth.get(), token.get());
    } else {
        gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_DIGEST);
        gst_rtsp_auth_set_realm(auth.get(), kRealm);
        gst_rtsp_auth_add_digest(auth.get(), settings.user.c_str(), settings.password.c_str(),
                                 token.get());
    }
    gst_rtsp_media_factory_add_role(factory, kRole, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                    G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                    G_TYPE_BOOLEAN, TRUE, nullptr);
    return auth;
}

}  // namespace tq::stream
