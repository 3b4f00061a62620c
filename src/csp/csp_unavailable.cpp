// Entry points of the CryptoAPI interface that this version of the provider does not offer.

#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"

using namespace veltra;

namespace {

BOOL refuseUnavailable(const char* name) noexcept {
    return cspEntry(name,
                    [&] { return refuse(ERROR_CALL_NOT_IMPLEMENTED, concat(name, ": not available")); });
}

} // namespace

BOOL WINAPI CPGetProvParam(HCRYPTPROV, DWORD, BYTE*, DWORD*, DWORD) {
    return refuseUnavailable("CPGetProvParam");
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV, DWORD, const BYTE*, DWORD) {
    return refuseUnavailable("CPSetProvParam");
}

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) {
    return refuseUnavailable("CPDeriveKey");
}

BOOL WINAPI CPImportKey(HCRYPTPROV, const BYTE*, DWORD, HCRYPTKEY, DWORD, HCRYPTKEY*) {
    return refuseUnavailable("CPImportKey");
}

BOOL WINAPI CPGenRandom(HCRYPTPROV, DWORD, BYTE*) {
    return refuseUnavailable("CPGenRandom");
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) {
    return refuseUnavailable("CPHashSessionKey");
}

BOOL WINAPI CPEncrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*, DWORD) {
    return refuseUnavailable("CPEncrypt");
}

BOOL WINAPI CPDecrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*) {
    return refuseUnavailable("CPDecrypt");
}
