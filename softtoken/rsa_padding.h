#pragma once

#include "gcrypt_support.h"

#include <optional>

namespace veltra::softtoken {

/// The message in `block`, a decrypted RSA block as long as the modulus, when it is padded as RFC 8017 says:
/// OAEP (7.1.2; MGF1 with the same hash, empty label) with SHA-1, SHA-256, SHA-384 or SHA-512, or PKCS#1 v1.5
/// (7.2.2), which comes last because random data passes for it most easily. Nothing when it is none of them.
/// All are looked at to the end, so that the time does not tell how far a wrong padding was right.
std::optional<SecureBytes> removePadding(BytesView block);

} // namespace veltra::softtoken
