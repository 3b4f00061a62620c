// CPGenKey: a new RSA key pair on the token.

#include "csp/container_map.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/key_handle.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <memory>
#include <string>

namespace veltra {

namespace {

constexpr DWORD kDefaultKeyBits = 2048;
constexpr DWORD kLargestRefusedKeyBits = 1024;

struct KeyKind {
    ALG_ID requested; ///< algorithm or key specification, as the application names it
    ALG_ID algId;     ///< what the key reports
    KeyUsage usage;
    bool hasDefaultLength; ///< a key specification has none: deliberate
    const char* trace;
};

// The spelling of the trace lines is part of the log format.
constexpr KeyKind kKeyKinds[] = {
    {CALG_RSA_SIGN, CALG_RSA_SIGN, kUsageSign, true, "rsa sign"},
    {AT_SIGNATURE, CALG_RSA_SIGN, kUsageSign, false, "rsa sign"},
    {CALG_RSA_KEYX, CALG_RSA_KEYX, kUsageEncrypt, true, "key exhange"},
    {AT_KEYEXCHANGE, CALG_RSA_KEYX, kUsageEncrypt, false, "key exhange"},
};

const KeyKind* findKeyKind(ALG_ID requested) {
    for (const KeyKind& kind : kKeyKinds) {
        if (kind.requested == requested) return &kind;
    }
    return nullptr;
}

// That the key is not recorded is only reported: it is safe on the token.
void recordInContainer(const CSP_CONTEXT& context, const std::string& name) noexcept {
    try {
        if (recordKey(context.containerName, name)) return;
        Utils::error("CPGenKey: container ", context.containerName, " is full, key ", name,
                     " is not recorded in it");
    } catch (...) {
        Utils::error("CPGenKey: key ", name, " could not be recorded in its container");
    }
}

// Once the token has made the key nothing may fail: the caller would try again and make another one.
Outcome generateKey(CSP_CONTEXT& context, const KeyKind& kind, DWORD bits, HCRYPTKEY* phKey) {
    const std::shared_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE);
    if (!key) return refuse(ERROR_NOT_ENOUGH_MEMORY, "CPGenKey: failed to allocate KEY_HANDLE");
    if (const Outcome verified = ensurePasswordValidated(context); !verified) {
        return refuse(verified.code(), "CPGenKey: ensurePasswordValidated failed");
    }
    // The mode stays 0 here, unlike that of a key opened or imported: deliberate.
    key->algId = kind.algId;
    key->keyBits = bits;
    if (bits <= kLargestRefusedKeyBits) {
        if (!context.serial.empty()) readTokenInfo(context.serial, context.libraryContext);
        return refuse(NTE_BAD_LEN,
                      "CPGenKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size below 112-bit "
                      "security strength");
    }
    VeltraKeyPair pair{};
    pair.usage = kind.usage;
    pair.keyType = rsaKeyTypeForBits(bits).value_or(kKeyTypeRsa2048);
    UnclaimedHandle<KEY_HANDLE> unclaimed(key);
    std::string name = keyName(pair.keyId); // of no key yet: its memory
    const int code = generateKeyPair("CPGenKey", context.serial, pair, context.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_TOKEN_KEYSET_STORAGE_FULL, concat("RSA Keypair Generation Failed, code=", code));
    }
    writeHex(pair.keyId, name.data());
    key->fillFrom(pair);
    key->tokenFlag = 0; // only CPGetUserKey takes it, from the token's list: deliberate
    if (context.persistedContainer) recordInContainer(context, name);
    context.keyName.swap(name);
    context.signatureKey.fill(pair.keyId);
    context.exchangeKey.fill(pair.keyId);
    *phKey = unclaimed.handOut();
    Utils::debug("Key generated successfully, Algid=", kind.algId, " bits=", bits);
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    return cspEntry("CPGenKey", [&] {
        if (phKey == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPGenKey: phKey is NULL");
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "Invalid CSP context");
        const KeyKind* kind = findKeyKind(Algid);
        if (kind == nullptr) return refuse(NTE_BAD_ALGID, concat("Unsupported algorithm", Algid));
        Utils::debug(kind->trace);
        DWORD bits = HIWORD(dwFlags);
        if (bits == 0) {
            if (!kind->hasDefaultLength) return refuse(NTE_BAD_LEN, concat("Unsupported Length", Algid));
            bits = kDefaultKeyBits;
        }
        return generateKey(*context, *kind, bits, phKey);
    });
}
