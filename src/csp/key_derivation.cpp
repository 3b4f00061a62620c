// CPDeriveKey and CPHashSessionKey.

#include "csp/aes_algorithms.h"
#include "csp/csp_entry_points.h"
#include "csp/hash_context.h"

#include <algorithm>

namespace veltra {

namespace {

// A plain finish: no outer step for HMAC objects, and the hash is not marked finished.
Outcome finishBaseData(const CSP_CONTEXT& context, HASH_CONTEXT& hash) {
    if (hash.hashValueLength != 0) return success();
    std::uint32_t length = 0;
    if (finishDeviceHash(context, hash.deviceHash, hash.hashValue.data(), kDigestBufferLength, length) !=
        kDeviceOk) {
        return refuse(NTE_FAIL, "CPDeriveKey: veltra_finalHash failed");
    }
    hash.hashValueLength = length;
    return success();
}

// The leading bytes of the hash value; a shorter value is filled up with zeros. There is no expansion.
Outcome deriveKey(const CSP_CONTEXT& context, HASH_CONTEXT& hash, ALG_ID algId, DWORD keyBits,
                  HCRYPTKEY* phKey) {
    if (const Outcome finished = finishBaseData(context, hash); !finished) return finished;
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE);
    if (!key) return failure(ERROR_NOT_ENOUGH_MEMORY);
    key->algId = algId;
    key->keyUsage = kUsageBoth;
    key->keyBits = keyBits;
    key->symmetricKeyLength = keyBits / 8;
    std::copy_n(hash.hashValue.begin(), std::min(hash.hashValueLength, key->symmetricKeyLength),
                key->symmetricKey.data());
    *phKey = LiveRecords<KEY_HANDLE>::add(std::move(key));
    // A decimal number behind "0x", here and in the refusal: part of the log format.
    Utils::debug("CPDeriveKey: derived ", keyBits, "-bit key for algId=0x", algId);
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPDeriveKey(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTHASH hBaseData, DWORD, HCRYPTKEY* phKey) {
    return cspEntry("CPDeriveKey", [&] {
        const auto context = liveContext(hProv);
        if (phKey == nullptr || context == nullptr) return failure(ERROR_INVALID_PARAMETER);
        if (context->initialised == 0) return failure(NTE_BAD_UID);
        const auto hash = liveHash(hBaseData);
        if (hash == nullptr) return failure(NTE_BAD_HASH);
        const DWORD keyBits = aesKeyBits(Algid);
        if (keyBits == 0)
            return refuse(NTE_BAD_ALGID, concat("CPDeriveKey: unsupported algorithm 0x", Algid));
        return deriveKey(*context, *hash, Algid, keyBits, phKey);
    });
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags) {
    return cspEntry("CPHashSessionKey", [&] {
        return refuse(ERROR_CALL_NOT_IMPLEMENTED, concat("CPHashSessionKey: not supported, hHash=", hHash,
                                                         " hKey=", hKey, " dwFlags=", dwFlags));
    });
}
