#pragma once

// The part of libgcrypt that every file here needs: initialisation, buffers in wiped memory, random bytes,
// message digests, and turning error codes into exceptions.

#include "failure.h"

#include <cstddef>
#include <gcrypt.h>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace veltra::softtoken {

/// Initialises libgcrypt once per module; cheap afterwards. Thread-safe.
void initialiseCrypto();

/// Memory from libgcrypt's secure pool, which is wiped when it is released. Throws std::bad_alloc.
void* allocateSecure(std::size_t length);

template <class T>
struct SecureAllocator {
    using value_type = T;

    SecureAllocator() = default;
    template <class U>
    explicit SecureAllocator(const SecureAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) { return static_cast<T*>(allocateSecure(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t) noexcept { gcry_free(memory); }

    bool operator==(const SecureAllocator&) const noexcept { return true; }
};

using Bytes = std::vector<unsigned char>;
using SecureBytes = std::vector<unsigned char, SecureAllocator<unsigned char>>; ///< wiped on release
using BytesView = std::span<const unsigned char>;

/// The bytes of a text, without a terminator.
BytesView bytesOf(std::string_view text);

/// Upper-case hexadecimal form.
std::string toHex(BytesView bytes);

/// Throws Failure::Crypto naming `what` when `error` is not zero.
void checkCrypto(gcry_error_t error, const char* what);

/// Fills `out` with random bytes of key strength.
void fillRandom(std::span<unsigned char> out);
Bytes randomBytes(std::size_t length);

struct CipherCloser {
    void operator()(gcry_cipher_hd_t cipher) const noexcept { gcry_cipher_close(cipher); }
};
using CipherHandle = std::unique_ptr<std::remove_pointer_t<gcry_cipher_hd_t>, CipherCloser>;

/// AES in one of libgcrypt's modes, with the key set; 16, 24 and 32 bytes choose AES-128, AES-192 and
/// AES-256, Failure::BadArgument for another length.
CipherHandle openAes(gcry_cipher_modes mode, BytesView key);

/// HMAC-SHA-256, 32 bytes.
Bytes hmacSha256(BytesView key, BytesView message);

/// Compares in time that depends on the lengths only.
bool equalConstantTime(BytesView left, BytesView right);

} // namespace veltra::softtoken
