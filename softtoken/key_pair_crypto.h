#pragma once

#include "expression.h"
#include "x509.h"

#include <algorithm>

namespace veltra::softtoken {

/// What a key type code of the contract stands for.
struct KeyKind {
    std::uint32_t type;       ///< KeyType
    const char* curve;        ///< libgcrypt's curve name; null for RSA
    unsigned bits;            ///< modulus or field size
    std::size_t numberLength; ///< bytes of the modulus, or of one coordinate

    [[nodiscard]] bool isRsa() const noexcept { return curve == nullptr; }
    /// RSA: the modulus length; EC: r || s.
    [[nodiscard]] std::size_t signatureLength() const noexcept {
        return isRsa() ? numberLength : 2 * numberLength;
    }
};

/// Null for a code that is not a KeyType. RSA-1024 is known (it verifies) but is never generated.
const KeyKind* findKeyKind(std::uint32_t type);

enum class SignatureScheme { Pkcs1, Pss }; ///< of RSA keys; EC keys always make ECDSA signatures

struct GeneratedKeyPair {
    Bytes publicKey;        ///< RSA: big-endian modulus, the exponent is 65537; EC: 04 || X || Y
    SecureBytes privateKey; ///< canonical "(private-key ..)" expression
};

/// `number`, as libgcrypt prints one, in exactly `length` bytes: it puts a zero byte before a set top bit,
/// and leaves out leading zero bytes. Failure::Crypto when the number is longer.
template <class Container>
Container fixedLength(const Container& number, std::size_t length) {
    const auto first = std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; });
    const auto significant = static_cast<std::size_t>(number.end() - first);
    if (significant > length) throw TokenError(Failure::Crypto, "a number is longer than its field");
    Container result(length);
    std::copy(first, number.end(), result.end() - static_cast<std::ptrdiff_t>(significant));
    return result;
}

GeneratedKeyPair generateKeyPair(const KeyKind& kind);

/// Signs `hash`, whose algorithm follows from its length: 16 MD5, 20 SHA-1, 28, 32, 48, 64 SHA-2, and 36 MD5
/// followed by SHA-1 (PKCS#1 without a DigestInfo). PSS: MGF1 with the same hash, salt as long as the hash.
/// The result has kind.signatureLength() bytes, big-endian. Failure::NotSupported for another length.
Bytes signHash(const KeyKind& kind, BytesView privateKey, BytesView hash, SignatureScheme scheme);

/// Throws Failure::NotSupported where signHash() would.
void requireSignable(const KeyKind& kind, std::size_t hashLength, SignatureScheme scheme);

/// Whether `signature` is one of `hash` under the key; the same forms as signHash(). A key or signature that
/// is malformed does not verify.
bool verifyRsa(const RsaPublicKey& key, BytesView hash, BytesView signature, SignatureScheme scheme);
bool verifyEcdsa(const KeyKind& kind, BytesView point, BytesView hash, BytesView signature);

} // namespace veltra::softtoken
