#pragma once

// What key import and key export know of CNG's key blobs.

#include "foundation/cng.h"

#include <cstdint>
#include <string_view>

namespace veltra {

inline constexpr std::string_view kPublicBlob = "PUBLICBLOB";                // BCRYPT_PUBLIC_KEY_BLOB
inline constexpr std::string_view kRsaPublicBlob = "RSAPUBLICBLOB";          // BCRYPT_RSAPUBLIC_BLOB
inline constexpr std::string_view kEccPublicBlob = "ECCPUBLICBLOB";          // BCRYPT_ECCPUBLIC_BLOB
inline constexpr std::string_view kLegacyRsaPublicBlob = "CAPIPUBLICBLOB";   // LEGACY_RSAPUBLIC_BLOB
inline constexpr std::string_view kPrivateBlob = "PRIVATEBLOB";              // BCRYPT_PRIVATE_KEY_BLOB
inline constexpr std::string_view kLegacyRsaPrivateBlob = "CAPIPRIVATEBLOB"; // LEGACY_RSAPRIVATE_BLOB
inline constexpr std::string_view kOpaqueKeyBlob = "OpaqueKeyBlob";          // BCRYPT_OPAQUE_KEY_BLOB
inline constexpr std::string_view kKeyDataBlob = "KeyDataBlob";              // BCRYPT_KEY_DATA_BLOB
inline constexpr std::string_view kOpaqueTransportBlob = "OpaqueTransport";  // NCRYPT_OPAQUETRANSPORT_BLOB
inline constexpr std::string_view kPkcs8Blob = "PKCS8_PRIVATEKEY";           // NCRYPT_PKCS8_PRIVATE_KEY_BLOB

/// The first byte of an uncompressed point.
inline constexpr unsigned char kUncompressedPoint = 0x04;

/// What the magic of an ECCPUBLICBLOB says of the key.
struct EcBlobKind {
    ULONG magic;
    std::uint32_t keyType;  ///< KeyType
    std::uint32_t keyUsage; ///< kUsageEncrypt for ECDH, kUsageSign for ECDSA
};

/// The row of a magic, or null.
const EcBlobKind* findEcBlobKind(ULONG magic);

/// The magic of an EC key: that of ECDH for one that only agrees, otherwise that of ECDSA. 0 for another
/// type.
ULONG ecBlobMagic(std::uint32_t keyType, std::uint32_t keyUsage);

} // namespace veltra
