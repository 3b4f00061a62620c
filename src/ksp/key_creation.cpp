// KSPCreatePersistedKey and KSPFinalizeKey: a new key pair, first as an object only, then on the token.

#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <algorithm>
#include <array>

namespace veltra {

namespace {

constexpr std::uint32_t kDefaultRsaBits = 2048;
constexpr std::uint32_t kRefusedRsaBits = 1024;

struct KeyKind {
    std::string_view name;
    std::uint32_t keyType;
    std::uint32_t keyUsage;
};

constexpr std::array<KeyKind, 7> kKeyKinds = {{
    {"RSA", kKeyTypeRsaUnsized, kUsageSign},
    {"ECDSA_P256", kKeyTypeEcP256, kUsageSign},
    {"ECDSA_P384", kKeyTypeEcP384, kUsageSign},
    {"ECDSA_P521", kKeyTypeEcP521, kUsageSign},
    {"ECDH_P256", kKeyTypeEcP256, kUsageEncrypt},
    {"ECDH_P384", kKeyTypeEcP384, kUsageEncrypt},
    {"ECDH_P521", kKeyTypeEcP521, kUsageEncrypt},
}};

SECURITY_STATUS createKey(const std::string& algorithm, LPCWSTR keyName, DWORD keySpec,
                          NCRYPT_KEY_HANDLE* phKey) {
    const auto* const kind = std::ranges::find(kKeyKinds, algorithm, &KeyKind::name);
    if (kind == kKeyKinds.end()) {
        return refuse(NTE_NOT_SUPPORTED, "KSP: Unsupported algorithm for key generation");
    }
    const bool isExchangeRsa = kind->keyType == kKeyTypeRsaUnsized && keySpec == AT_KEYEXCHANGE;
    auto key = std::make_shared<KSP_KEY>();
    key->keyType = kind->keyType;
    key->keyUsage = isExchangeRsa ? kUsageEncrypt : kind->keyUsage;
    key->bitLength = keyBitsOf(kind->keyType);
    key->keyName = fromWide(keyName);
    *phKey = LiveRecords<KSP_KEY>::add(std::move(key));
    Utils::debug("KSP: Key object created, waiting for FinalizeKey");
    return kSuccess;
}

struct KeySize {
    std::uint32_t keyType = 0;
    std::uint32_t bits = 0; ///< what the key reports
};

// An RSA size that tokens do not make becomes a key of 2048 bits that reports the size it was given:
// deliberate.
SECURITY_STATUS chooseSize(const KSP_KEY& key, const std::string& serial, void* libraryContext,
                           KeySize& size) {
    if (isEcKeyType(key.keyType)) {
        size = {.keyType = key.keyType, .bits = keyBitsOf(key.keyType)};
        return kSuccess;
    }
    if (key.keyType != kKeyTypeRsaUnsized) {
        return refuse(NTE_NOT_SUPPORTED, concat("KSPFinalizeKey: unsupported ECC algorithm=", key.keyType));
    }
    if (key.bitLength == kRefusedRsaBits) {
        if (!serial.empty()) readTokenInfo(serial, libraryContext);
        return refuse(NTE_NOT_SUPPORTED,
                      "KSPFinalizeKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size below "
                      "112-bit security strength");
    }
    size = {.keyType = rsaKeyTypeForBits(key.bitLength).value_or(kKeyTypeRsa2048),
            .bits = key.bitLength != 0 ? key.bitLength : kDefaultRsaBits};
    return kSuccess;
}

// The key object changes only when the token has made the pair: one whose generation failed can be finalised
// again.
SECURITY_STATUS finalizeKey(const KSP_PROVIDER& provider, KSP_KEY& key) {
    const std::string serial = provider.serial();
    if (!ensureUserVerified(serial, provider.libraryContext)) {
        return refuse(NTE_FAIL, "KSPFinalizeKey: password validation failed");
    }
    KeySize size;
    if (const SECURITY_STATUS status = chooseSize(key, serial, provider.libraryContext, size);
        status != kSuccess) {
        return status;
    }
    Utils::debug(
        concat("KSP: FinalizeKey - generating key, algorithm=", size.keyType, " bitSize=", size.bits));
    VeltraKeyPair pair{};
    pair.keyType = size.keyType;
    pair.usage = key.keyUsage;
    const int code = generateKeyPair("KSPFinalizeKey", serial, pair, provider.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Key generation failed: ", code));
    pair.keyType = size.keyType;
    pair.usage = key.keyUsage;
    key.fillFrom(pair);
    key.bitLength = size.bits;
    key.persisted = true;
    Utils::debug("KSP: Key finalized successfully");
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                             LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                             DWORD) {
    return kspEntry("KSPCreatePersistedKey", [&] {
        if (liveProvider(hProvider) == nullptr) return refuseProvider("KSPCreatePersistedKey");
        if (phKey == nullptr || pszAlgId == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPCreatePersistedKey: phKey or pszAlgId is null");
        }
        return createKey(fromWide(pszAlgId), pszKeyName, dwLegacyKeySpec, phKey);
    });
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD) {
    return kspEntry("KSPFinalizeKey", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPFinalizeKey");
        const auto key = liveKspKey(hKey);
        if (key == nullptr) return refuse(NTE_INVALID_HANDLE, "KSPFinalizeKey: key handle is null");
        return key->persisted ? kSuccess : finalizeKey(*provider, *key);
    });
}
