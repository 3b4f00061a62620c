#pragma once

#include "foundation/device_library.h"
#include "foundation/library_buffer.h"
#include "token/pin.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace veltra {

/// Names a key pair on a token for the operations below; refers to what it was made from.
struct TokenKey {
    const std::string& serial;
    std::span<const unsigned char, kKeyIdLength> keyId;
    void* libraryContext;
};

// What a token does with its keys, in both front ends. All bytes are big-endian, every length is at most
// INT_MAX, and each function returns the library's code; an output length that the library reports and that
// does not fit its buffer is a failure.

/// Signs `hash` into `signature`, whose first `length` bytes are the signature on success.
int signWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> hash, bool pss,
                std::span<unsigned char> signature, std::uint32_t& length);

/// Decrypts with the private key. `flag` is that of the key's record on the token. The padding is the token's
/// choice.
int decryptWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> ciphertext, bool flag,
                   LibraryBuffer& plaintext);

/// The shared secret of an EC key and a peer's uncompressed point. Here a success that comes without a secret
/// keeps its code, and `secret` is empty.
int agreeWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> peerPoint,
                 LibraryBuffer& secret);

/// A public key as the library's verification takes it.
struct VerificationKey {
    std::uint32_t keyType = 0;        ///< KeyType
    std::vector<unsigned char> bytes; ///< DER for RSA, the uncompressed point for EC
};

/// Whether `signature` is one of `hash` under `key`: 0 when it is.
int verifySignature(const std::string& serial, const VerificationKey& key,
                    std::span<const unsigned char> hash, std::span<const unsigned char> signature, bool pss,
                    void* libraryContext);

/// The selector of veltra_encrypt for an RSA key of this length; that of 2048 bits for every other length.
EncryptionType rsaEncryptionType(std::uint32_t bits);

/// Encrypts for an RSA public key (DER) into `ciphertext`, whose first `length` bytes it is on success. An
/// empty key is passed on as one of no bytes.
int encryptForKey(EncryptionType type, PaddingMode padding, std::span<const unsigned char> plaintext,
                  std::span<const unsigned char> publicKey, std::span<unsigned char> ciphertext,
                  std::uint32_t& length, void* libraryContext);

} // namespace veltra
