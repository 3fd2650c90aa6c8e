// SPDX-License-Identifier: Apache-2.0
// Tests of reading a certificate: what clients would refuse is refused, in words that name the
// file.
#include "sdk/stream/certificate.h"

#include <sys/stat.h>

#include <QtTest>

#include "tests/support/certificates.h"

using tq::stream::CertificateResult;
using tq::stream::readCertificate;

namespace {

void write(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

CertificateResult read(const QString& certificate, const QString& key)
{
    return readCertificate(certificate.toStdString(), key.toStdString());
}

}  // namespace

class CertificateTest : public QObject {
    Q_OBJECT

private slots:
    void readsWhatIsGood();
    void readsAChain();
    void refuses_data();
    void refuses();
    void tellsOfAKeyThatEverybodyReads();

private:
    QString path(const char* name) const { return folder.filePath(name); }

    QTemporaryDir folder;
    const Certificate authority{path("authority")};
    const Certificate good{path("good"), {}, &authority};
};

void CertificateTest::readsWhatIsGood()
{
    for (const Certificate* each : {&good, &authority}) {
        const CertificateResult result = read(each->file(), each->keyFile());
        QVERIFY2(result.certificate != nullptr, result.error.c_str());
        QVERIFY(result.error.empty() && result.warning.empty());
    }
    // Both in one file.
    write(path("both.pem"), contents(good.file()) + contents(good.keyFile()));
    QVERIFY(::chmod(qPrintable(path("both.pem")), 0600) == 0);
    QVERIFY(read(path("both.pem"), path("both.pem")).certificate);
}

void CertificateTest::readsAChain()
{
    const Certificate between(path("between"), {{}, -3600, 86400, true}, &authority);
    const Certificate last(path("last"), {}, &between);
    write(path("chain.pem"), contents(last.file()) + contents(between.file()));
    const CertificateResult result = read(path("chain.pem"), last.keyFile());
    QVERIFY2(result.certificate != nullptr, result.error.c_str());
    QVERIFY(g_tls_certificate_get_issuer(result.certificate.get()) != nullptr);
}

void CertificateTest::refuses_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("error");
    const Certificate expired(path("expired"), {"127.0.0.1", -7200, -3600}, &authority);
    const Certificate early(path("early"), {"127.0.0.1", 3600, 7200}, &authority);
    const Certificate lateAuthority(path("late"), {{}, -7200, -3600, true});
    const Certificate ofLate(path("of-late"), {}, &lateAuthority);
    write(path("late-chain.pem"), contents(ofLate.file()) + contents(lateAuthority.file()));
    write(path("locked.key"), QByteArray::fromStdString(good.lockedKey("secret")));
    write(path("empty"), "");
    write(path("text"), "-----BEGIN CERTIFICATE-----\nnonsense\n-----END CERTIFICATE-----\n");
    write(path("large"), QByteArray((1 << 20) + 1, ' '));
    QVERIFY(::mkfifo(qPrintable(path("pipe")), 0600) == 0);

    const QString file = good.file();
    const QString key = good.keyFile();
    const auto row = [](const char* name, const QString& certificateFile, const QString& keyFile,
                        const QString& error) {
        QTest::newRow(name) << certificateFile << keyFile << error;
    };
    const QString certificateOf = "stream.certificate: %1: ";
    const QString keyOf = "stream.key: %1: ";
    const QString missing = "cannot be read: No such file or directory$";
    row("no certificate", path("none"), key, certificateOf.arg(path("none")) + missing);
    row("no key", file, path("none"), keyOf.arg(path("none")) + missing);
    row("folder", folder.path(), key, certificateOf.arg(folder.path()) + "is a folder$");
    row("pipe", file, path("pipe"), keyOf.arg(path("pipe")) + "is not a regular file$");
    row("large", path("large"), key, certificateOf.arg(path("large")) + "larger than 1 MiB$");
    row("empty", path("empty"), key, certificateOf.arg(path("empty")) + "is no PEM certificate: ");
    row("nonsense", path("text"), key, certificateOf.arg(path("text")) + "is no PEM certificate: ");
    row("key for certificate", key, key, certificateOf.arg(key) + "is no PEM certificate: ");
    row("certificate for key", file, file, keyOf.arg(file) + "is no PEM private key");
    row("locked key", file, path("locked.key"),
        keyOf.arg(path("locked.key")) + "is no PEM private key without a password: ");
    row("other key", file, authority.keyFile(),
        keyOf.arg(authority.keyFile()) + "is not the key of " + file + "$");
    row("expired", expired.file(), expired.keyFile(),
        certificateOf.arg(expired.file()) + "has expired on [0-9-]{10} [0-9:]{8} UTC$");
    row("too early", early.file(), early.keyFile(),
        certificateOf.arg(early.file()) + "is not valid before .* UTC, and now it is .* UTC$");
    row("authority expired", path("late-chain.pem"), ofLate.keyFile(),
        certificateOf.arg(path("late-chain.pem")) + "has expired on ");
}

void CertificateTest::refuses()
{
    QFETCH(QString, certificate);
    QFETCH(QString, key);
    QFETCH(QString, error);
    const CertificateResult result = read(certificate, key);
    QVERIFY(!result.certificate);
    const QString reason = QString::fromStdString(result.error);
    QVERIFY2(QRegularExpression('^' + error).match(reason).hasMatch(), result.error.c_str());
    QVERIFY(!reason.contains('\n'));
}

void CertificateTest::tellsOfAKeyThatEverybodyReads()
{
    QVERIFY(::chmod(qPrintable(good.keyFile()), 0644) == 0);
    const CertificateResult result = read(good.file(), good.keyFile());
    QVERIFY(::chmod(qPrintable(good.keyFile()), 0600) == 0);
    QVERIFY(result.certificate);
    QCOMPARE(QString::fromStdString(result.warning),
             "stream.key: everybody on this machine may read it, until: chmod o= '" +
                 good.keyFile() + "'");
}

QTEST_GUILESS_MAIN(CertificateTest)
#include "certificate_test.moc"
