// KSPSecretAgreement: elliptic-curve Diffie-Hellman of a token key and a peer's public key.

#include "foundation/library_buffer.h"
#include "ksp/entry_guard.h"
#include "ksp/firmware_version.h"
#include "ksp/key_blobs.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "ksp/ksp_secret.h"
#include "token/device_state.h"
#include "token/key_operations.h"

#include <algorithm>

namespace veltra {

namespace {

constexpr std::size_t kShortestPoint = 3;

// The curves of the two keys are not compared, and a session that expired is not opened again: deliberate.
SECURITY_STATUS agree(const KSP_PROVIDER& provider, const KSP_KEY& privateKey, const KSP_KEY& peerKey,
                      NCRYPT_SECRET_HANDLE* phAgreedSecret) {
    if (privateKey.credentialIdLength == 0) {
        return refuse(NTE_BAD_KEY, "KSPSecretAgreement: private key has no credential ID (not a device key)");
    }
    const std::span<const unsigned char> point = peerKey.publicKeyBytes();
    if (point.size() < kShortestPoint || point.front() != kUncompressedPoint) {
        return refuse(NTE_BAD_KEY, "KSPSecretAgreement: peer public key is not uncompressed EC point");
    }
    const std::string serial = provider.serial();
    if (!ensureUserVerified(serial, provider.libraryContext)) {
        return refuse(NTE_FAIL, "KSPSecretAgreement: password validation failed");
    }
    const TokenKey key{
        .serial = serial, .keyId = privateKey.credentialId, .libraryContext = provider.libraryContext};
    LibraryBuffer agreed;
    const int code = agreeWithKey(key, getPin(serial), point, agreed);
    if (code != kDeviceOk || agreed.size() == 0) {
        return refuse(NTE_INTERNAL_ERROR, concat("KSPSecretAgreement: ECDH derive failed, ret=", code));
    }
    auto secret = std::make_shared<KSP_SECRET>();
    const std::span<const unsigned char> kept =
        agreed.bytes().first(std::min(agreed.size(), kSecretCapacity));
    std::ranges::copy(kept, secret->secret.data());
    secret->secretLength = static_cast<std::uint32_t>(kept.size());
    secret->deviceSerial = serial;
    secret->firmwareVersion = provider.firmwareVersion;
    secret->libraryContext = provider.libraryContext;
    *phAgreedSecret = LiveRecords<KSP_SECRET>::add(std::move(secret));
    Utils::debug("KSPSecretAgreement: ECDH shared secret computed, len=", agreed.size());
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD) {
    return kspEntry("KSPSecretAgreement", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) {
            return refuse(NTE_INVALID_HANDLE, "KSPSecretAgreement: provider not initialized");
        }
        if (phAgreedSecret == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPSecretAgreement: phAgreedSecret is null");
        }
        if (!isFirmware2OrNewer(provider->firmwareVersion)) {
            return refuse(NTE_NOT_SUPPORTED, concat("KSPSecretAgreement: ECDH not supported on firmware ",
                                                    provider->firmwareVersion));
        }
        const auto privateKey = liveKspKey(hPrivKey);
        const auto peerKey = liveKspKey(hPubKey);
        if (privateKey == nullptr || peerKey == nullptr) {
            return refuse(NTE_INVALID_HANDLE, "KSPSecretAgreement: key handle is null");
        }
        return agree(*provider, *privateKey, *peerKey, phAgreedSecret);
    });
}
