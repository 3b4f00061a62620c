#include "rsa_encryption.h"

#include "key_pair_crypto.h"

#include <algorithm>
#include <array>

namespace veltra::softtoken {

namespace {

constexpr std::array<const char*, 4> kOaepHashes = {"sha1", "sha256", "sha384", "sha512"};

/// What PKCS#1 v1.5 padding adds at least (RFC 8017, 7.2.1); every OAEP padding adds more.
constexpr std::size_t kPkcs1Overhead = 11;

/// The hash of an OAEP padding; null for PKCS#1 v1.5.
const char* oaepHash(PaddingMode padding) {
    switch (padding) {
    case PaddingMode::Pkcs1:
        return nullptr;
    case PaddingMode::OaepSha1:
    case PaddingMode::OaepSha1Alternative:
        return "sha1";
    case PaddingMode::OaepSha256:
        return "sha256";
    case PaddingMode::OaepSha384:
        return "sha384";
    case PaddingMode::OaepSha512:
        return "sha512";
    }
    throw TokenError(Failure::BadArgument, "unknown padding");
}

/// The flags that tell libgcrypt the padding, in front of `content`, as a list called `name`.
Expression withPadding(const char* name, const char* hash, const Expression& content) {
    if (hash == nullptr) {
        return Expression::build((std::string("(") + name + " (flags pkcs1) %S)").c_str(), content.get());
    }
    return Expression::build((std::string("(") + name + " (flags oaep) (hash-algo %s) %S)").c_str(), hash,
                             content.get());
}

/// Nothing when the padding is another one.
std::optional<SecureBytes> tryDecrypt(const Expression& key, const Expression& ciphertext, const char* hash) {
    const Expression data = withPadding("enc-val", hash, ciphertext);
    gcry_sexp_t raw = nullptr;
    const gcry_error_t error = gcry_pk_decrypt(&raw, data.get(), key.get());
    if (gcry_err_code(error) == GPG_ERR_ENOMEM) throw std::bad_alloc();
    if (error != 0) return std::nullopt;
    return Expression(raw).secureBytes("value");
}

} // namespace

Bytes encryptRsa(const RsaPublicKey& key, PaddingMode padding, BytesView message) {
    const char* hash = oaepHash(padding);
    // libgcrypt itself would accept PKCS#1 v1.5 padding that is too short for others.
    if (message.empty() || message.size() + kPkcs1Overhead > key.modulus.size()) {
        throw TokenError(Failure::BadArgument, "the message is empty or too long for the key");
    }
    const Expression publicKey =
        Expression::build("(public-key (rsa %S %S))", Expression::field("n", key.modulus).get(),
                          Expression::field("e", key.exponent).get());
    const Expression data = withPadding("data", hash, Expression::field("value", message));
    gcry_sexp_t raw = nullptr;
    if (const gcry_error_t error = gcry_pk_encrypt(&raw, data.get(), publicKey.get()); error != 0) {
        if (gcry_err_code(error) == GPG_ERR_TOO_SHORT) {
            throw TokenError(Failure::BadArgument, "the message is too long for the key and the padding");
        }
        checkCrypto(error, "encryption");
    }
    return fixedLength(Expression(raw).bytes("a"), key.modulus.size());
}

SecureBytes decryptRsa(BytesView privateKey, BytesView modulus, BytesView ciphertext) {
    // RFC 8017, 5.1.2: as long as the modulus, and below it.
    if (ciphertext.size() == modulus.size() && std::ranges::lexicographical_compare(ciphertext, modulus)) {
        const Expression key = Expression::parse(privateKey);
        const Expression value = Expression::build("(rsa %S)", Expression::field("a", ciphertext).get());
        for (const char* hash : kOaepHashes) {
            if (std::optional<SecureBytes> message = tryDecrypt(key, value, hash)) return std::move(*message);
        }
        if (std::optional<SecureBytes> message = tryDecrypt(key, value, nullptr)) return std::move(*message);
    }
    throw TokenError(Failure::Undecryptable, "the data cannot be decrypted with this key");
}

} // namespace veltra::softtoken
