// SPDX-License-Identifier: Apache-2.0
// The network sender with encryption: who gets in, by what, and what is never sent in the open.
// GLib's headers use words that Qt's make macros of, so they come first.
#include <gio/gio.h>
#include <gnutls/gnutls.h>
#include <gst/gst.h>

#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include "sdk/core/glibptr.h"
#include "tests/sdk/stream_testing.h"
#include "tests/support/certificates.h"
#include "tests/support/memory.h"
#include "tests/support/sanitizers.h"

using namespace streamtest;

namespace {

/// A client of one version of TLS, on a connection of its own.
class TlsClient {
public:
    TlsClient(const RtspClient& connection, const QByteArray& version)
    {
        gnutls_init(&session, GNUTLS_CLIENT);
        const QByteArray priority = "NORMAL:-VERS-ALL:+VERS-" + version;
        gnutls_priority_set_direct(session, priority, nullptr);
        gnutls_certificate_allocate_credentials(&credentials);
        gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials);
        gnutls_transport_set_int(session, connection.descriptor());
        gnutls_handshake_set_timeout(session, 20000);
    }
    ~TlsClient()
    {
        gnutls_deinit(session);
        gnutls_certificate_free_credentials(credentials);
    }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    bool shakesHands() { return gnutls_handshake(session) == GNUTLS_E_SUCCESS; }

    /// The beginning of the answer.
    QByteArray request(const QByteArray& text)
    {
        gnutls_record_send(session, text.constData(), static_cast<std::size_t>(text.size()));
        QByteArray answer(4096, '\0');
        gnutls_record_set_timeout(session, 20000);
        const ssize_t size = gnutls_record_recv(session, answer.data(), 4096);
        return answer.left(static_cast<int>(std::max<ssize_t>(size, 0)));
    }

private:
    gnutls_session_t session = nullptr;
    gnutls_certificate_credentials_t credentials = nullptr;
};

/// How GStreamer's own client fares: empty when pictures come, else its error.
QByteArray received(const QByteArray& url, const char* properties, GTlsDatabase* trusted)
{
    const QByteArray line = "rtspsrc name=source location=" + url + ' ' + properties +
                            " ! rtph264depay ! identity eos-after=5 ! fakesink";
    const tq::GObjectPtr<GstElement> pipeline(
        GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(line, nullptr))));
    const tq::GObjectPtr<GstElement> source(gst_bin_get_by_name(GST_BIN(pipeline.get()), "source"));
    if (trusted)
        g_object_set(source.get(), "tls-database", trusted, nullptr);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const tq::GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const tq::MessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), 20 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    if (!message)
        return "nothing came";
    tq::Failure failure;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR)
        gst_message_parse_error(message.get(), failure.place(), nullptr);
    return failure.text("");
}

}  // namespace

class StreamTlsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void servesGStreamer_data();
    void servesGStreamer();
    void servesFfmpeg_data();
    void servesFfmpeg();
    void sendsNothingInTheOpen();
    void refusesOldVersions_data();
    void refusesOldVersions();
    void neverFallsBack_data();
    void neverFallsBack();
    void halfAHandshakeHoldsNobodyUp();
    void manyHalvesHoldNobodyUp();
    void closingFreesHalves();
    void givesMemoryBack();

private:
    /// The stream object for a certificate, with further members.
    static QByteArray encrypted(const Certificate& certificate, const QByteArray& more = {})
    {
        return "{\"certificate\": \"" + certificate.file().toLocal8Bit() + "\", \"key\": \"" +
               certificate.keyFile().toLocal8Bit() + '"' + more + '}';
    }
    QByteArray url(const QByteArray& user = {}, const char* host = "127.0.0.1") const
    {
        return "rtsps://" + user + host + ':' + QByteArray::number(config.port) + "/stereo";
    }

    QTemporaryDir folder;
    const Certificate authority{folder.filePath("authority")};
    const Certificate board{folder.filePath("board"), {}, &authority};
    const tq::UDPOutConfig config = configuration(freePort());
};

void StreamTlsTest::initTestCase()
{
    gst_init(nullptr, nullptr);
    GTlsBackend* const backend = g_tls_backend_get_default();
    QVERIFY2(g_tls_backend_supports_tls(backend), "glib-networking is missing");
    // GLib's TLS reads the system's authorities for every connection, at either end: with a
    // sanitizer, half a second each.
    const Certificate nobodys(folder.filePath("nobodys"));
    const tq::GObjectPtr<GTlsDatabase> one(
        g_tls_file_database_new(qPrintable(nobodys.file()), nullptr));
    g_tls_backend_set_default_database(backend, one.get());
}

void StreamTlsTest::servesGStreamer_data()
{
    QTest::addColumn<bool>("knowsAuthority");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("properties");
    QTest::addColumn<bool>("expected");
    QTest::newRow("authority known") << true << QByteArray("127.0.0.1") << QByteArray() << true;
    QTest::newRow("authority unknown") << false << QByteArray("127.0.0.1") << QByteArray() << false;
    QTest::newRow("another host") << true << QByteArray("127.0.0.2") << QByteArray() << false;
    QTest::newRow("not validated")
        << false << QByteArray("127.0.0.1") << QByteArray("tls-validation-flags=0") << true;
    QTest::newRow("media by UDP") << true << QByteArray("127.0.0.1") << QByteArray("protocols=udp")
                                  << false;
}

void StreamTlsTest::servesGStreamer()
{
    QFETCH(bool, knowsAuthority);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, properties);
    QFETCH(bool, expected);
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    int result = -1;
    const QByteArray log = errorOutput([&] { result = output.open(config); });
    QCOMPARE(result, 0);
    QVERIFY2(log.contains("rtsps://0.0.0.0:" + QByteArray::number(config.port) + "/stereo"), log);
    Feeder feeder(output, config);
    tq::GObjectPtr<GTlsDatabase> trusted;
    if (knowsAuthority)
        trusted.reset(g_tls_file_database_new(qPrintable(authority.file()), nullptr));
    const QByteArray error = received(url({}, host), properties, trusted.get());
    QVERIFY2(error.isEmpty() == expected, error);
}

void StreamTlsTest::servesFfmpeg_data()
{
    QTest::addColumn<QByteArray>("user");
    QTest::addColumn<bool>("expected");
    QTest::newRow("right password") << QByteArray("viewer:secret@") << true;
    QTest::newRow("wrong password") << QByteArray("viewer:guess@") << false;
    QTest::newRow("no password") << QByteArray() << false;
}

void StreamTlsTest::servesFfmpeg()
{
    if (QStandardPaths::findExecutable("ffmpeg").isEmpty())
        QSKIP("ffmpeg is not installed");
    QFETCH(QByteArray, user);
    QFETCH(bool, expected);
    const StreamRig rig(encrypted(board, R"(, "user": "viewer", "password": "secret")"));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg", {"-v", "error", "-nostdin", "-i", url(user), "-map", "0:v", "-frames:v",
                            "5", "-f", "null", "-"});
    QVERIFY(ffmpeg.waitForFinished(60000));
    const QByteArray error = ffmpeg.readAllStandardError();
    QVERIFY2((ffmpeg.exitCode() == 0) == expected, error);
    QVERIFY2(expected || error.contains("401"), error);
}

void StreamTlsTest::sendsNothingInTheOpen()
{
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    for (const char* request : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"}) {
        RtspClient plain(config.port);
        QVERIFY(plain.isConnected());
        const Response response = plain.request(request, plain.url());
        QCOMPARE(response.status, 0);
        QVERIFY(plain.closedByServer(20000));
    }
}

void StreamTlsTest::refusesOldVersions_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("TLS1.0") << QByteArray("403");
    QTest::newRow("TLS1.1") << QByteArray("403");
    QTest::newRow("TLS1.2") << QByteArray("200");
    QTest::newRow("TLS1.3") << QByteArray("200");
}

void StreamTlsTest::refusesOldVersions()
{
    QFETCH(QByteArray, status);
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    const RtspClient connection(config.port);
    TlsClient client(connection, QTest::currentDataTag());
    if (!client.shakesHands()) {
        // The system's own rules may leave old versions out on either side.
        QCOMPARE(status, QByteArray("403"));
        return;
    }
    const QByteArray answer = client.request("OPTIONS " + url() + " RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    QVERIFY2(answer.startsWith("RTSP/1.0 " + status), answer);
}

void StreamTlsTest::neverFallsBack_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("named");
    const Certificate expired(folder.filePath("expired"), {"127.0.0.1", -7200, -3600});
    QTest::newRow("expired") << expired.file() << expired.keyFile() << expired.file();
    QTest::newRow("no key") << board.file() << folder.filePath("none") << folder.filePath("none");
    QTest::newRow("other key") << board.file() << expired.keyFile() << expired.keyFile();
}

void StreamTlsTest::neverFallsBack()
{
    QFETCH(QString, certificate);
    QFETCH(QString, key);
    QFETCH(QString, named);
    const StreamRig rig("{\"certificate\": \"" + certificate.toLocal8Bit() + "\", \"key\": \"" +
                        key.toLocal8Bit() + "\"}");
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(config); });
    QCOMPARE(result, static_cast<int>(tq::ErrorCode::INVALID_RIG));
    QCOMPARE(log.count('\n'), 1);
    QVERIFY2(log.contains(rig.path().toLocal8Bit() + ": stream."), log);
    QVERIFY2(log.contains(named.toLocal8Bit() + ": "), log);
    QVERIFY(!RtspClient(config.port).isConnected());
}

void StreamTlsTest::halfAHandshakeHoldsNobodyUp()
{
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    std::vector<std::unique_ptr<RtspClient>> halves;
    const QByteArray beginning = QByteArray::fromHex("1603010200010001fc0303");
    for (const QByteArray& bytes : {QByteArray(), beginning.left(1), beginning}) {
        halves.push_back(std::make_unique<RtspClient>(config.port));
        QVERIFY(halves.back()->send(bytes));
    }
    QCOMPARE(received(url(), "tls-validation-flags=0", nullptr), QByteArray());
    const auto begin = std::chrono::steady_clock::now();
    feeder.stop();
    output.close();
    QVERIFY(std::chrono::steady_clock::now() - begin < std::chrono::seconds(5));
}

// The TLS library shakes hands with ten clients at once; the rest wait, so that of the halves of
// one address the oldest are turned away.
void StreamTlsTest::manyHalvesHoldNobodyUp()
{
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    // The libraries open files of their own for the first viewer.
    QCOMPARE(received(url(), "tls-validation-flags=0", nullptr), QByteArray());
    const auto before = openFiles();
    constexpr int kHalves = 24;
    constexpr int kServed = 8;
    std::vector<std::unique_ptr<RtspClient>> halves;
    for (int i = 0; i < kHalves; ++i) {
        halves.push_back(std::make_unique<RtspClient>(config.port, 0, "127.0.0.3"));
        halves.back()->send(QByteArray::fromHex("1603010200010001fc0303"));
    }
    QCOMPARE(received(url(), "tls-validation-flags=0", nullptr), QByteArray());
    for (int i = 0; i < kHalves; ++i)
        QCOMPARE(halves[i]->closedByServer(i < kHalves - kServed ? 20000 : 1),
                 i < kHalves - kServed);
    halves.clear();
    QVERIFY(waitFor([&] { return openFiles() <= before; }));
}

void StreamTlsTest::closingFreesHalves()
{
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    int files = 0;
    for (int round = 0; round < 4; ++round) {
        QCOMPARE(output.open(config), 0);
        RtspClient half(config.port);
        QVERIFY(half.send(QByteArray::fromHex("1603010200010001fc0303")));
        {
            // Its handshake has come to the server when a later one has ended.
            const RtspClient connection(config.port);
            QVERIFY(TlsClient(connection, "TLS1.2").shakesHands());
        }
        output.close();
        if (round == 0)
            files = openFiles();
        else
            QVERIFY(waitFor([&] { return openFiles() <= files; }, 2000));
    }
}

// With the system's authorities each connection takes megabytes.
void StreamTlsTest::givesMemoryBack()
{
    g_tls_backend_set_default_database(g_tls_backend_get_default(), nullptr);
    const StreamRig rig(encrypted(board));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    const qint64 before = residentBytes();
    for (int i = 0; i < (kSanitized ? 2 : 40); ++i) {
        const RtspClient connection(config.port);
        QVERIFY(TlsClient(connection, "TLS1.2").shakesHands());
    }
    // Sanitizers keep what is freed.
    QVERIFY(kSanitized || residentBytes() > before + 50'000'000);
    QVERIFY(kSanitized || waitFor([&] { return residentBytes() < before + 10'000'000; }));
}

QTEST_GUILESS_MAIN(StreamTlsTest)
#include "stream_tls_test.moc"
