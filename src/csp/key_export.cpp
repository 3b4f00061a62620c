#include "csp/key_export.h"

#include "certs/public_key_blob.h"
#include "csp/csp_entry_points.h"
#include "token/key_pairs.h"

#include <algorithm>

namespace veltra {

Outcome ExportPublicKeyComponents(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* data,
                                  DWORD* dataLength) {
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(context.serial, context.libraryContext);
    if (pairs.empty()) return refuse(NTE_BAD_KEY, "ExportPublicKeyComponents: key list is empty");
    const VeltraKeyPair* pair = findKeyPair(pairs, key.keyId);
    if (pair == nullptr) {
        return refuse(NTE_BAD_KEY, "ExportPublicKeyComponents: matching key not found in key list");
    }
    if (!isRsaKeyType(pair->keyType)) {
        return refuse(NTE_BAD_TYPE,
                      "ExportPublicKeyComponents: key algorithm is not RSA, cannot export as PUBLICKEYBLOB");
    }
    const Bytes blob = makePublicKeyBlob({pair->publicKey, pair->publicKeyLength}, key.algId);
    const auto size = static_cast<DWORD>(blob.size());
    if (data == nullptr) {
        *dataLength = size;
        Utils::error("Emport public key more data required");
        return successWithLastError(ERROR_MORE_DATA);
    }
    if (*dataLength < size) {
        *dataLength = size;
        return refuse(ERROR_MORE_DATA,
                      concat("ExportPublicKeyComponents: output buffer too small, required=", size));
    }
    Utils::debug("key usage : ", key.algId);
    std::ranges::copy(blob, data);
    *dataLength = size;
    return successWithLastError(ERROR_SUCCESS);
}

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY, DWORD dwBlobType, DWORD dwFlags,
                        BYTE* pbData, DWORD* pcbDataLen) {
    return cspEntry("CPExportKey", [&] {
        Utils::debug("dwBlobType : ", dwBlobType);
        Utils::debug("dwFlags : ", dwFlags);
        const auto key = liveKey(hKey);
        if (key == nullptr || pcbDataLen == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null");
        }
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPExportKey: context is null or not initialized");
        if (dwBlobType == PUBLICKEYBLOB) {
            const Outcome outcome = ExportPublicKeyComponents(*context, *key, pbData, pcbDataLen);
            Utils::debug("Exportkey return status : ", outcome.result);
            return outcome;
        }
        if (dwBlobType == PRIVATEKEYBLOB) {
            return refuse(ERROR_ACCESS_DENIED, "CPExportKey: PRIVATEKEYBLOB export denied");
        }
        return refuse(NTE_BAD_TYPE, concat("CPExportKey: unsupported dwBlobType=", dwBlobType));
    });
}
