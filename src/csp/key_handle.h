#pragma once

#include "foundation/device_library_contract.h"
#include "foundation/live_records.h"
#include "foundation/secret.h"
#include "foundation/windows.h"

#include <cstdint>
#include <span>

namespace veltra {

/// What KP_ALGID reports for an EC key pair of the token.
inline constexpr ALG_ID kEcAlgId = CALG_DSS_SIGN;

/// The record behind an HCRYPTKEY: a token key pair by its identifier, a public key, or an AES key held in
/// memory. Freed by CPDestroyKey; nothing in it owns anything on the token. Not locked: one handle is used by
/// one thread at a time.
struct KEY_HANDLE {
    unsigned char keyId[kKeyIdLength] = {};
    std::uint32_t keyIdLength = 0; ///< kKeyIdLength when keyId is set
    ALG_ID algId = 0;              ///< what KP_ALGID reports
    std::uint32_t keyUsage = 0;    ///< KeyUsage
    unsigned char credentialId[kCredentialIdCapacity] = {};
    std::uint32_t credentialIdLength = 0;
    char label[kLabelCapacity] = {};
    std::uint32_t keyBits = 0;
    DWORD mode = 0; ///< what KP_MODE reports
    std::uint8_t tokenFlag = 0;
    unsigned char publicKey[kPublicKeyCapacity] =
        {}; ///< bare modulus, DER or EC point, as the token gives it
    std::uint32_t publicKeyLength = 0;
    SecretBytes<kSymmetricKeyCapacity> symmetricKey;
    std::uint32_t symmetricKeyLength = 0;

    /// Takes everything but algId, keyBits and mode from a token record whose lengths were checked. Nothing
    /// fails here: the token may just have made the key.
    void fillFrom(const VeltraKeyPair& pair) noexcept;

    /// The same from the record of an AES key, whose material is not taken.
    void fillFrom(const VeltraSymmetricKey& symmetric) noexcept;

    [[nodiscard]] std::span<const unsigned char> publicKeyBytes() const {
        return {publicKey, publicKeyLength};
    }
};

/// The live key object behind a handle, or null.
inline std::shared_ptr<KEY_HANDLE> liveKey(HCRYPTKEY handle) {
    return LiveRecords<KEY_HANDLE>::find(handle);
}

} // namespace veltra
