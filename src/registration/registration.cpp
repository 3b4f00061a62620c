// The exports by which the system registers the key storage provider and asks for its function table. This
// version has no key storage provider yet: they refuse.

#include "foundation/utils.h"
#include "foundation/windows.h"

using veltra::Utils;

extern "C" {

HRESULT WINAPI DllRegisterServer() {
    Utils::debug("DllRegisterServer");
    Utils::error("DllRegisterServer: not available");
    return E_NOTIMPL;
}

HRESULT WINAPI DllUnregisterServer() {
    Utils::debug("DllUnregisterServer");
    Utils::error("DllUnregisterServer: not available");
    return E_NOTIMPL;
}

LONG WINAPI GetKeyStorageInterface(LPCWSTR, void** functionTable, DWORD) {
    Utils::debug("GetKeyStorageInterface");
    Utils::error("GetKeyStorageInterface: not available");
    if (functionTable != nullptr) *functionTable = nullptr;
    return NTE_NOT_SUPPORTED;
}

} // extern "C"
