// KSPEnumKeys.

#include "ksp/key_enumeration.h"

#include "ksp/caller_block.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_provider.h"
#include "token/key_pairs.h"

#include <new>

namespace veltra {

namespace {

// Hands out the key that the cursor stands at; `ppEnumState` receives a cursor that the caller does not have
// yet.
SECURITY_STATUS nextKey(const std::shared_ptr<KSP_ENUM_STATE>& cursor, NCryptKeyName** ppKeyName,
                        PVOID* ppEnumState) {
    if (cursor->next >= cursor->keyPairs.size()) {
        return refuse(NTE_NO_MORE_ITEMS, "KSP: No more keys to enumerate");
    }
    const VeltraKeyPair& pair = cursor->keyPairs[cursor->next];
    const std::string name = keyName(pair.keyId);
    const std::string_view algorithm = algorithmName(pair.keyType, pair.usage);
    CallerBlock<NCryptKeyName> block(1, wideSize(name) + wideSize(algorithm));
    if (!block) return refuse(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate key name");
    // The key specification is the same for every key, whatever its usage: deliberate.
    block[0] = {.pszName = block.addText(name),
                .pszAlgid = block.addText(algorithm),
                .dwLegacyKeySpec = AT_KEYEXCHANGE,
                .dwFlags = 0};
    std::string line = concat("KSP: Enumerated key: ", name);
    if (*ppEnumState == nullptr) {
        LiveRecords<KSP_ENUM_STATE>::add(cursor);
        *ppEnumState = cursor.get();
    }
    *ppKeyName = block.handOut();
    ++cursor->next;
    Utils::debug(std::move(line));
    return kSuccess;
}

// An enumeration that fails at once, that of a token without keys included, leaves the caller no cursor.
SECURITY_STATUS enumerateKeys(const KSP_PROVIDER& provider, NCryptKeyName** ppKeyName, PVOID* ppEnumState) {
    if (*ppEnumState != nullptr) {
        const auto cursor = LiveRecords<KSP_ENUM_STATE>::find(reinterpret_cast<std::uintptr_t>(*ppEnumState));
        if (cursor == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPEnumKeys: enum state is not one of this provider");
        }
        return nextKey(cursor, ppKeyName, ppEnumState);
    }
    const std::shared_ptr<KSP_ENUM_STATE> cursor(new (std::nothrow) KSP_ENUM_STATE);
    if (!cursor) return refuse(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate enum state");
    cursor->keyPairs = keyPairsOf(provider.serial(), provider.libraryContext);
    return nextKey(cursor, ppKeyName, ppEnumState);
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD) {
    return kspEntry("KSPEnumKeys", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPEnumKeys");
        if (ppKeyName == nullptr || ppEnumState == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPEnumKeys: ppKeyName or ppEnumState is null");
        }
        return enumerateKeys(*provider, ppKeyName, ppEnumState);
    });
}
