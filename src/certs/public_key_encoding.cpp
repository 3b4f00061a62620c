#include "certs/public_key_encoding.h"

#include "foundation/text.h"
#include "foundation/utils.h"

#include <array>
#include <string>

namespace veltra {

namespace {

constexpr std::string_view kExponentHex = "010001";

// AlgorithmIdentifier: OID 1.2.840.113549.1.1.1 (rsaEncryption) with NULL parameters.
constexpr std::array<unsigned char, 15> kRsaEncryption = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                          0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

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
        Utils::debug(std::string(lines.alreadyDer));
        return {publicKey.begin(), publicKey.end()};
    }
    Utils::debug(std::string(lines.rawModulus));
    return rawModulusAsDer(publicKey);
}

Bytes rawModulusAsDer(std::span<const unsigned char> modulus) {
    return publicKeyToDer(toHex(modulus), kExponentHex);
}

} // namespace veltra
