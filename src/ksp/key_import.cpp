// KSPImportKey: public keys, which are only held in the key object, and AES keys, which are stored on the
// token and held in the key object as well. A blob is the application's: its lengths are checked, in 64 bits,
// before anything is read or copied.

#include "certs/public_key_blob.h"
#include "foundation/library_buffer.h"
#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/key_blobs.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_provider.h"
#include "token/aes_keys.h"
#include "token/device_state.h"
#include "token/key_operations.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace veltra {

namespace {

using Blob = std::span<const BYTE>;

constexpr std::size_t kAes128Bytes = 16;

/// The token that an import works on, and where the handle of the new key goes.
struct ImportTarget {
    const std::string& serial;
    void* libraryContext;
    NCRYPT_KEY_HANDLE* phKey;
};

/// The structure that a blob begins with; nothing when the blob is shorter.
template <class Header>
std::optional<Header> headerOf(Blob blob) {
    Header header{};
    if (blob.size() < sizeof(header)) return std::nullopt;
    std::memcpy(&header, blob.data(), sizeof(header));
    return header;
}

SECURITY_STATUS refuseData(const char* reason) {
    return refuse(NTE_BAD_DATA, concat("KSPImportKey: ", reason));
}

SECURITY_STATUS handOut(std::shared_ptr<KSP_KEY> key, const ImportTarget& target, std::string line) {
    key->persisted = true; // there is nothing to finalise
    *target.phKey = LiveRecords<KSP_KEY>::add(std::move(key));
    Utils::debug(std::move(line));
    return kSuccess;
}

// The modulus stays bare and the exponent is dropped: wherever the key is used it is 65537.
SECURITY_STATUS importRsaPublicKey(const ImportTarget& target, Blob blob) {
    const auto header = headerOf<BCRYPT_RSAKEY_BLOB>(blob);
    if (!header) return refuseData("BCRYPT_RSAPUBLIC_BLOB data too small");
    if (header->Magic != BCRYPT_RSAPUBLIC_MAGIC) return refuseData("BCRYPT_RSAPUBLIC_BLOB invalid magic");
    const std::uint64_t modulusOffset = sizeof(*header) + std::uint64_t{header->cbPublicExp};
    if (modulusOffset + header->cbModulus > blob.size()) {
        return refuseData("BCRYPT_RSAPUBLIC_BLOB data too small for key material");
    }
    if (header->cbModulus > kPublicKeyCapacity) return refuseData("BCRYPT_RSAPUBLIC_BLOB modulus too long");
    const std::optional<std::uint32_t> type = rsaKeyTypeForBits(header->BitLength);
    if (!type) {
        return refuse(NTE_NOT_SUPPORTED, concat("KSP: Unsupported RSA key size: ", header->BitLength));
    }
    auto key = std::make_shared<KSP_KEY>();
    key->keyType = *type;
    key->bitLength = header->BitLength;
    key->setPublicKey(blob.subspan(static_cast<std::size_t>(modulusOffset), header->cbModulus));
    return handOut(std::move(key), target, concat("KSP: RSA public key imported, bits=", header->BitLength));
}

// The length of the coordinates is not compared with the curve that the magic names: deliberate.
SECURITY_STATUS importEcPublicKey(const ImportTarget& target, Blob blob) {
    const auto header = headerOf<BCRYPT_ECCKEY_BLOB>(blob);
    if (!header) return refuseData("BCRYPT_ECCPUBLIC_BLOB too small");
    const std::uint64_t pointLength = 1 + 2 * std::uint64_t{header->cbKey};
    if (sizeof(*header) + pointLength - 1 > blob.size()) {
        return refuseData("BCRYPT_ECCPUBLIC_BLOB data too small for key material");
    }
    if (pointLength > kPublicKeyCapacity) return refuseData("BCRYPT_ECCPUBLIC_BLOB point too long");
    const EcBlobKind* kind = findEcBlobKind(header->dwMagic);
    if (kind == nullptr) return refuseData("unknown ECC blob magic");
    auto key = std::make_shared<KSP_KEY>();
    key->keyType = kind->keyType;
    key->keyUsage = kind->keyUsage;
    key->bitLength = keyBitsOf(kind->keyType);
    key->publicKey[0] = kUncompressedPoint;
    key->publicKeyLength = static_cast<std::uint32_t>(pointLength);
    std::copy_n(blob.data() + sizeof(*header), pointLength - 1, key->publicKey.data() + 1);
    return handOut(std::move(key), target,
                   concat("KSPImportKey: ECC public key imported, cbKey=", header->cbKey));
}

// A key object, or null without memory.
std::shared_ptr<KSP_KEY> newKeyIfMemory() {
    try {
        return std::make_shared<KSP_KEY>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The buffer of the modulus is that of the key object, which it is written to directly. The key object claims
// an identifier although there is none: deliberate.
SECURITY_STATUS importLegacyRsaPublicKey(const ImportTarget& target, Blob blob) {
    if (blob.size() < kPublicKeyBlobModulusOffset) {
        return refuseData("LEGACY_RSAPUBLIC_BLOB data too small for header");
    }
    const RSAPUBKEY header = publicKeyBlobHeader(blob);
    if (header.magic != kRsa1Magic) return refuseData("LEGACY_RSAPUBLIC_BLOB invalid magic");
    const std::size_t modulusLength = header.bitlen / 8;
    if (kPublicKeyBlobModulusOffset + std::uint64_t{modulusLength} > blob.size()) {
        return refuseData("LEGACY_RSAPUBLIC_BLOB data too small for modulus");
    }
    auto key = newKeyIfMemory();
    if (key == nullptr) {
        return refuse(NTE_NO_MEMORY, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer");
    }
    Utils::debug("KSP: Public exponent : ", toHex(exponentBytes(header.pubexp)));
    const std::optional<std::uint32_t> type = rsaKeyTypeForBits(header.bitlen);
    if (!type) return refuse(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");
    key->keyType = *type;
    key->bitLength = header.bitlen;
    key->credentialIdLength = kKeyIdLength;
    key->publicKeyLength = static_cast<std::uint32_t>(modulusLength);
    copyPublicKeyBlobModulus(blob, std::span(key->publicKey).first(modulusLength));
    return handOut(std::move(key), target, "KSP: Legacy RSA public key imported successfully");
}

bool isAesKeyLength(std::size_t bytes) {
    return bytes <= kSymmetricKeyCapacity && aesKeyTypeForBits(static_cast<std::uint32_t>(bytes) * 8);
}

struct StoringTexts {
    const char* failure;
    const char* success;
};

// Stores the key on the token and keeps it in the key object too. Once the token has it nothing may fail: the
// caller would try again and store it twice.
SECURITY_STATUS storeAndHandOut(const ImportTarget& target, std::span<const unsigned char> material,
                                const StoringTexts& texts) {
    SymmetricKeyRecord record;
    if (material.empty() || !record.setMaterial(material)) {
        return refuseData("the key is empty or longer than 32 bytes");
    }
    record.key.keyType = material.size() == kAes128Bytes ? kKeyTypeAes128 : kKeyTypeAes192Or256;
    const auto key = std::make_shared<KSP_KEY>();
    std::ranges::copy(material, key->symmetricKey.data());
    key->symmetricKeyLength = static_cast<std::uint32_t>(material.size());
    key->bitLength = key->symmetricKeyLength * 8;
    key->persisted = true;
    UnclaimedHandle<KSP_KEY> unclaimed(key);
    if (storeAesKey(target.serial, record, target.libraryContext) != kDeviceOk) {
        return refuse(NTE_BAD_TYPE, texts.failure);
    }
    key->keyType = record.key.keyType;
    key->keyUsage = record.key.usage;
    *target.phKey = unclaimed.handOut();
    Utils::debug(texts.success);
    return kSuccess;
}

SECURITY_STATUS importWrappedKey(const ImportTarget& target, Blob blob) {
    Utils::debug("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = ", blob.size());
    LibraryBuffer unwrapped;
    const auto wrappingKey =
        unwrapWithAnyKey(target.serial, target.libraryContext, WrappingKeys::Listed, blob, unwrapped);
    if (!wrappingKey) {
        return refuse(NTE_BAD_KEY, "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");
    }
    Utils::debug("KSP: Successfully unwrapped key with KEK: ", keyName(*wrappingKey));
    return storeAndHandOut(target, unwrapped.bytes(),
                           {.failure = "KSP: Import of unwrapped AES key failed",
                            .success = "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully"});
}

constexpr const char* kKeyDataImportFailed = "KSP: BCRYPT_KEY_DATA_BLOB import failed";

SECURITY_STATUS importPlaintextKey(const ImportTarget& target, Blob blob) {
    const auto header = headerOf<BCRYPT_KEY_DATA_BLOB_HEADER>(blob);
    if (!header) return refuseData("BCRYPT_KEY_DATA_BLOB data too small for header");
    if (header->dwMagic != BCRYPT_KEY_DATA_BLOB_MAGIC) {
        return refuseData("BCRYPT_KEY_DATA_BLOB invalid magic");
    }
    if (sizeof(*header) + std::uint64_t{header->cbKeyData} > blob.size()) {
        return refuseData("BCRYPT_KEY_DATA_BLOB data too small for key material");
    }
    if (!isAesKeyLength(header->cbKeyData)) {
        return refuse(NTE_NOT_SUPPORTED,
                      concat("KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: ", header->cbKeyData));
    }
    return storeAndHandOut(target, blob.subspan(sizeof(*header), header->cbKeyData),
                           {.failure = kKeyDataImportFailed,
                            .success = "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)"});
}

// An AES key encrypted for a key pair of the token. Types that nobody knows count as this one when an import
// key is given: deliberate.
SECURITY_STATUS importEncryptedKey(const ImportTarget& target, const KSP_KEY* importKey, Blob blob) {
    if (importKey == nullptr) {
        return refuse(NTE_BAD_KEY, "KSP: Encrypted key import requires import key handle");
    }
    Utils::debug("KSP: Input key id : ", keyName(importKey->credentialId));
    const TokenKey tokenKey{
        .serial = target.serial, .keyId = importKey->credentialId, .libraryContext = target.libraryContext};
    LibraryBuffer decrypted;
    if (decryptWithKey(tokenKey, getPin(target.serial), blob, importKey->recordFlag, decrypted) !=
        kDeviceOk) {
        return refuse(NTE_BAD_DATA, "KSP: Encrypted key decryption failed");
    }
    if (!isAesKeyLength(decrypted.size())) {
        return refuse(NTE_NOT_SUPPORTED, concat("KSP: Unsupported decrypted key length: ", decrypted.size()));
    }
    return storeAndHandOut(
        target, decrypted.bytes(),
        {.failure = kKeyDataImportFailed, .success = "KSP: Encrypted key imported successfully"});
}

struct BlobType {
    std::string_view name;
    SECURITY_STATUS (*import)(const ImportTarget&, Blob);
};

constexpr std::array<BlobType, 6> kBlobTypes = {{
    {kRsaPublicBlob, importRsaPublicKey},
    {kPublicBlob, importRsaPublicKey},
    {kEccPublicBlob, importEcPublicKey},
    {kOpaqueKeyBlob, importWrappedKey},
    {kKeyDataBlob, importPlaintextKey},
    {kLegacyRsaPublicBlob, importLegacyRsaPublicKey},
}};

SECURITY_STATUS importBlob(const ImportTarget& target, const std::string& type, NCRYPT_KEY_HANDLE hImportKey,
                           Blob blob) {
    for (const BlobType& known : kBlobTypes) {
        if (known.name == type) return known.import(target, blob);
    }
    const auto importKey = liveKspKey(hImportKey);
    if (type != kOpaqueTransportBlob && type != kPkcs8Blob && importKey == nullptr) {
        return refuse(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for import");
    }
    return importEncryptedKey(target, importKey.get(), blob);
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                    LPCWSTR pszBlobType, NCryptBufferDesc*, NCRYPT_KEY_HANDLE* phKey,
                                    PBYTE pbData, DWORD cbData, DWORD) {
    return kspEntry("KSPImportKey", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPImportKey");
        if (pszBlobType == nullptr || pbData == nullptr || phKey == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPImportKey: invalid parameters");
        }
        if (cbData > INT_MAX) return refuseLength("KSPImportKey");
        const std::string serial = provider->serial();
        return importBlob({.serial = serial, .libraryContext = provider->libraryContext, .phKey = phKey},
                          fromWide(pszBlobType), hImportKey, {pbData, cbData});
    });
}
