#include "ksp/ksp_key.h"

#include "foundation/text.h"
#include "token/key_pairs.h"

#include <algorithm>

namespace veltra {

void KSP_KEY::fillFrom(const VeltraKeyPair& pair) {
    identifyAs(pair);
    keyType = pair.keyType;
    keyUsage = pair.usage;
    std::ranges::copy(pair.credentialId, publicKeyExtra.begin());
    publicKeyExtraLength = pair.credentialIdLength;
    recordFlag = pair.flag != 0;
}

void KSP_KEY::identifyAs(const VeltraKeyPair& pair) noexcept {
    std::ranges::copy(pair.keyId, credentialId.begin());
    credentialIdLength = kKeyIdLength;
    setPublicKey({pair.publicKey, pair.publicKeyLength});
    copyLabel(boundedText(pair.label, kLabelMaxLength), label);
}

void KSP_KEY::setPublicKey(std::span<const unsigned char> bytes) {
    std::ranges::copy(bytes, publicKey.begin());
    publicKeyLength = static_cast<std::uint32_t>(bytes.size());
}

const char* algorithmName(std::uint32_t keyType, std::uint32_t keyUsage) {
    const bool agrees = keyUsage == kUsageEncrypt;
    switch (keyType) {
    case kKeyTypeEcP256:
        return agrees ? "ECDH_P256" : "ECDSA_P256";
    case kKeyTypeEcP384:
        return agrees ? "ECDH_P384" : "ECDSA_P384";
    case kKeyTypeEcP521:
        return agrees ? "ECDH_P521" : "ECDSA_P521";
    default:
        return "RSA";
    }
}

const char* algorithmGroup(std::uint32_t keyType, std::uint32_t keyUsage) {
    if (!isEcKeyType(keyType)) return "RSA";
    return keyUsage == kUsageEncrypt ? "ECDH" : "ECDSA";
}

} // namespace veltra
