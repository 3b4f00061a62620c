#include "key_store.h"

#include "record_folder.h"
#include "sealed_data.h"

namespace veltra::softtoken {

namespace fs = std::filesystem;

namespace {

constexpr const char* kExtension = ".key";

Expression toExpression(const StoredKeyPair& key) {
    return Expression::build(
        "(key-pair %S %S %S %S %S %S %S)", Expression::field("key-id", key.keyId).get(),
        Expression::field("type", key.type).get(), Expression::field("usage", key.usage).get(),
        Expression::field("label", bytesOf(key.label)).get(),
        Expression::field("sequence", key.sequence).get(),
        Expression::field("public-key", key.publicKey).get(), Expression::parse(key.sealedPrivateKey).get());
}

StoredKeyPair fromExpression(const Expression& record) {
    StoredKeyPair key;
    key.keyId = record.bytes("key-id");
    key.type = static_cast<std::uint32_t>(record.number("type"));
    key.usage = static_cast<std::uint32_t>(record.number("usage"));
    key.label = record.text("label");
    key.sequence = record.number("sequence");
    key.publicKey = record.bytes("public-key");
    key.sealedPrivateKey = record.list("sealed").canonical();
    if (key.keyId.size() != kKeyIdLength || findKeyKind(key.type) == nullptr ||
        key.publicKey.size() > kPublicKeyCapacity || key.label.size() > kLabelMaxLength) {
        throw TokenError(Failure::Damaged, "a key pair has impossible fields");
    }
    return key;
}

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

std::vector<StoredKeyPair> KeyStore::list() const {
    return readRecordFolder(folder_, kExtension, "key-pair", fromExpression);
}

StoredKeyPair KeyStore::find(BytesView keyId) const {
    const std::optional<Expression> record = readRecord(file(keyId), "key-pair");
    if (!record) throw TokenError(Failure::NoSuchKey, "there is no key " + toHex(keyId));
    return fromExpression(*record);
}

StoredKeyPair KeyStore::add(const GeneratedKeyPair& keys, const KeyKind& kind, std::uint32_t usage,
                            std::string label, BytesView masterKey) const {
    StoredKeyPair key;
    key.keyId = randomBytes(kKeyIdLength);
    key.type = kind.type;
    key.usage = usage;
    key.label = label.empty() ? defaultLabel("Key-", key.keyId) : std::move(label);
    key.sequence = nextSequence(list());
    key.publicKey = keys.publicKey;
    key.sealedPrivateKey = seal(masterKey, sealingContext(key), keys.privateKey).canonical();
    writeRecord(file(key.keyId), toExpression(key), Overwrite::Refused);
    return key;
}

void KeyStore::rename(BytesView keyId, const std::string& label) const {
    StoredKeyPair key = find(keyId);
    key.label = label;
    writeRecord(file(keyId), toExpression(key), Overwrite::Allowed);
}

void KeyStore::remove(BytesView keyId) const {
    static_cast<void>(find(keyId)); // a damaged file stays, for whoever can still repair it
    removeFile(file(keyId));
}

fs::path KeyStore::file(BytesView keyId) const {
    return folder_ / (toHex(keyId) + kExtension);
}

SecureBytes openPrivateKey(const StoredKeyPair& key, BytesView masterKey) {
    return unseal(masterKey, sealingContext(key), Expression::parse(key.sealedPrivateKey));
}

} // namespace veltra::softtoken
