// SPDX-License-Identifier: Apache-2.0
// The certificate that a stream is encrypted with.
#pragma once

#include <gio/gio.h>

#include <string>

#include "sdk/core/glibptr.h"

namespace tq::stream {

/// A certificate with its key, or the reason why it cannot be used.
struct CertificateResult {
    GObjectPtr<GTlsCertificate> certificate;
    std::string error;    ///< "stream.KEY: file: reason", empty when there is a certificate
    std::string warning;  ///< of the same form although there is one, or empty
};

/// Reads a certificate, which those of its authorities may follow, and its private key. What
/// clients would refuse is refused here: dates that are not those of today, a key of another
/// certificate.
/// @param certificate, key PEM files
CertificateResult readCertificate(const std::string& certificate, const std::string& key);

}  // namespace tq::stream
