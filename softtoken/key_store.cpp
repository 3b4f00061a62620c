#include "key_store.h"

#include "sealed_data.h"

namespace veltra::softtoken {

namespace {

Expression toFields(const StoredKeyPair& key) {
    return Expression::build("(fields %S %S %S %S)", Expression::field("type", key.type).get(),
                             Expression::field("usage", key.usage).get(),
                             Expression::field("public-key", key.publicKey).get(),
                             Expression::parse(key.sealedKey).get());
}

StoredKeyPair fromFields(const Expression& record) {
    StoredKeyPair key;
    key.type = static_cast<std::uint32_t>(record.number("type"));
    key.usage = static_cast<std::uint32_t>(record.number("usage"));
    key.publicKey = record.bytes("public-key");
    key.sealedKey = record.list("sealed").canonical();
    if (findKeyKind(key.type) == nullptr || key.publicKey.size() > kPublicKeyCapacity)
        throw TokenError(Failure::Damaged, "a key pair has impossible fields");
    return key;
}

constexpr RecordForm<StoredKeyPair> kForm = {"key-pair", ".key", "Key-", toFields, fromFields};

/// What a private key is sealed together with: its public part and its purpose, but not the label, so that a
/// key can be renamed without its master key.
Bytes sealingContext(const StoredKeyPair& key) {
    return Expression::build("(key-pair-context %S %S %S %S)", Expression::field("key-id", key.keyId).get(),
                             Expression::field("type", key.type).get(),
                             Expression::field("usage", key.usage).get(),
                             Expression::field("public-key", key.publicKey).get())
        .canonical();
}

} // namespace

KeyStore::KeyStore(const TokenFolder& token) : records_(token.path() / "keys", kForm) {}

StoredKeyPair KeyStore::find(BytesView keyId) const {
    std::optional<StoredKeyPair> found = records_.find(keyId);
    if (!found) throw TokenError(Failure::NoSuchKey, "there is no key " + toHex(keyId));
    return std::move(*found);
}

StoredKeyPair KeyStore::add(const GeneratedKeyPair& keys, const KeyKind& kind, std::uint32_t usage,
                            std::string label, BytesView masterKey) const {
    StoredKeyPair key;
    records_.introduce(key, std::move(label), list());
    key.type = kind.type;
    key.usage = usage;
    key.publicKey = keys.publicKey;
    key.sealedKey = seal(masterKey, sealingContext(key), keys.privateKey).canonical();
    records_.write(key, Overwrite::Refused);
    return key;
}

void KeyStore::rename(BytesView keyId, const std::string& label) const {
    StoredKeyPair key = find(keyId);
    key.label = label;
    records_.write(key, Overwrite::Allowed);
}

void KeyStore::remove(BytesView keyId) const {
    static_cast<void>(find(keyId)); // a damaged file stays, for whoever can still repair it
    records_.remove(keyId);
}

SecureBytes openPrivateKey(const StoredKeyPair& key, BytesView masterKey) {
    return openSealedKey(key, sealingContext(key), masterKey);
}

} // namespace veltra::softtoken
