#include "token/aes_encryption.h"

namespace veltra {

EncryptionType aesEncryptionType(std::size_t keyLength, bool ecb) {
    const bool isAes128 = keyLength == 16;
    if (ecb) return isAes128 ? EncryptionType::Aes128Ecb : EncryptionType::Aes192Or256Ecb;
    return isAes128 ? EncryptionType::Aes128Cbc : EncryptionType::Aes192Or256Cbc;
}

int encryptAes(const std::string& serial, const AesCipher& cipher, std::span<const unsigned char> plaintext,
               bool final, LibraryBuffer& ciphertext, void* libraryContext) {
    return ciphertext.fill([&](unsigned char** out, int* outLength) {
        return deviceLibrary().veltra_encrypt_aes(
            serial.c_str(), aesEncryptionType(cipher.key.size(), cipher.ecb), cipher.key.data(),
            static_cast<int>(cipher.key.size()), plaintext.data(), static_cast<int>(plaintext.size()), out,
            outLength, final, cipher.iv.empty() ? nullptr : cipher.iv.data(),
            static_cast<int>(cipher.iv.size()), nullptr, 0, libraryContext);
    });
}

} // namespace veltra
