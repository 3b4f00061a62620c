#include "rsa_encryption.h"

#include "key_pair_crypto.h"
#include "rsa_padding.h"

#include <algorithm>

namespace veltra::softtoken {

namespace {

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

/// The message with the flags that tell libgcrypt its padding.
Expression dataToEncrypt(const char* hash, BytesView message) {
    const Expression value = Expression::field("value", message);
    if (hash == nullptr) return Expression::build("(data (flags pkcs1) %S)", value.get());
    return Expression::build("(data (flags oaep) (hash-algo %s) %S)", hash, value.get());
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
    const Expression data = dataToEncrypt(hash, message);
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
        // libgcrypt itself would take a block for PKCS#1 v1.5 that lacks the zero byte in front.
        const Expression data =
            Expression::build("(enc-val (flags raw) (rsa %S))", Expression::field("a", ciphertext).get());
        gcry_sexp_t raw = nullptr;
        if (gcry_pk_decrypt(&raw, data.get(), Expression::parse(privateKey).get()) == 0) {
            const SecureBytes block = fixedLength(Expression(raw).secureBytes("value"), modulus.size());
            if (std::optional<SecureBytes> message = removePadding(block)) return std::move(*message);
        }
    }
    throw TokenError(Failure::Undecryptable, "the data cannot be decrypted with this key");
}

} // namespace veltra::softtoken
