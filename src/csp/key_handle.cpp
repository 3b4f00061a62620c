#include "csp/key_handle.h"

#include "foundation/text.h"

#include <algorithm>

namespace veltra {

void KEY_HANDLE::fillFrom(const VeltraKeyPair& pair) {
    std::ranges::copy(pair.keyId, keyId);
    keyIdLength = kKeyIdLength;
    std::ranges::copy(pair.credentialId, credentialId);
    credentialIdLength = pair.credentialIdLength;
    const std::string text = boundedText(pair.label, kLabelMaxLength);
    std::ranges::fill(label, '\0');
    std::ranges::copy(text, label);
    keyUsage = pair.usage;
    tokenFlag = pair.flag != 0;
    std::ranges::copy(pair.publicKey, publicKey);
    publicKeyLength = pair.publicKeyLength;
}

} // namespace veltra
