#include "token/key_operations.h"

namespace veltra {

namespace {

int lengthOf(std::span<const unsigned char> bytes) {
    return static_cast<int>(bytes.size());
}

// What is empty is for the library to refuse, but it gets no null pointer.
const unsigned char* dataOf(std::span<const unsigned char> bytes) {
    static constexpr unsigned char kNothing = 0;
    return bytes.empty() ? &kNothing : bytes.data();
}

} // namespace

int signWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> hash, bool pss,
                std::span<unsigned char> signature, std::uint32_t& length) {
    int reported = lengthOf(signature);
    const int result = deviceLibrary().veltra_signHash(key.serial.c_str(), key.keyId.data(), pin.c_str(),
                                                       hash.data(), lengthOf(hash), signature.data(),
                                                       &reported, false, key.libraryContext, pss);
    const int code = checkReportedLength(result, reported, signature.size());
    if (code == kDeviceOk) length = static_cast<std::uint32_t>(reported);
    return code;
}

int decryptWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> ciphertext, bool flag,
                   LibraryBuffer& plaintext) {
    return plaintext.fill([&](unsigned char** out, int* outLength) {
        return deviceLibrary().veltra_decrypt(key.serial.c_str(), key.keyId.data(), pin.c_str(),
                                              ciphertext.data(), lengthOf(ciphertext), out, outLength, flag,
                                              key.libraryContext);
    });
}

int agreeWithKey(const TokenKey& key, const Pin& pin, std::span<const unsigned char> peerPoint,
                 LibraryBuffer& secret) {
    int result = kDeviceOk;
    secret.fill([&](unsigned char** out, int* outLength) {
        result = deviceLibrary().veltra_ecdhDerive(key.serial.c_str(), key.keyId.data(), pin.c_str(),
                                                   peerPoint.data(), lengthOf(peerPoint), out, outLength,
                                                   key.libraryContext);
        return result;
    });
    return result;
}

int verifySignature(const std::string& serial, const VerificationKey& key,
                    std::span<const unsigned char> hash, std::span<const unsigned char> signature, bool pss,
                    void* libraryContext) {
    return deviceLibrary().veltra_verifySignatureHash(
        key.keyType, serial.c_str(), hash.data(), lengthOf(hash), dataOf(key.bytes), lengthOf(key.bytes),
        dataOf(signature), lengthOf(signature), libraryContext, pss);
}

EncryptionType rsaEncryptionType(std::uint32_t bits) {
    switch (bits) {
    case 1024:
        return EncryptionType::Rsa1024;
    case 3072:
        return EncryptionType::Rsa3072;
    case 4096:
        return EncryptionType::Rsa4096;
    default:
        return EncryptionType::Rsa2048;
    }
}

int encryptForKey(EncryptionType type, PaddingMode padding, std::span<const unsigned char> plaintext,
                  std::span<const unsigned char> publicKey, std::span<unsigned char> ciphertext,
                  std::uint32_t& length, void* libraryContext) {
    int reported = lengthOf(ciphertext);
    const int result = deviceLibrary().veltra_encrypt(type, padding, plaintext.data(), lengthOf(plaintext),
                                                      ciphertext.data(), &reported, dataOf(publicKey),
                                                      lengthOf(publicKey), libraryContext);
    const int code = checkReportedLength(result, reported, ciphertext.size());
    if (code == kDeviceOk) length = static_cast<std::uint32_t>(reported);
    return code;
}

} // namespace veltra
