#pragma once

// The contract's records of what lies on a token. Identifiers stand for credential identifiers as well.

#include "aes_key_store.h"
#include "certificate_store.h"
#include "key_store.h"

namespace veltra::softtoken {

VeltraKeyPair toRecord(const StoredKeyPair& key);
VeltraCertificate toRecord(const StoredCertificate& certificate);

/// Without the key itself, which never leaves the token.
VeltraSymmetricKey toRecord(const StoredAesKey& key);

/// The label in a caller's record, at most 128 bytes, terminated or not.
std::string labelOf(const char (&label)[kLabelCapacity]);

} // namespace veltra::softtoken
