#pragma once

#include "key_pair_crypto.h"
#include "record_folder.h"
#include "token_store.h"

namespace veltra::softtoken {

/// One key pair as it lies on a token.
struct StoredKeyPair : StoredKey {
    std::uint32_t type = 0; ///< KeyType
    Bytes publicKey;
};

/// The key pairs of one token. Private keys are sealed together with the public part they belong to, under
/// the token's master key. Whoever modifies the store holds the token's lock.
class KeyStore {
public:
    explicit KeyStore(const TokenFolder& token);

    /// All keys that can be read, in the order of their creation; damaged files are reported and left out.
    [[nodiscard]] std::vector<StoredKeyPair> list() const { return records_.list(); }

    /// Failure::NoSuchKey, Failure::Damaged.
    [[nodiscard]] StoredKeyPair find(BytesView keyId) const;

    /// Adds a key pair under a new random identifier; an empty label becomes "Key-" and the first eight
    /// digits of the identifier.
    [[nodiscard]] StoredKeyPair add(const GeneratedKeyPair& keys, const KeyKind& kind, std::uint32_t usage,
                                    std::string label, BytesView masterKey) const;

    void rename(BytesView keyId, const std::string& label) const;
    void remove(BytesView keyId) const;

private:
    RecordFolder<StoredKeyPair> records_;
};

/// The canonical "(private-key ..)" expression. Failure::Damaged when it does not authenticate.
SecureBytes openPrivateKey(const StoredKeyPair& key, BytesView masterKey);

} // namespace veltra::softtoken
