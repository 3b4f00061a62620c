#pragma once

#include "foundation/cng.h"
#include "foundation/live_records.h"
#include "foundation/secret.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace veltra {

/// The longest shared secret that is kept, that of P-521; what is longer is cut.
inline constexpr std::size_t kSecretCapacity = 66;

/// The record behind an NCRYPT_SECRET_HANDLE, made by KSPSecretAgreement, freed and wiped by KSPFreeSecret.
/// It has copies of what it needs of its provider, which may be freed before it.
struct KSP_SECRET {
    SecretBytes<kSecretCapacity> secret;
    std::uint32_t secretLength = 0; ///< bytes
    std::string deviceSerial;       ///< the token of the key that agreed
    std::string firmwareVersion;    ///< as the provider knew it
    void* libraryContext = nullptr;

    [[nodiscard]] std::span<const unsigned char> bytes() const { return {secret.data(), secretLength}; }
};

/// The live secret behind a handle, or null.
inline std::shared_ptr<KSP_SECRET> liveSecret(NCRYPT_SECRET_HANDLE handle) {
    return LiveRecords<KSP_SECRET>::find(handle);
}

} // namespace veltra
