#pragma once

#include "x509.h"

namespace veltra::softtoken {

/// Encrypts `message` for the key: a big-endian number as long as the modulus. Failure::BadArgument for an
/// unknown padding, and for a message that is empty or too long for key and padding. OAEP: MGF1 with the same
/// hash, empty label (RFC 8017).
Bytes encryptRsa(const RsaPublicKey& key, PaddingMode padding, BytesView message);

/// Decrypts with a canonical "(private-key ..)" expression, for the key with `modulus`. Nobody says which
/// padding there is: OAEP with each hash is tried, and PKCS#1 v1.5 at the end, because random data passes for
/// it most easily. Failure::Undecryptable for whatever is wrong, in the same words; a message of no bytes
/// under PKCS#1 v1.5 counts as wrong, because libgcrypt refuses it.
SecureBytes decryptRsa(BytesView privateKey, BytesView modulus, BytesView ciphertext);

} // namespace veltra::softtoken
