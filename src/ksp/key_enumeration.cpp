// KSPEnumKeys.

#include "ksp/caller_block.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_provider.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

namespace veltra {

namespace {

/// The cursor that the caller has: one block on the C heap, released, like every block of the caller's, by
/// KSPFreeBuffer. The token's list at the first call lies behind it.
struct KSP_ENUM_STATE {
    std::uint32_t next;  ///< index of the next key
    std::uint32_t count; ///< keys in the list

    [[nodiscard]] VeltraKeyPair* keyPairs() { return reinterpret_cast<VeltraKeyPair*>(this + 1); }
};
static_assert(alignof(VeltraKeyPair) <= alignof(KSP_ENUM_STATE));

/// Releases a cursor. By its type a cursor is told from the other blocks that callers have.
struct CursorReleaser {
    void operator()(void* cursor) const { std::free(cursor); }
};

// Null without memory.
std::shared_ptr<void> newCursor(const std::vector<VeltraKeyPair>& pairs) {
    const std::size_t listBytes = pairs.size() * sizeof(VeltraKeyPair);
    std::shared_ptr<void> block(std::calloc(1, sizeof(KSP_ENUM_STATE) + listBytes), CursorReleaser());
    auto* const cursor = static_cast<KSP_ENUM_STATE*>(block.get());
    if (cursor == nullptr) return nullptr;
    cursor->count = static_cast<std::uint32_t>(pairs.size());
    std::ranges::copy(pairs, cursor->keyPairs());
    return block;
}

// Null when `state` is no live cursor.
std::shared_ptr<void> liveCursor(void* state) {
    auto block = LiveRecords<void>::find(reinterpret_cast<std::uintptr_t>(state));
    return std::get_deleter<CursorReleaser>(block) != nullptr ? block : nullptr;
}

SECURITY_STATUS nextKey(KSP_ENUM_STATE& cursor, NCryptKeyName** ppKeyName) {
    if (cursor.next >= cursor.count) return refuse(NTE_NO_MORE_ITEMS, "KSP: No more keys to enumerate");
    const VeltraKeyPair& pair = cursor.keyPairs()[cursor.next];
    const std::string name = keyName(pair.keyId);
    const std::string_view algorithm = algorithmName(pair.keyType, pair.usage);
    CallerBlock<NCryptKeyName> block(1, wideSize(name) + wideSize(algorithm));
    if (!block) return refuse(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate key name");
    // The key specification is the same for every key, whatever its usage: deliberate.
    block[0] = {.pszName = block.addText(name),
                .pszAlgid = block.addText(algorithm),
                .dwLegacyKeySpec = AT_KEYEXCHANGE,
                .dwFlags = 0};
    *ppKeyName = block.handOut();
    ++cursor.next;
    Utils::debug("KSP: Enumerated key: ", name);
    return kSuccess;
}

// The first call hands the cursor out whatever becomes of the rest, also for a token without keys: the caller
// frees it in any case.
SECURITY_STATUS enumerateKeys(const KSP_PROVIDER& provider, NCryptKeyName** ppKeyName, PVOID* ppEnumState) {
    std::shared_ptr<void> cursor;
    if (*ppEnumState != nullptr) {
        cursor = liveCursor(*ppEnumState);
        if (!cursor) return refuse(NTE_INVALID_PARAMETER, "KSPEnumKeys: enum state is not a live cursor");
    } else {
        cursor = newCursor(keyPairsOf(provider.serial(), provider.libraryContext));
        if (!cursor) return refuse(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate enum state");
        LiveRecords<void>::add(cursor);
        *ppEnumState = cursor.get();
    }
    return nextKey(*static_cast<KSP_ENUM_STATE*>(cursor.get()), ppKeyName);
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
