#pragma once

#include "crypto_provider.h"
#include "key_storage.h"

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace veltra {

/// The curves of the token's keys.
struct Curve {
    DWORD bits;
    std::size_t fieldLength; ///< bytes of a coordinate, and of r and s
    const char* objectIdentifier;
    DWORD signingMagic;   ///< of an ECDSA key's BCRYPT_ECCPUBLIC_BLOB
    DWORD agreementMagic; ///< of an ECDH key's
};

/// The curve of a field with this many bits; null if there is none.
const Curve* findCurve(DWORD bits);

/// A SubjectPublicKeyInfo (RFC 5280) as the platform's structure. Bytes that are none throw a CommandError.
class DecodedPublicKeyInfo {
public:
    explicit DecodedPublicKeyInfo(const std::vector<BYTE>& der);
    [[nodiscard]] CERT_PUBLIC_KEY_INFO* get() {
        return reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(buffer_.data());
    }
    [[nodiscard]] const CERT_PUBLIC_KEY_INFO* get() const {
        return reinterpret_cast<const CERT_PUBLIC_KEY_INFO*>(buffer_.data());
    }

private:
    std::vector<std::max_align_t> buffer_;
};

/// SubjectPublicKeyInfo in DER of a platform structure, of the key of a CryptoAPI container, and of a CNG
/// key.
std::vector<BYTE> encodePublicKeyInfo(const CERT_PUBLIC_KEY_INFO& info);
std::vector<BYTE> exportPublicKeyInfo(const CryptoProvider& context);
std::vector<BYTE> exportPublicKeyInfo(const KeyStorage& storage, const StorageHandle& key);

/// A public key in a form that CNG imports.
struct PublicKeyBlob {
    std::wstring type;
    std::vector<BYTE> bytes;
};

enum class KeyUse { Sign, Agree };

/// `use` tells what an EC key is for; RSA keys are for everything. The provider takes every RSA exponent for
/// 65537, so a key with another one throws a CommandError, and so does a key on an unknown curve.
PublicKeyBlob publicKeyBlob(const std::vector<BYTE>& publicKeyInfo, KeyUse use);

/// The SubjectPublicKeyInfo in a file: a public key or a certificate, PEM or DER.
std::vector<BYTE> loadPublicKeyInfo(const std::filesystem::path& path);

/// Writes a SubjectPublicKeyInfo as PEM, lines ended by a line feed.
void savePublicKeyInfo(const std::filesystem::path& path, const std::vector<BYTE>& publicKeyInfo);

} // namespace veltra
