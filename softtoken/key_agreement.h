#pragma once

#include "key_pair_crypto.h"

namespace veltra::softtoken {

/// The secret that an EC key shares with the owner of `peer`: the x coordinate of their Diffie-Hellman point,
/// big-endian, kind.numberLength bytes (NIST SP 800-56A, 5.7.1.2). `privateKey` is a canonical "(private-key
/// ..)" expression of the kind, `peer` an uncompressed point: 04 || X || Y. Failure::NotSupported for an RSA
/// key; Failure::BadArgument unless `peer` is a point of the key's curve in exactly this form, which the
/// point at infinity does not have: another point would give away bits of the private key.
SecureBytes ecdhSecret(const KeyKind& kind, BytesView privateKey, BytesView peer);

} // namespace veltra::softtoken
