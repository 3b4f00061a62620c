#pragma once

#include "csp/entry_guard.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"

namespace veltra {

/// Writes the public key of a token RSA key as a PUBLICKEYBLOB (little-endian modulus, exponent 65537).
/// `data`, `dataLength`: the CryptoAPI size protocol, except that a size query succeeds and leaves
/// ERROR_MORE_DATA as the last error. Source: "Base provider key BLOBs" in the platform documentation.
Outcome ExportPublicKeyComponents(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* data,
                                  DWORD* dataLength);

} // namespace veltra
