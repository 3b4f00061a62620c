#pragma once

#include "x509.h"

namespace veltra::softtoken {

/// Encrypts `message` for the key: a big-endian number as long as the modulus. Failure::BadArgument for an
/// unknown padding, and for a message that is empty or too long for key and padding. OAEP: MGF1 with the same
/// hash, empty label (RFC 8017).
Bytes encryptRsa(const RsaPublicKey& key, PaddingMode padding, BytesView message);

/// Decrypts with a canonical "(private-key ..)" expression, for the key with `modulus`. Nobody says which
/// padding there is: removePadding() finds it. Failure::Undecryptable for whatever is wrong, in the same
/// words and, as long as the ciphertext has the key's length, after the same work.
SecureBytes decryptRsa(BytesView privateKey, BytesView modulus, BytesView ciphertext);

} // namespace veltra::softtoken
