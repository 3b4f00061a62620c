#pragma once

#include "record_folder.h"
#include "token_store.h"

namespace veltra::softtoken {

/// One AES key as it lies on a token.
struct StoredAesKey : StoredKey {
    std::uint32_t keyLength = 0; ///< 16, 24 or 32
};

/// The AES keys of one token, sealed under its master key. Whoever modifies the store holds the token's lock.
class AesKeyStore {
public:
    explicit AesKeyStore(const TokenFolder& token);

    /// All keys that can be read, in the order of their import; damaged files are reported and left out.
    [[nodiscard]] std::vector<StoredAesKey> list() const { return records_.list(); }

    /// Nothing when no key that can be read has this identifier. The identifier may be key material that was
    /// mistaken for one, so it never becomes a file name or a message, and is compared in constant time.
    [[nodiscard]] std::optional<StoredAesKey> find(BytesView keyId) const;

    /// Adds a key of 16, 24 or 32 bytes under a new random identifier; an empty label becomes "AES-" and the
    /// first eight digits of the identifier. Failure::BadArgument for another length.
    [[nodiscard]] StoredAesKey add(BytesView material, std::uint32_t usage, std::string label,
                                   BytesView masterKey) const;

private:
    RecordFolder<StoredAesKey> records_;
};

/// The key itself. Failure::Damaged when it does not authenticate.
SecureBytes openAesKey(const StoredAesKey& stored, BytesView masterKey);

} // namespace veltra::softtoken
