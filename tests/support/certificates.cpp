// SPDX-License-Identifier: Apache-2.0
// Certificates for tests of encryption, made when they are needed.
#include "tests/support/certificates.h"

#include <gnutls/gnutls.h>
#include <sys/stat.h>

#include <QFile>
#include <ctime>

namespace {

void check(int result)
{
    if (result < 0) {
        qFatal("GnuTLS: %s", gnutls_strerror(result));
    }
}

std::string taken(gnutls_datum_t& datum)
{
    std::string text(reinterpret_cast<const char*>(datum.data), datum.size);
    gnutls_free(datum.data);
    return text;
}

void write(const QString& path, const std::string& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.data(), qint64(text.size())) < 0) {
        qFatal("cannot write %s", qPrintable(path));
    }
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
}

}  // namespace

Certificate::Certificate(const QString& base) : Certificate(base, {{}, -3600, 86400, true}) {}

Certificate::Certificate(const QString& base, const Options& options, const Certificate* issuer)
    : path(base)
{
    check(gnutls_x509_privkey_init(&key));
    check(gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                                       GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0));
    check(gnutls_x509_crt_init(&certificate));
    describe(options);
    const Certificate& signer = issuer ? *issuer : *this;
    check(gnutls_x509_crt_sign2(certificate, signer.certificate, signer.key, GNUTLS_DIG_SHA256, 0));
    gnutls_datum_t text{};
    check(gnutls_x509_crt_export2(certificate, GNUTLS_X509_FMT_PEM, &text));
    write(file(), taken(text));
    check(gnutls_x509_privkey_export2_pkcs8(key, GNUTLS_X509_FMT_PEM, nullptr, GNUTLS_PKCS_PLAIN,
                                            &text));
    write(keyFile(), taken(text));
}

Certificate::~Certificate()
{
    gnutls_x509_crt_deinit(certificate);
    gnutls_x509_privkey_deinit(key);
}

std::string Certificate::lockedKey(const char* password) const
{
    gnutls_datum_t text{};
    check(gnutls_x509_privkey_export2_pkcs8(key, GNUTLS_X509_FMT_PEM, password,
                                            GNUTLS_PKCS_PBES2_AES_256, &text));
    return taken(text);
}

void Certificate::describe(const Options& options)
{
    static unsigned char number = 0;
    ++number;
    check(gnutls_x509_crt_set_version(certificate, 3));
    check(gnutls_x509_crt_set_serial(certificate, &number, 1));
    const QByteArray name = "CN=test " + QByteArray::number(number);
    check(gnutls_x509_crt_set_dn(certificate, name.constData(), nullptr));
    const std::time_t now = std::time(nullptr);
    check(gnutls_x509_crt_set_activation_time(certificate, now + options.begin));
    check(gnutls_x509_crt_set_expiration_time(certificate, now + options.end));
    check(gnutls_x509_crt_set_key(certificate, key));
    check(gnutls_x509_crt_set_basic_constraints(certificate, options.authority, -1));
    if (!options.address.isEmpty()) {
        unsigned char bytes[4] = {};
        int at = 0;
        for (const QString& part : options.address.split('.')) {
            bytes[at++ % 4] = static_cast<unsigned char>(part.toInt());
        }
        check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS, bytes, 4,
                                                   GNUTLS_FSAN_SET));
    }
}
