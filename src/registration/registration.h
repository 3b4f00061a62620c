#pragma once

// What the system's registration tool calls, without arguments. Both write only through the configuration
// functions of bcrypt.dll, which is loaded for the call; neither makes an entry for CryptoAPI.

#include "foundation/windows.h"

extern "C" {

/// Makes the module known as a key storage provider, the last in the default context; an earlier entry of its
/// name is removed first. S_OK; E_FAIL without bcrypt.dll or one of its functions; or the status with which
/// bcrypt.dll refused, as an HRESULT. What was done before a refusal is left in place.
HRESULT WINAPI DllRegisterServer();

/// Removes what DllRegisterServer made. S_OK, also when there was nothing; E_FAIL without bcrypt.dll.
HRESULT WINAPI DllUnregisterServer();

} // extern "C"
