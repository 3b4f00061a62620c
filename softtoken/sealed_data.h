#pragma once

#include "expression.h"

#include <string_view>

namespace veltra::softtoken {

constexpr std::size_t kSealingKeyLength = 32;

/// Encrypts and authenticates `plaintext` with AES-256-GCM (NIST SP 800-38D) under a 32-byte key and a fresh
/// 96-bit nonce: "(sealed (nonce ..) (ciphertext ..) (tag ..))". `context` is authenticated, not stored.
Expression seal(BytesView key, BytesView context, BytesView plaintext);

/// The plaintext of seal(). Failure::Damaged when the key, the context or any bit of it is not the right one.
SecureBytes unseal(BytesView key, BytesView context, const Expression& sealed);

/// A 32-byte key from a PIN: scrypt (RFC 7914) with r = 8 and p = 1. `cost` is its N, a power of two from
/// 2^10 to 2^20; Failure::Damaged for another.
SecureBytes deriveKeyFromPin(std::string_view pin, BytesView salt, std::uint64_t cost);

} // namespace veltra::softtoken
