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
#include <optional>

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

SECURITY_STATUS createKey(const std::string& algorithm, LPCWSTR name, DWORD keySpec,
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
    key->keyName = fromWide(name);
    *phKey = LiveRecords<KSP_KEY>::add(std::move(key));
    Utils::debug("KSP: Key object created, waiting for FinalizeKey");
    return kSuccess;
}

// Fixes the size of a key about to be generated, which it reports from here on. The type code to generate it
// with; nothing after a refusal. An RSA size that tokens do not make becomes a key of 2048 bits that reports
// the size it was given: deliberate.
std::optional<std::uint32_t> fixSize(KSP_KEY& key, const std::string& serial, void* libraryContext) {
    if (isEcKeyType(key.keyType)) {
        key.bitLength = keyBitsOf(key.keyType);
        return key.keyType;
    }
    if (key.keyType != kKeyTypeRsaUnsized) {
        Utils::error("KSPFinalizeKey: unsupported ECC algorithm=", key.keyType);
        return std::nullopt;
    }
    if (key.bitLength == kRefusedRsaBits) {
        if (!serial.empty()) readTokenInfo(serial, libraryContext);
        Utils::error("KSPFinalizeKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size below "
                     "112-bit security strength");
        return std::nullopt;
    }
    if (key.bitLength == 0) key.bitLength = kDefaultRsaBits;
    return rsaKeyTypeForBits(key.bitLength).value_or(kKeyTypeRsa2048);
}

// The type is stored when the token has made the pair: a key whose generation failed is still one of no fixed
// type, which can be finalised again.
SECURITY_STATUS finalizeKey(const KSP_PROVIDER& provider, KSP_KEY& key) {
    const std::string serial = provider.serial();
    if (!ensureUserVerified(serial, provider.libraryContext)) {
        return refuse(NTE_FAIL, "KSPFinalizeKey: password validation failed");
    }
    // The application may have finalised the key itself while the dialog ran its window procedures.
    if (key.persisted) return kSuccess;
    const std::optional<std::uint32_t> keyType = fixSize(key, serial, provider.libraryContext);
    if (!keyType) return NTE_NOT_SUPPORTED;
    Utils::debug("KSP: FinalizeKey - generating key, algorithm=", *keyType, " bitSize=", key.bitLength);
    VeltraKeyPair pair{};
    pair.keyType = *keyType;
    pair.usage = key.keyUsage;
    const int code = generateKeyPair("KSPFinalizeKey", serial, pair, provider.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Key generation failed: ", code));
    key.identifyAs(pair);
    key.keyType = *keyType;
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
