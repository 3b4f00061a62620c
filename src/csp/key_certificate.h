#pragma once

#include "csp/entry_guard.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"

namespace veltra {

/// KP_CERTIFICATE of CPGetKeyParam: the DER of the key's certificate, with the CryptoAPI size protocol; a
/// length of 0 is a size query too.
Outcome getKeyCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* data, DWORD* dataLength);

/// KP_CERTIFICATE of CPSetKeyParam: stores the certificate at `data`, DER of at most 3072 bytes whose length
/// is taken from its own header, on the token, with its issuers as far as they are known.
Outcome setKeyCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, const BYTE* data);

} // namespace veltra
