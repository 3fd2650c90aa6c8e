// SPDX-License-Identifier: Apache-2.0
// Certificates for tests of encryption, made when they are needed.
#pragma once

#include <gnutls/x509.h>

#include <QString>
#include <string>

/// A private key and the certificate of its holder, as PEM files.
class Certificate {
public:
    /// What differs from a certificate that 127.0.0.1 may show today.
    struct Options {
        QString address = "127.0.0.1";
        int begin = -3600;  ///< seconds from now
        int end = 86400;    ///< seconds from now
        bool authority = false;
    };

    /// @param base path of the files without ".pem" and ".key"
    /// @param issuer whose key signs it; null: its own
    Certificate(const QString& base, const Options& options, const Certificate* issuer = nullptr);
    /// Of an authority, signed by itself.
    explicit Certificate(const QString& base);
    ~Certificate();
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    QString file() const { return path + ".pem"; }
    QString keyFile() const { return path + ".key"; }

    /// The key, readable with a password only.
    std::string lockedKey(const char* password) const;

private:
    void describe(const Options& options);

    const QString path;
    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_crt_t certificate = nullptr;
};
