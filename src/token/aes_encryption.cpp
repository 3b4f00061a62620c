#include "token/aes_encryption.h"

namespace veltra {

namespace {

// The library gets no pointer where there are no bytes.
const unsigned char* ivBytes(const AesCipher& cipher) {
    return cipher.iv.empty() ? nullptr : cipher.iv.data();
}

} // namespace

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
            outLength, final, ivBytes(cipher), static_cast<int>(cipher.iv.size()), nullptr, 0,
            libraryContext);
    });
}

int decryptSymmetric(const std::string& serial, const AesCipher& cipher,
                     std::span<const unsigned char> ciphertext, SecretBuffer& plaintext,
                     void* libraryContext) {
    plaintext.allocate(ciphertext.size() + kAesBlockLength);
    auto reported = static_cast<int>(plaintext.size());
    const int result = deviceLibrary().veltra_decryptSymetric(
        serial.c_str(), ciphertext.data(), static_cast<int>(ciphertext.size()), plaintext.data(), &reported,
        ivBytes(cipher), static_cast<int>(cipher.iv.size()), cipher.key.data(),
        static_cast<int>(cipher.key.size()), libraryContext);
    const int code = checkReportedLength(result, reported, plaintext.size());
    plaintext.truncate(code == kDeviceOk ? static_cast<std::size_t>(reported) : 0);
    return code;
}

} // namespace veltra
