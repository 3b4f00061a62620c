#include "contract_records.h"

#include <algorithm>
#include <cstring>

namespace veltra::softtoken {

namespace {

template <class Record, class Stored>
Record commonRecord(const Stored& stored) {
    Record record{};
    std::memcpy(record.keyId, stored.keyId.data(), kKeyIdLength);
    std::memcpy(record.credentialId, stored.keyId.data(), kKeyIdLength);
    record.credentialIdLength = kKeyIdLength;
    std::memcpy(record.label, stored.label.data(), stored.label.size());
    return record;
}

} // namespace

VeltraKeyPair toRecord(const StoredKeyPair& key) {
    auto record = commonRecord<VeltraKeyPair>(key);
    std::memcpy(record.publicKey, key.publicKey.data(), key.publicKey.size());
    record.publicKeyLength = static_cast<std::uint32_t>(key.publicKey.size());
    record.usage = key.usage;
    record.keyType = key.type;
    return record;
}

VeltraCertificate toRecord(const StoredCertificate& certificate) {
    auto record = commonRecord<VeltraCertificate>(certificate);
    std::memcpy(record.der, certificate.der.data(), certificate.der.size());
    record.derLength = static_cast<std::uint32_t>(certificate.der.size());
    return record;
}

VeltraSymmetricKey toRecord(const StoredAesKey& key) {
    auto record = commonRecord<VeltraSymmetricKey>(key);
    record.keyLength = key.keyLength;
    record.usage = key.usage;
    record.keyType = key.keyLength == 16 ? kKeyTypeAes128 : kKeyTypeAes192Or256;
    return record;
}

std::string labelOf(const char (&label)[kLabelCapacity]) {
    const auto* end = std::find(std::begin(label), std::begin(label) + kLabelMaxLength, '\0');
    return {std::begin(label), end};
}

} // namespace veltra::softtoken
