#pragma once

#include "foundation/device_library.h"
#include "foundation/library_buffer.h"

#include <span>
#include <string>

namespace veltra {

/// The selector of veltra_encrypt_aes for a key of `keyLength` bytes.
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

} // namespace veltra
