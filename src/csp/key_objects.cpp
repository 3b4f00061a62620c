// CPGetUserKey and CPDestroyKey: key objects of keys that already live on the token.

#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "token/key_pairs.h"

#include <memory>

namespace veltra {

namespace {

bool isKeySpec(DWORD keySpec) {
    return keySpec == AT_SIGNATURE || keySpec == AT_KEYEXCHANGE;
}

ALG_ID algIdOf(const VeltraKeyPair& pair, DWORD keySpec) {
    if (isEcKeyType(pair.keyType)) return kEcAlgId;
    return keySpec == AT_SIGNATURE ? CALG_RSA_SIGN : CALG_RSA_KEYX;
}

// The first pair of the container. The usage of a key is not compared with the key specification. Without a
// container only the exchange key is given out, until the application has enumerated the containers; any key
// of the token serves as that, so a signing key needs no case of its own.
const VeltraKeyPair* findUserKey(const CSP_CONTEXT& context, const std::vector<VeltraKeyPair>& pairs,
                                 DWORD keySpec) {
    for (const VeltraKeyPair& pair : pairs) {
        if (!context.containerMatches(pair)) continue;
        if (!context.containersEnumerated && context.keyName.empty()) {
            if (keySpec != AT_KEYEXCHANGE) continue;
            Utils::debug("Key found (AT_KEYEXCHANGE, usage=", pair.usage, ")");
            return &pair;
        }
        if (isKeySpec(keySpec)) return &pair;
    }
    return nullptr;
}

Outcome openUserKey(CSP_CONTEXT& context, DWORD keySpec, HCRYPTKEY* phUserKey) {
    Utils::debug("CPGetUserKey -> dwKeySpec : ", keySpec);
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(context.serial, context.libraryContext);
    if (pairs.empty()) return refuse(NTE_NO_KEY, "CPGetUserKey: key list is empty");
    auto key = std::make_shared<KEY_HANDLE>();
    key->mode = CRYPT_MODE_CBC;
    Utils::debug("CPGetUserKey - Container name : ", context.containerName);
    const VeltraKeyPair* pair = findUserKey(context, pairs, keySpec);
    if (pair == nullptr) {
        return refuse(NTE_BAD_KEY, concat("CPGetUserKey: requested key not found, dwKeySpec=", keySpec,
                                          " container=", context.containerName, ", return FALSE"));
    }
    key->fillFrom(*pair);
    key->algId = algIdOf(*pair, keySpec);
    key->keyBits = keyBitsOf(pair->keyType);
    const HCRYPTKEY handle = LiveRecords<KEY_HANDLE>::add(key);
    if (KeySlot* slot = context.slotOf(keySpec); slot != nullptr && !slot->filled()) slot->fill(pair->keyId);
    *phUserKey = handle;
    Utils::debug("CPGetUserKey: algo=", key->algId, " keyUsage=", key->keyUsage, " bits=", key->keyBits,
                 ", return TRUE");
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    return cspEntry("CPGetUserKey", [&] {
        const auto context = liveContext(hProv);
        if (phUserKey == nullptr || context == nullptr) {
            return refuse(NTE_BAD_KEY, "CPGetUserKey: phUserKey or hProv is null");
        }
        if (context->initialised == 0) return refuse(NTE_BAD_UID, "CPGetUserKey: context is not initialized");
        return openUserKey(*context, dwKeySpec, phUserKey);
    });
}

BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    return cspEntry("CPDestroyKey", [&] {
        if (usableContext(hProv) == nullptr) {
            return refuse(NTE_BAD_UID, "CPDestroyKey: invalid or uninitialized context");
        }
        if (!LiveRecords<KEY_HANDLE>::take(hKey)) {
            return refuse(NTE_BAD_KEY, "CPDestroyKey: pKeyHandle is NULL");
        }
        return success();
    });
}
