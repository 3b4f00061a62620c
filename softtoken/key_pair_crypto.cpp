#include "key_pair_crypto.h"

#include <algorithm>
#include <array>

namespace veltra::softtoken {

namespace {

constexpr std::array<KeyKind, 7> kKeyKinds{{
    {kKeyTypeRsa1024, nullptr, 1024, 128},
    {kKeyTypeRsa2048, nullptr, 2048, 256},
    {kKeyTypeRsa3072, nullptr, 3072, 384},
    {kKeyTypeRsa4096, nullptr, 4096, 512},
    {kKeyTypeEcP256, "NIST P-256", 256, 32},
    {kKeyTypeEcP384, "NIST P-384", 384, 48},
    {kKeyTypeEcP521, "NIST P-521", 521, 66},
}};

struct HashName {
    std::size_t length;
    const char* name;
};

constexpr std::array<HashName, 6> kHashNames{{
    {16, "md5"},
    {20, "sha1"},
    {28, "sha224"},
    {32, "sha256"},
    {48, "sha384"},
    {64, "sha512"},
}};

constexpr std::size_t kMd5AndSha1Length = 36;

const char* findHashName(std::size_t length) {
    const auto* found = std::find_if(kHashNames.begin(), kHashNames.end(),
                                     [&](const HashName& entry) { return entry.length == length; });
    return found == kHashNames.end() ? nullptr : found->name;
}

/// The "(data ..)" expression that signing and verification share.
Expression hashToSign(bool isRsa, BytesView hash, SignatureScheme scheme) {
    const int length = static_cast<int>(hash.size());
    if (hash.size() == kMd5AndSha1Length) {
        return Expression::build("(data (flags pkcs1-raw) (value %b))", length, hash.data());
    }
    const char* name = findHashName(hash.size());
    if (!isRsa) return Expression::build("(data (flags raw) (hash %s %b))", name, length, hash.data());
    if (scheme == SignatureScheme::Pss) {
        return Expression::build("(data (flags pss) (salt-length %u) (hash %s %b))",
                                 static_cast<unsigned>(hash.size()), name, length, hash.data());
    }
    return Expression::build("(data (flags pkcs1) (hash %s %b))", name, length, hash.data());
}

bool isSignable(bool isRsa, std::size_t hashLength, SignatureScheme scheme) {
    if (hashLength == kMd5AndSha1Length) return isRsa && scheme == SignatureScheme::Pkcs1;
    return findHashName(hashLength) != nullptr;
}

bool verifies(const Expression& signature, const Expression& data, const Expression& publicKey) {
    return gcry_pk_verify(signature.get(), data.get(), publicKey.get()) == 0;
}

} // namespace

const KeyKind* findKeyKind(std::uint32_t type) {
    const auto* found = std::find_if(kKeyKinds.begin(), kKeyKinds.end(),
                                     [&](const KeyKind& kind) { return kind.type == type; });
    return found == kKeyKinds.end() ? nullptr : found;
}

GeneratedKeyPair generateKeyPair(const KeyKind& kind) {
    const Expression parameters = kind.isRsa() ? Expression::build("(genkey (rsa (nbits %u)))", kind.bits)
                                               : Expression::build("(genkey (ecc (curve %s)))", kind.curve);
    gcry_sexp_t raw = nullptr;
    checkCrypto(gcry_pk_genkey(&raw, parameters.get()), "key generation");
    const Expression keys(raw);
    const Expression publicKey = keys.list("public-key");
    return {kind.isRsa() ? fixedLength(publicKey.bytes("n"), kind.numberLength) : publicKey.bytes("q"),
            keys.list("private-key").secureCanonical()};
}

void requireSignable(const KeyKind& kind, std::size_t hashLength, SignatureScheme scheme) {
    if (isSignable(kind.isRsa(), hashLength, scheme)) return;
    throw TokenError(Failure::NotSupported,
                     "a hash of " + std::to_string(hashLength) + " bytes cannot be signed this way");
}

Bytes signHash(const KeyKind& kind, BytesView privateKey, BytesView hash, SignatureScheme scheme) {
    requireSignable(kind, hash.size(), scheme);
    const Expression key = Expression::parse(privateKey);
    const Expression data = hashToSign(kind.isRsa(), hash, scheme);
    gcry_sexp_t raw = nullptr;
    checkCrypto(gcry_pk_sign(&raw, data.get(), key.get()), "signing");
    const Expression signature(raw);
    if (kind.isRsa()) return fixedLength(signature.bytes("s"), kind.numberLength);
    Bytes result = fixedLength(signature.bytes("r"), kind.numberLength);
    const Bytes s = fixedLength(signature.bytes("s"), kind.numberLength);
    result.insert(result.end(), s.begin(), s.end());
    return result;
}

bool verifyRsa(const RsaPublicKey& key, BytesView hash, BytesView signature, SignatureScheme scheme) {
    if (!isSignable(true, hash.size(), scheme) || signature.size() != key.modulus.size()) return false;
    const Expression publicKey =
        Expression::build("(public-key (rsa %S %S))", Expression::field("n", key.modulus).get(),
                          Expression::field("e", key.exponent).get());
    const Expression value = Expression::build("(sig-val (rsa %S))", Expression::field("s", signature).get());
    return verifies(value, hashToSign(true, hash, scheme), publicKey);
}

bool verifyEcdsa(const KeyKind& kind, BytesView point, BytesView hash, BytesView signature) {
    if (!isSignable(false, hash.size(), SignatureScheme::Pkcs1)) return false;
    if (point.size() != 1 + 2 * kind.numberLength || point.front() != 0x04) return false;
    if (signature.size() != kind.signatureLength()) return false;
    const Expression publicKey = Expression::build("(public-key (ecc (curve %s) %S))", kind.curve,
                                                   Expression::field("q", point).get());
    const Expression value = Expression::build(
        "(sig-val (ecdsa %S %S))", Expression::field("r", signature.first(kind.numberLength)).get(),
        Expression::field("s", signature.last(kind.numberLength)).get());
    return verifies(value, hashToSign(false, hash, SignatureScheme::Pkcs1), publicKey);
}

} // namespace veltra::softtoken
