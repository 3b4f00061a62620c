#pragma once

#include "foundation/device_library.h"
#include "foundation/library_buffer.h"

#include <climits>
#include <span>
#include <string>

namespace veltra {

/// The selector of veltra_encrypt_aes for a key of `keyLength` bytes. Every length but 16 counts as AES-192
/// or AES-256: the caller checks that it is one.
EncryptionType aesEncryptionType(std::size_t keyLength, bool ecb);

/// An AES key held in memory and how it is used.
struct AesCipher {
    std::span<const unsigned char> key;
    bool ecb = false;
    std::span<const unsigned char> iv; ///< passed as it is; empty: none
};

/// Encrypts with the device library; `serial` may be empty. `final`: the last piece, which is padded. Lengths
/// are at most INT_MAX. Returns the library's code.
int encryptAes(const std::string& serial, const AesCipher& cipher, std::span<const unsigned char> plaintext,
               bool final, LibraryBuffer& ciphertext, void* libraryContext);

inline constexpr std::size_t kAesBlockLength = 16;

/// The longest input of decryptSymmetric, which gives the library room for one block more.
inline constexpr std::size_t kMaxSymmetricCiphertext = INT_MAX - kAesBlockLength;

/// Decrypts with the device library; `serial` may be empty. The library is not told the mode. Of `plaintext`
/// nothing is left after a failure. Returns the library's code.
int decryptSymmetric(const std::string& serial, const AesCipher& cipher,
                     std::span<const unsigned char> ciphertext, SecretBuffer& plaintext,
                     void* libraryContext);

} // namespace veltra
