#pragma once

// Certificates and public keys in their X.509 forms (RFC 5280), read by the platform.

#include "gcrypt_support.h"

#include <optional>

namespace veltra::softtoken {

/// An RSA public key, both numbers big-endian.
struct RsaPublicKey {
    Bytes modulus;
    Bytes exponent;
};

/// Reads a DER SubjectPublicKeyInfo; nothing when it is not one of an RSA key.
std::optional<RsaPublicKey> parseRsaPublicKey(BytesView der);

/// Names of a DER certificate, in UTF-8; distinguished names as "CN=..., O=..., C=...", the most specific
/// part first, without quotes: to be read and searched, not to be parsed back. Failure::BadArgument when it
/// is not a certificate.
CertificateDetails certificateDetails(BytesView der);

/// The public key of a DER certificate, in the form of VeltraKeyPair: the modulus or the uncompressed point;
/// empty for other algorithms. Failure::BadArgument when it is not a certificate.
Bytes certifiedPublicKey(BytesView der);

/// The certificates in a file's content, as DER: all "CERTIFICATE" sections of a PEM text (RFC 7468) in their
/// order, or one DER certificate. What is not a certificate is left out.
std::vector<Bytes> certificatesIn(BytesView content);

} // namespace veltra::softtoken
