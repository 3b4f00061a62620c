#pragma once

#include "caller_buffer.h"

namespace veltra::softtoken {

constexpr std::size_t kAesBlockLength = 16;

enum class BlockPadding { Pkcs7, None };

/// AES-CBC when `iv` is one block, AES-ECB when it is empty (NIST SP 800-38A); Failure::BadArgument for
/// another IV or key length. Without padding `plaintext` is whole blocks, or Failure::BadArgument.
CallerBuffer encryptAes(BytesView key, BytesView iv, BytesView plaintext, BlockPadding padding);

/// Undoes encryptAes() with either padding: nobody says which it was, so PKCS#7 padding is taken off where
/// the last block ends in valid padding, and everything is handed back where it does not. Padded data comes
/// back exactly; of unpadded data, only plaintext that itself ends like padding is shortened.
/// Failure::BadArgument for key and IV as encryptAes(); Failure::Undecryptable unless `ciphertext` is one or
/// more whole blocks.
CallerBuffer decryptAes(BytesView key, BytesView iv, BytesView ciphertext);

/// Unwraps a key with the key-encryption key `key` (RFC 3394, default initial value): eight bytes fewer.
/// Failure::Undecryptable when `wrapped` was not wrapped with it.
SecureBytes unwrapKey(BytesView key, BytesView wrapped);

} // namespace veltra::softtoken
