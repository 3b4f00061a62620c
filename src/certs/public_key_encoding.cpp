#include "certs/public_key_encoding.h"

#include "certs/der_reader.h"
#include "foundation/text.h"
#include "foundation/utils.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

namespace veltra {

namespace {

constexpr std::string_view kExponentHex = "010001";

// AlgorithmIdentifier: OID 1.2.840.113549.1.1.1 (rsaEncryption) with NULL parameters.
constexpr std::array<unsigned char, 15> kRsaEncryption = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                          0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

// The RSAPublicKey inside of a SubjectPublicKeyInfo whose fields `info` reads.
std::optional<std::span<const unsigned char>> rsaPublicKeyFields(DerReader& info) {
    const auto algorithm = info.read(DerTag::Sequence);
    const auto bits = info.read(DerTag::BitString);
    if (!algorithm || !bits || !info.atEnd()) return std::nullopt;
    const bool isRsa = std::ranges::equal(*algorithm, std::span(kRsaEncryption).subspan(2));
    if (!isRsa || bits->empty() || bits->front() != 0) return std::nullopt;
    return readSingleElement(bits->subspan(1), DerTag::Sequence);
}

std::optional<std::span<const unsigned char>> modulusInDer(std::span<const unsigned char> der) {
    const auto outer = readSingleElement(der, DerTag::Sequence);
    if (!outer) return std::nullopt;
    DerReader info(*outer);
    const auto inner = rsaPublicKeyFields(info);
    DerReader key(inner.value_or(*outer));
    const auto modulus = key.read(DerTag::Integer);
    const auto exponent = key.read(DerTag::Integer);
    if (!modulus || !exponent || !key.atEnd()) return std::nullopt;
    const auto start = std::ranges::find_if(*modulus, [](unsigned char byte) { return byte != 0; });
    const bool isPositive = start != modulus->end() && (modulus->front() & 0x80) == 0;
    if (!isPositive) return std::nullopt;
    return std::span<const unsigned char>(start, modulus->end());
}

} // namespace

Bytes rsaSubjectPublicKeyInfo(std::span<const unsigned char> modulus,
                              std::span<const unsigned char> exponent) {
    static constexpr std::array<unsigned char, 1> kNoUnusedBits = {0};
    const Bytes key =
        derElement(DerTag::Sequence, {derUnsignedInteger(modulus), derUnsignedInteger(exponent)});
    return derElement(DerTag::Sequence,
                      {kRsaEncryption, derElement(DerTag::BitString, {kNoUnusedBits, key})});
}

Bytes publicKeyToDer(std::string_view modulusHex, std::string_view exponentHex) {
    return rsaSubjectPublicKeyInfo(fromHex(modulusHex), fromHex(exponentHex));
}

Bytes rsaPublicKeyAsDer(std::span<const unsigned char> publicKey, const PublicKeyFormLines& lines) {
    if (publicKey.empty() || publicKey.front() == static_cast<unsigned char>(DerTag::Sequence)) {
        Utils::debug(lines.alreadyDer);
        return {publicKey.begin(), publicKey.end()};
    }
    Utils::debug(lines.rawModulus);
    return rawModulusAsDer(publicKey);
}

Bytes rawModulusAsDer(std::span<const unsigned char> modulus) {
    return publicKeyToDer(toHex(modulus), kExponentHex);
}

std::span<const unsigned char> rsaModulusOf(std::span<const unsigned char> publicKey) {
    return modulusInDer(publicKey).value_or(publicKey);
}

} // namespace veltra
