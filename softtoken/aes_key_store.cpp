#include "aes_key_store.h"

#include "sealed_data.h"

namespace veltra::softtoken {

namespace {

bool isKeyLength(std::uint64_t length) {
    return length == 16 || length == 24 || length == 32;
}

Expression toFields(const StoredAesKey& key) {
    return Expression::build("(fields %S %S %S)", Expression::field("key-length", key.keyLength).get(),
                             Expression::field("usage", key.usage).get(),
                             Expression::parse(key.sealedKey).get());
}

StoredAesKey fromFields(const Expression& record) {
    StoredAesKey key;
    key.keyLength = static_cast<std::uint32_t>(record.number("key-length"));
    key.usage = static_cast<std::uint32_t>(record.number("usage"));
    key.sealedKey = record.list("sealed").canonical();
    if (!isKeyLength(key.keyLength))
        throw TokenError(Failure::Damaged, "an AES key has an impossible length");
    return key;
}

constexpr RecordForm<StoredAesKey> kForm = {"aes-key", ".key", "AES-", toFields, fromFields};

Bytes sealingContext(const StoredAesKey& key) {
    return Expression::build("(aes-key-context %S %S %S)", Expression::field("key-id", key.keyId).get(),
                             Expression::field("key-length", key.keyLength).get(),
                             Expression::field("usage", key.usage).get())
        .canonical();
}

} // namespace

AesKeyStore::AesKeyStore(const TokenFolder& token) : records_(token.path() / "aes-keys", kForm) {}

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
    StoredAesKey key;
    records_.introduce(key, std::move(label), list());
    key.keyLength = static_cast<std::uint32_t>(material.size());
    key.usage = usage;
    key.sealedKey = seal(masterKey, sealingContext(key), material).canonical();
    records_.write(key, Overwrite::Refused);
    return key;
}

SecureBytes openAesKey(const StoredAesKey& stored, BytesView masterKey) {
    SecureBytes key = openSealedKey(stored, sealingContext(stored), masterKey);
    if (key.size() != stored.keyLength) throw TokenError(Failure::Damaged, "an AES key has a wrong length");
    return key;
}

} // namespace veltra::softtoken
