#include "sealed_data.h"

#include <bit>

namespace veltra::softtoken {

namespace {

constexpr std::size_t kNonceLength = 12;
constexpr std::size_t kTagLength = 16;

/// AES-256-GCM with key, nonce and context set.
class Gcm {
public:
    Gcm(BytesView key, BytesView nonce, BytesView context) {
        initialiseCrypto();
        checkCrypto(gcry_cipher_open(&raw_, GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_GCM, GCRY_CIPHER_SECURE),
                    "AES-GCM");
        gcry_error_t error = gcry_cipher_setkey(raw_, key.data(), key.size());
        if (error == 0) error = gcry_cipher_setiv(raw_, nonce.data(), nonce.size());
        if (error == 0) error = gcry_cipher_authenticate(raw_, context.data(), context.size());
        if (error != 0) {
            gcry_cipher_close(raw_);
            checkCrypto(error, "AES-GCM set-up");
        }
    }
    Gcm(const Gcm&) = delete;
    Gcm& operator=(const Gcm&) = delete;
    ~Gcm() { gcry_cipher_close(raw_); }

    [[nodiscard]] gcry_cipher_hd_t get() const noexcept { return raw_; }

private:
    gcry_cipher_hd_t raw_ = nullptr;
};

} // namespace

Expression seal(BytesView key, BytesView context, BytesView plaintext) {
    const Bytes nonce = randomBytes(kNonceLength);
    const Gcm gcm(key, nonce, context);
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
    const Gcm gcm(key, nonce, context);
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
