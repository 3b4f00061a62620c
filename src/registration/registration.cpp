// The exports by which the system registers the key storage provider and asks for its function table. This
// version has no key storage provider yet: they refuse.

#include "foundation/windows.h"

extern "C" {

HRESULT WINAPI DllRegisterServer() {
    return E_NOTIMPL;
}

HRESULT WINAPI DllUnregisterServer() {
    return E_NOTIMPL;
}

LONG WINAPI GetKeyStorageInterface(LPCWSTR, void** functionTable, DWORD) {
    if (functionTable != nullptr) *functionTable = nullptr;
    return NTE_NOT_SUPPORTED;
}

} // extern "C"
