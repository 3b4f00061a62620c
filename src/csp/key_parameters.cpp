// CPGetKeyParam and CPSetKeyParam.

#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "csp/key_certificate.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "token/process_iv.h"

#include <cstring>

namespace veltra {

namespace {

constexpr ALG_ID kShortIvCode = 11; // a code of the token whose IV has 8 bytes
constexpr std::size_t kIvLength = 16;
constexpr std::size_t kShortIvLength = 8;

DWORD permissionsOf(const KEY_HANDLE& key) {
    constexpr DWORD kBase = CRYPT_EXPORT | CRYPT_READ;
    switch (key.keyUsage) {
    case kUsageSign:
        return kBase | CRYPT_ENCRYPT;
    case kUsageEncrypt:
        return kBase | CRYPT_DECRYPT;
    case kUsageBoth:
        return kBase | CRYPT_ENCRYPT | CRYPT_DECRYPT;
    default:
        return kBase;
    }
}

struct KeyParameter {
    DWORD code;
    const char* name;
    DWORD (*value)(const KEY_HANDLE&);
    const char* valueTrace;     ///< debug line in front of the value; null for none
    bool zeroLengthIsSizeQuery; ///< KP_MODE alone takes a zero length for too small: deliberate
};

constexpr KeyParameter kKeyParameters[] = {
    {KP_MODE, "KP_MODE", [](const KEY_HANDLE& key) { return key.mode; }, "CPGetKeyParam - KP_MODE = ", false},
    {KP_PERMISSIONS, "KP_PERMISSIONS", permissionsOf, nullptr, true},
    {KP_ALGID, "KP_ALGID", [](const KEY_HANDLE& key) -> DWORD { return key.algId; },
     "CPGetKeyParam - copying alg id : ", true},
    {KP_BLOCKLEN, "KP_BLOCKLEN/KP_KEYLEN", [](const KEY_HANDLE& key) -> DWORD { return key.keyBits; },
     nullptr, true},
    {KP_KEYLEN, "KP_BLOCKLEN/KP_KEYLEN", [](const KEY_HANDLE& key) -> DWORD { return key.keyBits; }, nullptr,
     true},
};

Outcome getParameter(const KEY_HANDLE& key, const KeyParameter& parameter, BYTE* data, DWORD* dataLength) {
    if (dataLength == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pdwDataLen is null");
    const DWORD available = *dataLength;
    const bool sizeQuery = data == nullptr || (available == 0 && parameter.zeroLengthIsSizeQuery);
    const DWORD value = parameter.value(key);
    *dataLength = sizeof(value);
    if (sizeQuery) {
        Utils::debug("CPGetKeyParam: ", parameter.name, " size query, return TRUE");
        return success();
    }
    if (available < sizeof(value)) {
        return refuse(ERROR_MORE_DATA,
                      concat("CPGetKeyParam: ", parameter.name, " buffer too small, return FALSE"));
    }
    if (parameter.valueTrace != nullptr) Utils::debug(parameter.valueTrace, value);
    std::memcpy(data, &value, sizeof(value));
    Utils::debug("CPGetKeyParam: return TRUE");
    return success();
}

DWORD dwordAt(const BYTE* data) {
    DWORD value = 0;
    std::memcpy(&value, data, sizeof(value));
    return value;
}

// Stored for the whole process, not for the key, and only for two of the token's AES codes: deliberate.
void setIv(const KEY_HANDLE& key, const BYTE* iv) {
    if (key.algId == kKeyTypeAes192Or256) setProcessIv({iv, kIvLength});
    if (key.algId == kShortIvCode) setProcessIv({iv, kShortIvLength});
}

// Data may be null: then nothing is stored.
void setParameter(KEY_HANDLE& key, DWORD parameter, const BYTE* data) {
    switch (parameter) {
    case KP_MODE:
        if (data == nullptr) return;
        key.mode = dwordAt(data);
        Utils::debug("CPSetKeyParam: KP_MODE = ", key.mode);
        return;
    case KP_PADDING:
        if (data != nullptr) Utils::debug("CPSetKeyParam: KP_PADDING = ", dwordAt(data));
        return;
    case KP_PERMISSIONS:
        if (data != nullptr) Utils::debug("CPSetKeyParam: KP_PERMISSIONS = ", dwordAt(data));
        return;
    case KP_IV:
        if (data != nullptr) setIv(key, data);
        return;
    default:
        Utils::debug("CPSetKeyParam: unhandled dwParam=", parameter);
        return;
    }
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                          DWORD) {
    return cspEntry("CPGetKeyParam", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr)
            return refuse(NTE_BAD_UID, "CPGetKeyParam: context is null or not initialized");
        const auto key = liveKey(hKey);
        if (key == nullptr) return refuse(NTE_BAD_KEY, "CPGetKeyParam: key handle is null");
        Utils::debug("CPGetKeyParam - dwparam : ", dwParam);
        Utils::debug("CPGetKeyParam - key id : ", toHex({key->keyId, key->keyIdLength}));
        if (dwParam == KP_CERTIFICATE) return getKeyCertificate(*context, *key, pbData, pdwDataLen);
        for (const KeyParameter& parameter : kKeyParameters) {
            if (parameter.code == dwParam) return getParameter(*key, parameter, pbData, pdwDataLen);
        }
        return refuse(NTE_BAD_TYPE, concat("CPGetKeyParam: unsupported dwParam=", dwParam, ", return FALSE"));
    });
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData,
                          DWORD dwFlags) {
    return cspEntry("CPSetKeyParam", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr)
            return refuse(NTE_BAD_UID, "CPSetKeyParam: context is null or not initialized");
        const auto key = liveKey(hKey);
        if (key == nullptr) return refuse(NTE_BAD_KEY, "CPSetKeyParam: key handle is null");
        Utils::debug("Set key param key id : ", toHex(key->keyId));
        Utils::debug("Set key param  dwParam : ", dwParam);
        Utils::debug("Set key param  dwFlags : ", dwFlags);
        Utils::debug("Set key param key algo : ", key->algId);
        if (dwParam == KP_CERTIFICATE) {
            if (const Outcome stored = setKeyCertificate(*context, *key, pbData); !stored) return stored;
        } else {
            setParameter(*key, dwParam, pbData);
        }
        Utils::debug("CPSetKeyParam: return TRUE");
        return success();
    });
}
