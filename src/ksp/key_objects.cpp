// KSPOpenKey, KSPDeleteKey and KSPFreeKey: key objects of keys that already live on the token.

#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <algorithm>

namespace veltra {

namespace {

// The token to open the key on: the one that holds it, which becomes the provider's, otherwise the one that
// the provider works on. The provider's other keys go on by the provider's token: deliberate.
std::string resolveToken(KSP_PROVIDER& provider, const std::string& name) {
    std::string current = provider.serial();
    if (name.empty()) return current;
    const auto isNamed = [&](const VeltraKeyPair& pair) { return hasKeyName(pair.keyId, name); };
    const std::optional<std::string> holder = tokenWithKeyPair(connectedSerials(provider.libraryContext),
                                                               provider.libraryContext, isNamed, "KSP: ");
    if (!holder || *holder == current) return current;
    provider.bindTo(*holder);
    Utils::debug("KSP: Resolved key to device: ", *holder);
    return *holder;
}

const VeltraKeyPair* findNamedKey(const std::vector<VeltraKeyPair>& pairs, const std::string& name) {
    for (const VeltraKeyPair& pair : pairs) {
        const std::string candidate = keyName(pair.keyId);
        Utils::debug("KSP: Available key: ", candidate);
        if (candidate == name) return &pair;
    }
    return nullptr;
}

bool servesKeySpec(const VeltraKeyPair& pair, DWORD keySpec) {
    switch (keySpec) {
    case 0:
    case AT_KEYEXCHANGE:
        return true;
    case AT_SIGNATURE:
        return pair.usage != kUsageEncrypt;
    default:
        return false;
    }
}

SECURITY_STATUS openKey(KSP_PROVIDER& provider, const std::string& name, DWORD keySpec,
                        NCRYPT_KEY_HANDLE* phKey) {
    Utils::debug("KSP: Opening key: ", name);
    const std::string serial = resolveToken(provider, name);
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(serial, provider.libraryContext);
    if (pairs.empty()) return refuse(NTE_NO_KEY, "KSP: No keys found on token");
    const VeltraKeyPair* pair = findNamedKey(pairs, name);
    if (pair == nullptr) {
        return refuse(NTE_NO_KEY, concat("KSP: Input key not found on token: ", name));
    }
    Utils::debug("KSP: Key match found, proceeding...");
    if (!servesKeySpec(*pair, keySpec)) {
        Utils::error("KSP: encrypt-only key cannot serve AT_SIGNATURE, dwLegacyKeySpec=", keySpec,
                     " keyUsage=", pair->usage);
        return refuse(NTE_NO_KEY, concat("KSP: Key not found: ", name));
    }
    auto key = std::make_shared<KSP_KEY>();
    key->fillFrom(*pair);
    key->bitLength = keyBitsOf(pair->keyType);
    key->keyName = name;
    key->persisted = true;
    *phKey = LiveRecords<KSP_KEY>::add(key);
    Utils::debug("KSP: Key opened, algorithm=", key->keyType, " bits=", key->bitLength);
    return kSuccess;
}

SECURITY_STATUS deleteKey(const KSP_PROVIDER& provider, const KSP_KEY& key) {
    const std::string serial = provider.serial();
    if (!ensureUserVerified(serial, provider.libraryContext)) {
        return refuse(NTE_FAIL, "KSPDeleteKey: password validation failed");
    }
    const Pin pin = getPin(serial);
    const int code = deviceLibrary().veltra_deleteKeyPair(
        serial.c_str(), key.credentialId.data(), pin.c_str(), key.recordFlag, provider.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Delete key failed: ", code));
    Utils::debug("KSP: Key deleted successfully");
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD) {
    return kspEntry("KSPOpenKey", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPOpenKey");
        if (phKey == nullptr) return refuse(NTE_INVALID_PARAMETER, "KSPOpenKey: phKey is null");
        return openKey(*provider, fromWide(pszKeyName), dwLegacyKeySpec, phKey);
    });
}

// The key object stays: whoever opened it frees it.
SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD) {
    return kspEntry("KSPDeleteKey", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPDeleteKey");
        const auto key = liveKspKey(hKey);
        if (key == nullptr) return refuse(NTE_INVALID_HANDLE, "KSPDeleteKey: key handle is null");
        return deleteKey(*provider, *key);
    });
}

// What is not a live key is freed already; the provider is not looked at.
SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE hKey) {
    return kspEntry("KSPFreeKey", [&] {
        LiveRecords<KSP_KEY>::take(hKey).reset();
        return kSuccess;
    });
}
