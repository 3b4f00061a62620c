// CPCreateHash, CPHashData, CPDuplicateHash and CPDestroyHash.

#include "csp/csp_entry_points.h"
#include "csp/hash_context.h"
#include "foundation/device_library.h"
#include "token/crypto_policy.h"

#include <algorithm>
#include <climits>

namespace veltra {

namespace {

Outcome createHmac(HASH_CONTEXT& hash, HCRYPTKEY hKey) {
    Utils::debug("CPCreateHash: HMAC");
    const auto key = liveKey(hKey);
    if (key == nullptr) return refuse(NTE_BAD_KEY, "CPCreateHash: CALG_HMAC requires a key handle");
    if (key->symmetricKeyLength == 0) {
        return refuse(NTE_BAD_KEY, "CPCreateHash: HMAC key has no symmetric key material");
    }
    hash.isHmac = 1;
    hash.hmacKeyHandle = hKey;
    hash.hmacKeyLength = key->symmetricKeyLength;
    std::copy_n(key->symmetricKey.data(), key->symmetricKeyLength, hash.hmacKey.data());
    return success(); // the device hash is started by HP_HMAC_INFO
}

// SHA-1 is for FIPS 140-2 tokens, MD5 for none.
Outcome applyPolicy(const CSP_CONTEXT& context, ALG_ID algId) {
    if (algId == CALG_MD5) {
        const Outcome refused = refuse(NTE_BAD_ALGID, "CPCreateHash: MD5 blocked (FIPS policy)");
        raisePolicyEvent(kMd5BlockedEvent);
        return refused;
    }
    if (algId == CALG_SHA1) {
        if (context.serial.empty() || !isFips1402Token(context.serial, context.libraryContext)) {
            const Outcome refused = refuse(NTE_BAD_ALGID, "CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)");
            raisePolicyEvent(kSha1BlockedEvent);
            return refused;
        }
        Utils::debug("CPCreateHash: SHA-1 (FIPS 140-2 token)");
    }
    return success();
}

// The spelling "Crete" is part of the log format.
Outcome createDigest(const CSP_CONTEXT& context, HASH_CONTEXT& hash, ALG_ID algId) {
    if (const Outcome allowed = applyPolicy(context, algId); !allowed) return allowed;
    const HashAlgorithm* algorithm = findHashAlgorithm(algId);
    if (algorithm == nullptr) {
        return refuse(NTE_BAD_ALGID, concat("CPCreateHash: unsupported Algid=0x", toHex8(algId)));
    }
    if (algId != CALG_SHA1) Utils::debug("Crete hash algorithm ", algorithm->digestLength * 8);
    hash.hashSize = algorithm->digestLength;
    hash.mechanism = hash.innerMechanism = algorithm->mechanism;
    Utils::debug("Crete hash algorithm : ", hash.mechanism);
    if (const int code = startDeviceHash(context, hash.mechanism, &hash.deviceHash); code != kDeviceOk) {
        return refuse(NTE_FAIL, concat("CPCreateHash: veltra_initHash failed, ret=", code));
    }
    return success();
}

Outcome createHash(const CSP_CONTEXT& context, ALG_ID algId, HCRYPTKEY hKey, HCRYPTHASH* phHash) {
    std::unique_ptr<HASH_CONTEXT> hash(new (std::nothrow) HASH_CONTEXT);
    if (!hash) return refuse(NTE_NO_MEMORY, "CPCreateHash: failed to allocate HASH_CONTEXT");
    Utils::debug("Crete hash algorithm input : ", algId);
    hash->algId = algId;
    const Outcome created =
        algId == CALG_HMAC ? createHmac(*hash, hKey) : createDigest(context, *hash, algId);
    if (created) *phHash = LiveRecords<HASH_CONTEXT>::add(std::move(hash));
    return created;
}

Outcome hashData(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, const BYTE* data, DWORD length) {
    do {
        const DWORD piece = std::min<DWORD>(length, INT_MAX);
        const int code = deviceLibrary().veltra_updateHash(hash.deviceHash, data, static_cast<int>(piece),
                                                           context.libraryContext);
        if (code != kDeviceOk)
            return refuse(NTE_FAIL, concat("CPHashData: veltra_updateHash failed, ret=", code));
        data += piece;
        length -= piece;
    } while (length > 0);
    return success();
}

// A plain finish for HMAC objects too, so that one duplicated before its value was read keeps the inner
// digest as its value: deliberate.
Outcome finishSource(const CSP_CONTEXT& context, HASH_CONTEXT& source) {
    std::uint32_t length = 0;
    const int code =
        finishDeviceHash(context, source.deviceHash, source.hashValue.data(), source.hashSize, length);
    if (code != kDeviceOk) {
        return refuse(NTE_FAIL, concat("CPDuplicateHash: veltra_finalHash on source failed, ret=", code));
    }
    source.finalized = 1;
    source.hashValueLength = length;
    Utils::debug("CPDuplicateHash: source finalized before duplication, hashLen=", length);
    return success();
}

// The copy is always finished; it takes no device hash, no key and no signing key.
Outcome duplicateHash(const HASH_CONTEXT& source, HCRYPTHASH* phHash) {
    std::unique_ptr<HASH_CONTEXT> copy(new (std::nothrow) HASH_CONTEXT);
    if (!copy) return refuse(NTE_NO_MEMORY, "CPDuplicateHash: failed to allocate HASH_CONTEXT");
    copy->reserved = source.reserved;
    copy->mechanism = source.mechanism;
    copy->innerMechanism = source.innerMechanism;
    copy->hmacInfo = source.hmacInfo;
    copy->valid = source.valid;
    copy->isHmac = source.isHmac;
    copy->finalized = source.finalized;
    copy->hashValue = source.hashValue;
    copy->hashValueLength = source.hashValueLength;
    copy->hashSize = source.hashSize;
    std::string line =
        concat("CPDuplicateHash - source: 0x", toHexAddress(reinterpret_cast<std::uintptr_t>(&source)),
               " duplicate: 0x", toHexAddress(reinterpret_cast<std::uintptr_t>(copy.get())));
    *phHash = LiveRecords<HASH_CONTEXT>::add(std::move(copy));
    Utils::debug(std::move(line));
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash) {
    return cspEntry("CPCreateHash", [&] {
        const auto context = liveContext(hProv);
        if (phHash == nullptr || context == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER,
                          concat("CPCreateHash: invalid parameter - phHash=", phHash, " hProv=", hProv));
        }
        if (dwFlags != 0) {
            return refuse(NTE_BAD_FLAGS, concat("CPCreateHash: invalid dwFlags=0x", toHex8(dwFlags)));
        }
        if (context->initialised == 0) return refuse(NTE_BAD_UID, "CPCreateHash: context not initialized");
        return createHash(*context, Algid, hKey, phHash);
    });
}

BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbData, DWORD) {
    return cspEntry("CPHashData", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPHashData: invalid or uninitialized context");
        const auto hash = liveHash(hHash);
        if (hash == nullptr || hash->valid == 0)
            return refuse(NTE_BAD_HASH, "CPHashData: pHashHandle is NULL");
        if (hash->finalized != 0) {
            return refuse(NTE_BAD_HASH_STATE,
                          "CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data");
        }
        if (pbData == nullptr && cbData != 0)
            return refuse(ERROR_INVALID_PARAMETER, "CPHashData: pbData is null");
        return hashData(*context, *hash, pbData, cbData);
    });
}

BOOL WINAPI CPDuplicateHash(HCRYPTPROV hUID, HCRYPTHASH hHash, DWORD*, DWORD dwFlags, HCRYPTHASH* phHash) {
    return cspEntry("CPDuplicateHash", [&] {
        const auto context = liveContext(hUID);
        const auto source = liveHash(hHash);
        if (phHash == nullptr || context == nullptr || source == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER, concat("CPDuplicateHash: invalid parameter - phHash=",
                                                          phHash, " hProv=", hUID, " hHash=", hHash));
        }
        if (dwFlags != 0) {
            return refuse(NTE_BAD_FLAGS, concat("CPDuplicateHash: invalid dwFlags=0x", toHex8(dwFlags)));
        }
        if (context->initialised == 0) {
            return refuse(NTE_BAD_UID, "CPDuplicateHash: invalid or uninitialized context");
        }
        if (source->valid == 0)
            return refuse(NTE_BAD_HASH, "CPDuplicateHash: source hash is NULL or invalid");
        if (source->finalized == 0) {
            if (const Outcome finished = finishSource(*context, *source); !finished) return finished;
        }
        return duplicateHash(*source, phHash);
    });
}

BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    return cspEntry("CPDestroyHash", [&] {
        if (usableContext(hProv) == nullptr) {
            return refuse(NTE_BAD_UID, "CPDestroyHash: invalid or uninitialized context");
        }
        // The record wipes its key bytes itself. The device hash stays: the library has no call to close it.
        if (!LiveRecords<HASH_CONTEXT>::take(hHash)) {
            return refuse(NTE_BAD_HASH, "CPDestroyHash: pHashHandle is NULL");
        }
        return success();
    });
}
