#pragma once

#include "certs/der_writer.h"
#include "foundation/windows.h"

#include <array>
#include <span>

namespace veltra {

// The PUBLICKEYBLOB of CryptoAPI, which CNG calls "CAPIPUBLICBLOB": BLOBHEADER, RSAPUBKEY, little-endian
// modulus. Source: "Base Provider Key BLOBs" in the platform documentation.

/// "RSA1", the mark of an RSA public key in a blob.
inline constexpr DWORD kRsa1Magic = 0x31415352;

/// Where the modulus begins.
inline constexpr std::size_t kPublicKeyBlobModulusOffset = sizeof(BLOBHEADER) + sizeof(RSAPUBKEY);

/// The RSAPUBKEY of a blob of at least kPublicKeyBlobModulusOffset bytes, as it stands there.
RSAPUBKEY publicKeyBlobHeader(std::span<const unsigned char> blob);

/// Writes the modulus, big-endian, of a blob that holds all of it; `modulus` says how many bytes it has.
void copyPublicKeyBlobModulus(std::span<const unsigned char> blob, std::span<unsigned char> modulus);

/// The public exponent as three big-endian bytes; what does not fit them is dropped.
std::array<unsigned char, 3> exponentBytes(DWORD exponent);

/// The blob of a big-endian modulus with the exponent 65537.
Bytes makePublicKeyBlob(std::span<const unsigned char> modulus, ALG_ID algId);

} // namespace veltra
