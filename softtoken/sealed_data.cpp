#include "sealed_data.h"

#include <bit>

namespace veltra::softtoken {

namespace {

constexpr std::size_t kNonceLength = 12;
constexpr std::size_t kTagLength = 16;

CipherHandle openGcm(BytesView key, BytesView nonce, BytesView context) {
    CipherHandle gcm = openAes(GCRY_CIPHER_MODE_GCM, key);
    checkCrypto(gcry_cipher_setiv(gcm.get(), nonce.data(), nonce.size()), "AES-GCM nonce");
    checkCrypto(gcry_cipher_authenticate(gcm.get(), context.data(), context.size()), "AES-GCM context");
    return gcm;
}

} // namespace

Expression seal(BytesView key, BytesView context, BytesView plaintext) {
    const Bytes nonce = randomBytes(kNonceLength);
    const CipherHandle gcm = openGcm(key, nonce, context);
    Bytes ciphertext(plaintext.size());
    checkCrypto(gcry_cipher_final(gcm.get()), "AES-GCM");
    checkCrypto(gcry_cipher_encrypt(gcm.get(), ciphertext.data(), ciphertext.size(), plaintext.data(),
                                    plaintext.size()),
                "AES-GCM");
    Bytes tag(kTagLength);
    checkCrypto(gcry_cipher_gettag(gcm.get(), tag.data(), tag.size()), "AES-GCM");
    return Expression::build("(sealed %S %S %S)", Expression::field("nonce", nonce).get(),
                             Expression::field("ciphertext", ciphertext).get(),
                             Expression::field("tag", tag).get());
}

SecureBytes unseal(BytesView key, BytesView context, const Expression& sealed) {
    const Bytes nonce = sealed.bytes("nonce");
    const Bytes ciphertext = sealed.bytes("ciphertext");
    const Bytes tag = sealed.bytes("tag");
    if (nonce.size() != kNonceLength || tag.size() != kTagLength) {
        throw TokenError(Failure::Damaged, "sealed data has the wrong shape");
    }
    const CipherHandle gcm = openGcm(key, nonce, context);
    SecureBytes plaintext(ciphertext.size());
    checkCrypto(gcry_cipher_final(gcm.get()), "AES-GCM");
    checkCrypto(gcry_cipher_decrypt(gcm.get(), plaintext.data(), plaintext.size(), ciphertext.data(),
                                    ciphertext.size()),
                "AES-GCM");
    if (gcry_cipher_checktag(gcm.get(), tag.data(), tag.size()) != 0) {
        throw TokenError(Failure::Damaged, "sealed data does not authenticate");
    }
    return plaintext;
}

SecureBytes deriveKeyFromPin(std::string_view pin, BytesView salt, std::uint64_t cost) {
    if (!std::has_single_bit(cost) || cost < (1u << 10) || cost > (1u << 20)) {
        throw TokenError(Failure::Damaged, "unusable scrypt cost");
    }
    SecureBytes key(kSealingKeyLength);
    checkCrypto(gcry_kdf_derive(pin.data(), pin.size(), GCRY_KDF_SCRYPT, static_cast<int>(cost), salt.data(),
                                salt.size(), 1, key.size(), key.data()),
                "scrypt");
    return key;
}

} // namespace veltra::softtoken
