#include "csp/key_handle.h"

#include "foundation/text.h"
#include "token/key_pairs.h"

#include <algorithm>

namespace veltra {

namespace {

// The fields that records of key pairs and of AES keys have in common.
template <class Record>
void fillCommonFields(KEY_HANDLE& key, const Record& record) {
    std::ranges::copy(record.keyId, key.keyId);
    key.keyIdLength = kKeyIdLength;
    std::ranges::copy(record.credentialId, key.credentialId);
    key.credentialIdLength = record.credentialIdLength;
    copyLabel(boundedText(record.label, kLabelMaxLength), key.label);
    key.keyUsage = record.usage;
    key.tokenFlag = record.flag != 0;
}

} // namespace

void KEY_HANDLE::fillFrom(const VeltraKeyPair& pair) noexcept {
    fillCommonFields(*this, pair);
    std::ranges::copy(pair.publicKey, publicKey);
    publicKeyLength = pair.publicKeyLength;
}

void KEY_HANDLE::fillFrom(const VeltraSymmetricKey& symmetric) noexcept {
    fillCommonFields(*this, symmetric);
}

} // namespace veltra
