#include "aes_key_store.h"

#include "record_folder.h"
#include "sealed_data.h"

namespace veltra::softtoken {

namespace {

constexpr const char* kExtension = ".key";

bool isKeyLength(std::uint64_t length) {
    return length == 16 || length == 24 || length == 32;
}

Expression toExpression(const StoredAesKey& key) {
    return Expression::build(
        "(aes-key %S %S %S %S %S %S)", Expression::field("key-id", key.keyId).get(),
        Expression::field("key-length", key.keyLength).get(), Expression::field("usage", key.usage).get(),
        Expression::field("label", bytesOf(key.label)).get(),
        Expression::field("sequence", key.sequence).get(), Expression::parse(key.sealedKey).get());
}

StoredAesKey fromExpression(const Expression& record) {
    StoredAesKey key;
    key.keyId = record.bytes("key-id");
    key.keyLength = static_cast<std::uint32_t>(record.number("key-length"));
    key.usage = static_cast<std::uint32_t>(record.number("usage"));
    key.label = record.text("label");
    key.sequence = record.number("sequence");
    key.sealedKey = record.list("sealed").canonical();
    if (key.keyId.size() != kKeyIdLength || !isKeyLength(key.keyLength) ||
        key.label.size() > kLabelMaxLength) {
        throw TokenError(Failure::Damaged, "an AES key has impossible fields");
    }
    return key;
}

Bytes sealingContext(const StoredAesKey& key) {
    return Expression::build("(aes-key-context %S %S %S)", Expression::field("key-id", key.keyId).get(),
                             Expression::field("key-length", key.keyLength).get(),
                             Expression::field("usage", key.usage).get())
        .canonical();
}

} // namespace

std::vector<StoredAesKey> AesKeyStore::list() const {
    return readRecordFolder(folder_, kExtension, "aes-key", fromExpression);
}

std::optional<StoredAesKey> AesKeyStore::find(BytesView keyId) const {
    for (StoredAesKey& key : list()) {
        if (equalConstantTime(key.keyId, keyId)) return std::move(key);
    }
    return std::nullopt;
}

StoredAesKey AesKeyStore::add(BytesView material, std::uint32_t usage, std::string label,
                              BytesView masterKey) const {
    if (!isKeyLength(material.size())) {
        throw TokenError(Failure::BadArgument, "an AES key has 16, 24 or 32 bytes");
    }
    makeFolder(folder_);
    StoredAesKey stored;
    stored.keyId = randomBytes(kKeyIdLength);
    stored.keyLength = static_cast<std::uint32_t>(material.size());
    stored.usage = usage;
    stored.label = label.empty() ? defaultLabel("AES-", stored.keyId) : std::move(label);
    stored.sequence = nextSequence(list());
    stored.sealedKey = seal(masterKey, sealingContext(stored), material).canonical();
    writeRecord(folder_ / (toHex(stored.keyId) + kExtension), toExpression(stored), Overwrite::Refused);
    return stored;
}

SecureBytes openAesKey(const StoredAesKey& stored, BytesView masterKey) {
    SecureBytes key = unseal(masterKey, sealingContext(stored), Expression::parse(stored.sealedKey));
    if (key.size() != stored.keyLength) throw TokenError(Failure::Damaged, "an AES key has a wrong length");
    return key;
}

} // namespace veltra::softtoken
