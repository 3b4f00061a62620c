#pragma once

#include "record_folder.h"
#include "token_store.h"

namespace veltra::softtoken {

/// One certificate as it lies on a token.
struct StoredCertificate : StoredObject { ///< keyId: the key pair it belongs to, or random
    Bytes der;
};

/// The certificates of one token, one for each key identifier. Whoever modifies the store holds the token's
/// lock.
class CertificateStore {
public:
    explicit CertificateStore(const TokenFolder& token);

    /// All certificates that can be read, in the order of their import; damaged files are reported and left
    /// out.
    [[nodiscard]] std::vector<StoredCertificate> list() const { return records_.list(); }

    /// Nothing when the key has no certificate. Failure::Damaged.
    [[nodiscard]] std::optional<StoredCertificate> find(BytesView keyId) const {
        return records_.find(keyId);
    }

    /// Stores a DER certificate for a key, in the place of the one that the key had. An empty `keyId` means
    /// no key: a random identifier, or the one under which the same certificate is here already. The same
    /// certificate under another identifier goes. An empty label becomes "Certificate-" and the first eight
    /// digits of the identifier. Failure::BadArgument when label or certificate is longer than the contract's
    /// records allow, and when `der` is not a certificate; Failure::Damaged, with nothing changed, when a
    /// damaged file is in its place.
    [[nodiscard]] StoredCertificate put(BytesView keyId, std::string label, BytesView der) const;

private:
    RecordFolder<StoredCertificate> records_;
};

} // namespace veltra::softtoken
