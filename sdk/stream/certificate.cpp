// SPDX-License-Identifier: Apache-2.0
// The certificate that a stream is encrypted with.
#include "sdk/stream/certificate.h"

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <array>
#include <ctime>
#include <stdexcept>

#include "sdk/core/readfile.h"

namespace tq::stream {

namespace {

constexpr std::size_t kLargestFile = 1u << 20;

/// Why a file cannot be used; what() is "stream.KEY: file: reason".
class Unusable : public std::runtime_error {
public:
    Unusable(const char* member, const std::string& path, const std::string& reason)
        : std::runtime_error(std::string("stream.") + member + ": " + path + ": " + reason)
    {
    }
};

/// One of the two files.
class PemFile {
public:
    PemFile(const char* memberName, const std::string& file)
        : member(memberName), path(file), contents(readRegularFile(file, kLargestFile))
    {
        if (!contents) {
            refuse(contents.error);
        }
    }

    [[noreturn]] void refuse(const std::string& reason) const
    {
        throw Unusable(member, path, reason);
    }

    /// Refuses the file when a call of GnuTLS failed.
    void check(int result, const std::string& what) const
    {
        if (result < 0) {
            refuse(what + ": " + gnutls_strerror(result));
        }
    }

    const std::string& text() const { return *contents.bytes; }
    gnutls_datum_t datum() const
    {
        // GnuTLS takes what it reads as not constant.
        auto* const data = reinterpret_cast<unsigned char*>(const_cast<char*>(text().data()));
        return {data, static_cast<unsigned>(text().size())};
    }
    bool readableByAll() const { return contents.readableByAll; }

private:
    const char* const member;
    const std::string path;
    const FileContents contents;
};

using KeyId = std::array<unsigned char, 32>;

std::string dateText(std::time_t time)
{
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text.data();
}

void checkDates(const PemFile& file, gnutls_x509_crt_t certificate)
{
    const std::time_t now = std::time(nullptr);
    const std::time_t begin = gnutls_x509_crt_get_activation_time(certificate);
    const std::time_t end = gnutls_x509_crt_get_expiration_time(certificate);
    if (now > end) {
        file.refuse("has expired on " + dateText(end));
    }
    if (now < begin) {
        file.refuse("is not valid before " + dateText(begin) + ", and now it is " + dateText(now));
    }
}

/// Which key the certificate is of, the first one in the file.
KeyId certifiedKey(const PemFile& file)
{
    struct List {
        gnutls_x509_crt_t* certificates = nullptr;
        unsigned size = 0;
        ~List()
        {
            for (unsigned i = 0; i < size; ++i) {
                gnutls_x509_crt_deinit(certificates[i]);
            }
            gnutls_free(certificates);
        }
    } list;
    const gnutls_datum_t pem = file.datum();
    file.check(
        gnutls_x509_crt_list_import2(&list.certificates, &list.size, &pem, GNUTLS_X509_FMT_PEM, 0),
        "is no PEM certificate");
    for (unsigned i = 0; i < list.size; ++i) {
        checkDates(file, list.certificates[i]);
    }
    KeyId id{};
    std::size_t size = id.size();
    file.check(
        gnutls_x509_crt_get_key_id(list.certificates[0], GNUTLS_KEYID_USE_SHA256, id.data(), &size),
        "cannot be used");
    return id;
}

KeyId privateKey(const PemFile& file)
{
    struct Key {
        gnutls_x509_privkey_t key = nullptr;
        ~Key() { gnutls_x509_privkey_deinit(key); }
    } privateKey;
    file.check(gnutls_x509_privkey_init(&privateKey.key), "cannot be used");
    const gnutls_datum_t pem = file.datum();
    file.check(gnutls_x509_privkey_import2(privateKey.key, &pem, GNUTLS_X509_FMT_PEM, nullptr, 0),
               "is no PEM private key without a password");
    KeyId id{};
    std::size_t size = id.size();
    file.check(
        gnutls_x509_privkey_get_key_id(privateKey.key, GNUTLS_KEYID_USE_SHA256, id.data(), &size),
        "cannot be used");
    return id;
}

}  // namespace

CertificateResult readCertificate(const std::string& certificatePath, const std::string& keyPath)
{
    CertificateResult result;
    try {
        const PemFile certificate("certificate", certificatePath);
        const PemFile key("key", keyPath);
        if (certifiedKey(certificate) != privateKey(key)) {
            key.refuse("is not the key of " + certificatePath);
        }
        if (g_tls_backend_supports_tls(g_tls_backend_get_default()) == FALSE) {
            certificate.refuse("cannot be used: the package glib-networking is not installed");
        }
        const std::string both = certificate.text() + '\n' + key.text();
        Failure failure;
        result.certificate.reset(g_tls_certificate_new_from_pem(
            both.data(), static_cast<gssize>(both.size()), failure.place()));
        if (!result.certificate) {
            certificate.refuse(failure.text("cannot be used"));
        }
        if (key.readableByAll()) {
            result.warning = "stream.key: " + everybodyReads(keyPath);
        }
    } catch (const Unusable& reason) {
        result.error = reason.what();
    }
    return result;
}

}  // namespace tq::stream
