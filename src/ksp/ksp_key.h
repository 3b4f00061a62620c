#pragma once

#include "foundation/cng.h"
#include "foundation/device_library_contract.h"
#include "foundation/live_records.h"
#include "foundation/secret.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace veltra {

/// The type code of an RSA key that is created and whose size is not yet fixed.
inline constexpr std::uint32_t kKeyTypeRsaUnsized = 0;

/// The record behind an NCRYPT_KEY_HANDLE: a key pair of the token by its identifier, one about to be
/// generated, a public key, or an AES key held in memory. Freed by KSPFreeKey; nothing in it owns anything on
/// the token. Not locked: one handle is used by one thread at a time.
struct KSP_KEY {
    std::array<unsigned char, kKeyIdLength> credentialId{};    ///< the identifier of the key pair
    std::uint32_t credentialIdLength = 0;                      ///< kKeyIdLength when credentialId is set
    std::uint32_t keyType = 0;                                 ///< KeyType, or kKeyTypeRsaUnsized
    std::uint32_t keyUsage = 0;                                ///< KeyUsage
    std::array<unsigned char, kPublicKeyCapacity> publicKey{}; ///< bare modulus, DER or EC point
    std::uint32_t publicKeyLength = 0;
    std::array<unsigned char, kCredentialIdCapacity> publicKeyExtra{}; ///< the record's credential identifier
    std::uint32_t publicKeyExtraLength = 0;
    char label[kLabelCapacity] = {}; ///< at most kLabelMaxLength characters
    std::uint32_t bitLength = 0;
    bool recordFlag = false; ///< of the key pair record; handed back to the token
    std::string keyName;     ///< as the application gave it, UTF-8
    bool persisted = false;  ///< false for a key that waits for KSPFinalizeKey
    SecretBytes<kSymmetricKeyCapacity> symmetricKey;
    std::uint32_t symmetricKeyLength = 0; ///< bytes; 0 for a key pair or public key
    bool ecbMode = false;

    /// Takes identifier, type, usage, public components, label and flag from a token record whose lengths
    /// were checked.
    void fillFrom(const VeltraKeyPair& pair);

    /// Takes identifier, public key and label only: a key that was just generated keeps the flag and the
    /// credential identifier it was created with, which are none: deliberate. Nothing fails here: the token
    /// has the key by now.
    void identifyAs(const VeltraKeyPair& pair) noexcept;

    /// At most kPublicKeyCapacity bytes.
    void setPublicKey(std::span<const unsigned char> bytes);

    [[nodiscard]] bool isSymmetric() const { return symmetricKeyLength != 0; }
    [[nodiscard]] std::span<const unsigned char> publicKeyBytes() const {
        return {publicKey.data(), publicKeyLength};
    }
    [[nodiscard]] std::span<const unsigned char> symmetricKeyBytes() const {
        return {symmetricKey.data(), symmetricKeyLength};
    }
};

/// The live key behind a handle, or null.
inline std::shared_ptr<KSP_KEY> liveKspKey(NCRYPT_KEY_HANDLE handle) {
    return LiveRecords<KSP_KEY>::find(handle);
}

/// CNG's name of the algorithm of a key: "RSA" for every type that is not an EC type.
const char* algorithmName(std::uint32_t keyType, std::uint32_t keyUsage);

/// "RSA", "ECDSA" or "ECDH".
const char* algorithmGroup(std::uint32_t keyType, std::uint32_t keyUsage);

} // namespace veltra
