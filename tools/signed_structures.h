#pragma once

#include "token_key.h"

namespace veltra {

/// A detached CMS message (RFC 5652) in DER with the certificate inside, for a key that the platform's
/// message functions cannot reach. Signed attributes, if wanted: content type, message digest and signing
/// time.
Bytes detachedSignature(const TokenKey& key, const CERT_CONTEXT& certificate, const HashAlgorithm& hash,
                        const Pieces& data, bool withAttributes);

/// A self-signed certificate (RFC 5280, version 3 without extensions) in DER for such a key. `subject` is a
/// name in DER.
Bytes selfSignedCertificate(const TokenKey& key, const HashAlgorithm& hash, const Bytes& subject,
                            const SYSTEMTIME& start, const SYSTEMTIME& end);

/// The DER form of a time.
Bytes encodedTime(const FILETIME& time);

} // namespace veltra
