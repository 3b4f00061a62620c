#include "token_operations.h"

#include "contract_records.h"
#include "key_agreement.h"
#include "pin_vault.h"
#include "rsa_encryption.h"
#include "session.h"

#include <algorithm>
#include <cstring>

namespace veltra::softtoken {

namespace {

/// A plugged-in token together with its description.
struct OpenToken {
    TokenFolder folder;
    TokenDescription description;
};

OpenToken openToken(std::string_view serial) {
    TokenFolder folder(serial);
    try {
        TokenDescription description = folder.pluggedDescription();
        return {std::move(folder), std::move(description)};
    } catch (const TokenError& error) {
        if (error.failure() == Failure::NoSuchToken) ProcessSessions::instance().close(folder);
        throw;
    }
}

/// A token that nobody else modifies, as it is since then.
struct LockedToken {
    FileLock lock;
    OpenToken token;
};

LockedToken lockToken(std::string_view serial) {
    const OpenToken found = openToken(serial); // no lock file for what is not there
    return {found.folder.lock(), openToken(serial)};
}

/// Failure::SessionExpired when the token has meanwhile been pulled out or made anew: what a session was
/// opened for is not written to another token.
FileLock lockUnchanged(const OpenToken& token) {
    LockedToken now = lockToken(token.folder.serial());
    const TokenDescription& description = now.token.description;
    if (description.tokenId != token.description.tokenId ||
        description.plugCount != token.description.plugCount) {
        throw TokenError(Failure::SessionExpired, "the token " + description.serial + " is another one now");
    }
    return std::move(now.lock);
}

UnlockedToken checkPin(const OpenToken& token, std::string_view pin, std::uint32_t& remaining) {
    if (token.description.clockMismatch) {
        throw TokenError(Failure::TimeMismatch, "the clocks of host and token disagree");
    }
    const PinVault vault(token.folder.path());
    try {
        return {vault.open(token.description.tokenId, pin), pin};
    } catch (const TokenError&) {
        remaining = vault.attemptsLeft();
        throw;
    }
}

const KeyKind& kindToGenerate(std::uint32_t requested) {
    if (requested == kKeyTypeRsa1024)
        throw TokenError(Failure::NotSupported, "RSA-1024 keys are not generated");
    const KeyKind* kind = findKeyKind(requested);
    return kind != nullptr ? *kind : *findKeyKind(kKeyTypeRsa2048);
}

bool isWeakHash(std::size_t length) {
    return length == 16 || length == 20 || length == 36; // MD5, SHA-1, and the two together
}

template <class Record, class Stored>
std::vector<Record> toRecords(const std::vector<Stored>& stored) {
    std::vector<Record> records;
    records.reserve(stored.size());
    for (const Stored& entry : stored)
        records.push_back(toRecord(entry));
    return records;
}

bool isZero(BytesView bytes) {
    return std::ranges::all_of(bytes, [](unsigned char byte) { return byte == 0; });
}

} // namespace

std::vector<std::string> connectedSerials() {
    std::vector<std::string> serials;
    for (const TokenDescription& token : listTokens()) {
        if (token.plugged) serials.push_back(token.serial);
    }
    return serials;
}

void requirePlugged(std::string_view serial) {
    static_cast<void>(openToken(serial));
}

TokenInfo tokenInfo(std::string_view serial) {
    const OpenToken token = openToken(serial);
    TokenInfo info;
    info.label = token.description.label;
    info.manufacturer = "Veltra";
    info.model = "Software token";
    info.fipsMarker = token.description.fips == FipsGeneration::Fips1402 ? "3.1.0" : "3.0.9";
    info.firmwareVersion = token.description.firmware;
    info.hardwareVersion = "1.0.0";
    info.description1 = "For development and tests";
    if (ProcessSessions::instance().find(token.folder, token.description)) info.session = "process";
    if (singleSignOnSecondsLeft(token.folder, token.description) > 0) {
        info.session = "single sign-on";
        info.words[3] = info.words[4] = 1;
    }
    return info;
}

void validatePin(std::string_view serial, std::string_view pin, std::uint32_t& remaining) {
    const LockedToken locked = lockToken(serial);
    const OpenToken& token = locked.token;
    ProcessSessions::instance().open(token.folder, token.description, checkPin(token, pin, remaining));
}

void logIn(std::string_view serial, std::string_view pin, std::uint32_t seconds, std::uint32_t& remaining) {
    const LockedToken locked = lockToken(serial);
    const OpenToken& token = locked.token;
    const UnlockedToken unlocked = checkPin(token, pin, remaining);
    startSingleSignOn(token.folder, token.description, unlocked, seconds);
}

std::vector<VeltraKeyPair> keyPairs(std::string_view serial) {
    return toRecords<VeltraKeyPair>(KeyStore(openToken(serial).folder).list());
}

void generateKeyPair(std::string_view serial, std::string_view pin, VeltraKeyPair& record) {
    const KeyKind& kind = kindToGenerate(record.keyType);
    const OpenToken token = openToken(serial);
    const UnlockedToken unlocked = requireSession(token.folder, token.description, pin);
    const GeneratedKeyPair keys = generateKeyPair(kind); // slow, so before the lock
    const FileLock lock = lockUnchanged(token);
    record = toRecord(
        KeyStore(token.folder).add(keys, kind, record.usage, labelOf(record.label), unlocked.masterKey()));
}

void deleteKeyPair(std::string_view serial, BytesView keyId, std::string_view pin) {
    const OpenToken token = openToken(serial);
    static_cast<void>(requireSession(token.folder, token.description, pin));
    const FileLock lock = lockUnchanged(token);
    KeyStore(token.folder).remove(keyId);
}

void renameKeyPair(std::string_view serial, BytesView keyId, std::string_view pin, const std::string& label) {
    if (label.size() > kLabelMaxLength)
        throw TokenError(Failure::BadArgument, "the label is longer than 128 bytes");
    const OpenToken token = openToken(serial);
    static_cast<void>(requireSession(token.folder, token.description, pin));
    const FileLock lock = lockUnchanged(token);
    KeyStore(token.folder).rename(keyId, label);
}

Bytes sign(std::string_view serial, BytesView keyId, std::string_view pin, BytesView hash,
           std::size_t capacity, SignatureScheme scheme) {
    const OpenToken token = openToken(serial);
    if (token.description.fips == FipsGeneration::Fips1403 && isWeakHash(hash.size())) {
        throw TokenError(Failure::WeakHash, "a FIPS 140-3 token does not sign MD5 or SHA-1");
    }
    const StoredKeyPair key = KeyStore(token.folder).find(keyId);
    const KeyKind& kind = *findKeyKind(key.type);
    requireSignable(kind, hash.size(), scheme);
    if (capacity < kind.signatureLength()) {
        throw TokenError(Failure::BufferTooSmall,
                         "the signature needs " + std::to_string(kind.signatureLength()) + " bytes");
    }
    const UnlockedToken unlocked = requireSession(token.folder, token.description, pin);
    return signHash(kind, openPrivateKey(key, unlocked.masterKey()), hash, scheme);
}

bool verify(std::uint32_t keyType, BytesView hash, BytesView publicKey, BytesView signature,
            SignatureScheme scheme) {
    const KeyKind* kind = findKeyKind(keyType);
    if (kind == nullptr)
        throw TokenError(Failure::BadArgument, "unknown key type " + std::to_string(keyType));
    if (!kind->isRsa()) return verifyEcdsa(*kind, publicKey, hash, signature);
    const std::optional<RsaPublicKey> key = parseRsaPublicKey(publicKey);
    return key && verifyRsa(*key, hash, signature, scheme);
}

SecureBytes decrypt(std::string_view serial, BytesView keyId, std::string_view pin, BytesView ciphertext) {
    const OpenToken token = openToken(serial);
    const StoredKeyPair key = KeyStore(token.folder).find(keyId);
    if (!findKeyKind(key.type)->isRsa()) {
        throw TokenError(Failure::NotSupported, "an EC key does not decrypt");
    }
    const UnlockedToken unlocked = requireSession(token.folder, token.description, pin);
    return decryptRsa(openPrivateKey(key, unlocked.masterKey()), key.publicKey, ciphertext);
}

SecureBytes agree(std::string_view serial, BytesView keyId, std::string_view pin, BytesView peer) {
    const OpenToken token = openToken(serial);
    const StoredKeyPair key = KeyStore(token.folder).find(keyId);
    const UnlockedToken unlocked = requireSession(token.folder, token.description, pin);
    return ecdhSecret(*findKeyKind(key.type), openPrivateKey(key, unlocked.masterKey()), peer);
}

std::vector<VeltraSymmetricKey> aesKeys(std::string_view serial) {
    return toRecords<VeltraSymmetricKey>(AesKeyStore(openToken(serial).folder).list());
}

void importAesKey(std::string_view serial, std::string_view pin, VeltraSymmetricKey& record) {
    if (record.keyLength > kSymmetricKeyCapacity) {
        throw TokenError(Failure::BadArgument, "an AES key has 16, 24 or 32 bytes");
    }
    const BytesView key(record.key, record.keyLength);
    const OpenToken token = openToken(serial);
    const UnlockedToken unlocked = requireSession(token.folder, token.description, pin);
    const FileLock lock = lockUnchanged(token);
    VeltraSymmetricKey stored = toRecord(
        AesKeyStore(token.folder).add(key, record.usage, labelOf(record.label), unlocked.masterKey()));
    std::memcpy(stored.key, record.key, sizeof(record.key));
    record = stored;
}

std::optional<SecureBytes> unwrapWithTokenKey(std::string_view serial, BytesView keyId, BytesView wrapped) {
    const OpenToken token = openToken(serial);
    if (keyId.size() != kKeyIdLength) return std::nullopt;
    const std::optional<StoredAesKey> key = AesKeyStore(token.folder).find(keyId);
    if (!key) return std::nullopt;
    const UnlockedToken unlocked = requireSession(token.folder, token.description, {});
    return unwrapKey(openAesKey(*key, unlocked.masterKey()), wrapped);
}

std::vector<VeltraCertificate> certificates(std::string_view serial) {
    return toRecords<VeltraCertificate>(CertificateStore(openToken(serial).folder).list());
}

std::optional<VeltraCertificate> findCertificate(std::string_view serial, BytesView keyId) {
    const std::optional<StoredCertificate> found = CertificateStore(openToken(serial).folder).find(keyId);
    if (!found) return std::nullopt;
    return toRecord(*found);
}

void importCertificate(std::string_view serial, std::string_view pin, VeltraCertificate& record) {
    if (record.derLength > kCertificateCapacity) {
        throw TokenError(Failure::BadArgument, "a certificate of the token has at most 3072 bytes");
    }
    const OpenToken token = openToken(serial);
    static_cast<void>(requireSession(token.folder, token.description, pin));
    const FileLock lock = lockUnchanged(token);
    const BytesView keyId = isZero(record.keyId) ? BytesView() : BytesView(record.keyId);
    record = toRecord(
        CertificateStore(token.folder).put(keyId, labelOf(record.label), {record.der, record.derLength}));
}

} // namespace veltra::softtoken
