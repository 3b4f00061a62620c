#pragma once

#include "crypto_provider.h"

#include "foundation/windows.h"

#include <string>
#include <vector>

namespace veltra {

/// Decrypts an enveloped CMS message (RFC 5652) in DER with the platform's message functions. One of its
/// recipients must be the container's RSA key, with PKCS#1 v1.5 or OAEP key transport; the content must be
/// encrypted with AES-CBC. `name` stands for the message in the CommandError of a refusal. Not for use by
/// several threads at once: the provider has one IV for the whole process.
std::vector<BYTE> decryptMessage(const CryptoProvider& context, const std::vector<BYTE>& encoded,
                                 const std::string& name);

} // namespace veltra
