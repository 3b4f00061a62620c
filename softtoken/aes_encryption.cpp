#include "aes_encryption.h"

#include <algorithm>

namespace veltra::softtoken {

namespace {

constexpr std::size_t kSemiblockLength = 8;

CipherHandle openBlockCipher(BytesView key, BytesView iv) {
    if (iv.empty()) return openAes(GCRY_CIPHER_MODE_ECB, key);
    if (iv.size() != kAesBlockLength) throw TokenError(Failure::BadArgument, "the IV is not one block");
    CipherHandle cipher = openAes(GCRY_CIPHER_MODE_CBC, key);
    checkCrypto(gcry_cipher_setiv(cipher.get(), iv.data(), iv.size()), "AES-CBC IV");
    return cipher;
}

/// How much of the plaintext is padding; 0 when it does not end like PKCS#7 (RFC 5652, 6.3).
std::size_t paddingLength(BytesView plaintext) {
    const std::size_t length = plaintext.back();
    if (length == 0 || length > kAesBlockLength) return 0;
    const BytesView padding = plaintext.last(length);
    const bool valid =
        std::ranges::all_of(padding, [&](unsigned char byte) { return std::size_t{byte} == length; });
    return valid ? length : 0;
}

} // namespace

CallerBuffer encryptAes(BytesView key, BytesView iv, BytesView plaintext, BlockPadding padding) {
    const CipherHandle cipher = openBlockCipher(key, iv);
    const std::size_t partial = plaintext.size() % kAesBlockLength;
    if (padding == BlockPadding::None && partial != 0) {
        throw TokenError(Failure::BadArgument, "data that is not padded must be whole blocks");
    }
    const std::size_t added = padding == BlockPadding::Pkcs7 ? kAesBlockLength - partial : 0;
    CallerBuffer result(plaintext.size() + added);
    const std::span<unsigned char> bytes = result.bytes();
    std::ranges::copy(plaintext, bytes.begin());
    std::ranges::fill(bytes.last(added), static_cast<unsigned char>(added));
    checkCrypto(gcry_cipher_encrypt(cipher.get(), bytes.data(), bytes.size(), nullptr, 0), "AES");
    return result;
}

CallerBuffer decryptAes(BytesView key, BytesView iv, BytesView ciphertext) {
    const CipherHandle cipher = openBlockCipher(key, iv);
    if (ciphertext.empty() || ciphertext.size() % kAesBlockLength != 0) {
        throw TokenError(Failure::Undecryptable, "encrypted data must be whole blocks");
    }
    CallerBuffer result(ciphertext);
    const std::span<unsigned char> bytes = result.bytes();
    checkCrypto(gcry_cipher_decrypt(cipher.get(), bytes.data(), bytes.size(), nullptr, 0), "AES");
    result.truncate(bytes.size() - paddingLength(bytes));
    return result;
}

SecureBytes unwrapKey(BytesView key, BytesView wrapped) {
    const CipherHandle cipher = openAes(GCRY_CIPHER_MODE_AESWRAP, key);
    if (wrapped.size() < 3 * kSemiblockLength || wrapped.size() % kSemiblockLength != 0) {
        throw TokenError(Failure::Undecryptable, "a wrapped key is three or more times eight bytes");
    }
    SecureBytes unwrapped(wrapped.size() - kSemiblockLength);
    if (gcry_cipher_decrypt(cipher.get(), unwrapped.data(), unwrapped.size(), wrapped.data(),
                            wrapped.size()) != 0) {
        throw TokenError(Failure::Undecryptable, "the data was not wrapped with this key");
    }
    return unwrapped;
}

} // namespace veltra::softtoken
