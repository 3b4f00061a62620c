#pragma once

// What the device library does with a token, in C++ terms: failures are TokenError, buffers are containers.
// The exports put the contract's argument forms around it. Thread-safe; the state is read from disk by each
// call.

#include "aes_encryption.h"
#include "key_pair_crypto.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra::softtoken {

/// Plugged-in tokens, sorted by serial.
std::vector<std::string> connectedSerials();

/// Failure::NoSuchToken unless the token is plugged in and can be read.
void requirePlugged(std::string_view serial);

TokenInfo tokenInfo(std::string_view serial);

/// Opens this process' session. Failure::WrongPin and Failure::PinLocked leave the attempts that are left in
/// `remaining`; Failure::TimeMismatch counts no attempt and leaves `remaining` alone.
void validatePin(std::string_view serial, std::string_view pin, std::uint32_t& remaining);

/// Starts a shared session of `seconds` for all processes of the user. Fails as validatePin() does.
void logIn(std::string_view serial, std::string_view pin, std::uint32_t seconds, std::uint32_t& remaining);

std::vector<VeltraKeyPair> keyPairs(std::string_view serial);

/// Makes a key pair of `record.keyType` (3: RSA-3072, 4: RSA-4096, 5 to 7: EC; 1, RSA-1024, is refused;
/// anything else: RSA-2048) with the record's usage and label, and fills in the record. Needs a session.
void generateKeyPair(std::string_view serial, std::string_view pin, VeltraKeyPair& record);

void deleteKeyPair(std::string_view serial, BytesView keyId, std::string_view pin);
void renameKeyPair(std::string_view serial, BytesView keyId, std::string_view pin, const std::string& label);

/// A signature of at most `capacity` bytes (Failure::BufferTooSmall before anything is signed). Needs a
/// session. Failure::WeakHash for MD5 and SHA-1 on a FIPS 140-3 token. Any usage signs.
Bytes sign(std::string_view serial, BytesView keyId, std::string_view pin, BytesView hash,
           std::size_t capacity, SignatureScheme scheme);

/// Whether the signature is right; no token is involved. `publicKey`: RSA types: DER SubjectPublicKeyInfo; EC
/// types: the uncompressed point.
bool verify(std::uint32_t keyType, BytesView hash, BytesView publicKey, BytesView signature,
            SignatureScheme scheme);

/// decryptRsa() with a key pair of the token; Failure::NotSupported for an EC key. Needs a session. Any usage
/// decrypts.
SecureBytes decrypt(std::string_view serial, BytesView keyId, std::string_view pin, BytesView ciphertext);

/// ecdhSecret() with a key pair of the token. Needs a session. Any usage agrees on a secret.
SecureBytes agree(std::string_view serial, BytesView keyId, std::string_view pin, BytesView peer);

/// The records carry no key material.
std::vector<VeltraSymmetricKey> aesKeys(std::string_view serial);

/// Stores the record's key, of 16, 24 or 32 bytes, and fills in identifiers, label and key type; the caller's
/// copy of the key stays in the record. Needs a session.
void importAesKey(std::string_view serial, std::string_view pin, VeltraSymmetricKey& record);

/// unwrapKey() with the AES key of the token that has this identifier; nothing when there is none. Needs a
/// session.
std::optional<SecureBytes> unwrapWithTokenKey(std::string_view serial, BytesView keyId, BytesView wrapped);

std::vector<VeltraCertificate> certificates(std::string_view serial);

/// Nothing when the key has no certificate.
std::optional<VeltraCertificate> findCertificate(std::string_view serial, BytesView keyId);

/// CertificateStore::put() of the record, whose key identifier is all zero for a certificate that belongs to
/// no key; fills in the record. Needs a session.
void importCertificate(std::string_view serial, std::string_view pin, VeltraCertificate& record);

} // namespace veltra::softtoken
