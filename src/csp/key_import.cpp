// CPImportKey: public keys and AES keys from CryptoAPI key blobs. Every blob has a BLOBHEADER and four bytes
// more; its length is the application's and is checked before any field is read.

#include "certs/public_key_blob.h"
#include "certs/public_key_encoding.h"
#include "csp/aes_algorithms.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "foundation/device_library_contract.h"
#include "foundation/library_buffer.h"
#include "token/aes_keys.h"
#include "token/device_state.h"
#include "token/key_operations.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <new>

namespace veltra {

namespace {

constexpr std::size_t kBlobPrefixLength = sizeof(BLOBHEADER) + sizeof(DWORD);
// The refusal that names a type as known is given for this value; the platform's OPAQUEKEYBLOB, 9, counts as
// unknown: deliberate.
constexpr BYTE kOpaqueKeyBlob = 10;

using Blob = std::span<const BYTE>;

BLOBHEADER headerOf(Blob blob) {
    BLOBHEADER header{};
    std::memcpy(&header, blob.data(), sizeof(header));
    return header;
}

std::unique_ptr<KEY_HANDLE> newKey() {
    auto key = std::make_unique<KEY_HANDLE>();
    key->mode = CRYPT_MODE_CBC;
    return key;
}

Outcome handOut(std::unique_ptr<KEY_HANDLE> key, HCRYPTKEY* phKey, const char* line) {
    *phKey = LiveRecords<KEY_HANDLE>::add(std::move(key));
    Utils::debug(line);
    return success();
}

// What KP_ALGID reports of an imported public key is the token's code, not an ALG_ID: deliberate.
Outcome importPublicKey(Blob blob, HCRYPTKEY* phKey) {
    const auto refuseSize = [&](std::uint64_t required) {
        return refuse(NTE_BAD_DATA, concat("CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=",
                                           blob.size(), " required=", required));
    };
    if (blob.size() < kPublicKeyBlobModulusOffset) return refuseSize(kPublicKeyBlobModulusOffset);
    const RSAPUBKEY header = publicKeyBlobHeader(blob);
    if (header.magic != kRsa1Magic) {
        return refuse(NTE_BAD_DATA,
                      concat("CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x", toHex8(header.magic)));
    }
    const std::size_t modulusLength = header.bitlen / 8;
    const std::size_t required = modulusLength + kPublicKeyBlobModulusOffset;
    if (blob.size() < required) return refuseSize(required);
    const std::unique_ptr<unsigned char[]> memory(new (std::nothrow) unsigned char[modulusLength]);
    if (!memory) {
        return refuse(NTE_NO_MEMORY, "CPImportKey PUBLICKEYBLOB: failed to allocate beModulus buffer");
    }
    const std::span modulus(memory.get(), modulusLength);
    copyPublicKeyBlobModulus(blob, modulus);
    const std::array<unsigned char, 3> exponent = exponentBytes(header.pubexp);
    Utils::debug("Public exponent : ", toHex(exponent));
    const std::optional<std::uint32_t> code = rsaKeyTypeForBits(header.bitlen);
    if (!code) return refuse(NTE_BAD_DATA, "Unsupported RSA key size");
    const Bytes der = rsaSubjectPublicKeyInfo(modulus, exponent);
    std::unique_ptr<KEY_HANDLE> key = newKey();
    std::ranges::copy(der, key->publicKey);
    key->publicKeyLength = static_cast<std::uint32_t>(der.size());
    key->keyBits = header.bitlen;
    key->keyIdLength = kKeyIdLength;
    key->algId = *code;
    return handOut(std::move(key), phKey, "PUBLICKEYBLOB imported successfully");
}

int decryptSessionKey(const CSP_CONTEXT& context, const KEY_HANDLE& decryptionKey, const Bytes& encrypted,
                      LibraryBuffer& sessionKey) {
    const TokenKey key{
        .serial = context.serial, .keyId = decryptionKey.keyId, .libraryContext = context.libraryContext};
    return decryptWithKey(key, getPin(context.serial), encrypted, decryptionKey.tokenFlag != 0, sessionKey);
}

// A session key encrypted for a token RSA key, little-endian; some writers leave it big-endian.
Outcome importSimpleBlob(const CSP_CONTEXT& context, Blob blob, HCRYPTKEY hPubKey, HCRYPTKEY* phKey) {
    const auto decryptionKey = liveKey(hPubKey);
    if (decryptionKey == nullptr) return refuse(NTE_BAD_TYPE, "SIMPLEBLOB requires public key handle");
    Utils::debug("Input key id : ", toHex(decryptionKey->keyId));
    const Blob encrypted = blob.subspan(kBlobPrefixLength);
    LibraryBuffer sessionKey;
    if (decryptSessionKey(context, *decryptionKey, Bytes(encrypted.rbegin(), encrypted.rend()), sessionKey) !=
        kDeviceOk) {
        Utils::error("SIMPLEBLOB decryption failed");
        if (decryptSessionKey(context, *decryptionKey, Bytes(encrypted.begin(), encrypted.end()),
                              sessionKey) != kDeviceOk) {
            return refuse(NTE_FAIL, "SIMPLEBLOB decryption failed (both orderings)");
        }
    }
    const ALG_ID algId = headerOf(blob).aiKeyAlg;
    const std::optional<std::uint32_t> code = aesKeyTypeOf(algId);
    if (!code) return refuse(NTE_BAD_ALGID, concat("Unsupported algorithm for SIMPLEBLOB: ", algId));
    const std::span<const unsigned char> bytes = sessionKey.bytes();
    if (bytes.empty() || bytes.size() > kSymmetricKeyCapacity) {
        return refuse(NTE_BAD_DATA,
                      concat("SIMPLEBLOB session key has an impossible length: ", bytes.size()));
    }
    std::unique_ptr<KEY_HANDLE> key = newKey();
    std::ranges::copy(bytes, key->symmetricKey.data());
    key->symmetricKeyLength = static_cast<std::uint32_t>(bytes.size());
    key->keyBits = key->symmetricKeyLength * 8;
    key->keyIdLength = kKeyIdLength;
    key->algId = *code;
    Utils::debug("Output key id : ", toHex(key->keyId));
    return handOut(std::move(key), phKey, "SIMPLEBLOB imported successfully (AES)");
}

// Stores the key on the token and makes a key object of what the token returned. The material stays there.
// Once the token has the key nothing may fail: the caller would try again and store it twice.
Outcome storeOnToken(const CSP_CONTEXT& context, SymmetricKeyRecord& record, ALG_ID algId,
                     const char* failureText, const char* successText, HCRYPTKEY* phKey) {
    const std::shared_ptr<KEY_HANDLE> key = newKey();
    UnclaimedHandle<KEY_HANDLE> unclaimed(key);
    if (storeAesKey(context.serial, record, context.libraryContext) != kDeviceOk) {
        return refuse(NTE_BAD_TYPE, failureText);
    }
    key->fillFrom(record.key);
    key->algId = algId;
    *phKey = unclaimed.handOut();
    Utils::debug(successText);
    return success();
}

Outcome importPlaintextKey(const CSP_CONTEXT& context, Blob blob, HCRYPTKEY* phKey) {
    const ALG_ID algId = headerOf(blob).aiKeyAlg;
    SymmetricKeyRecord record;
    if (!record.setMaterial(blob.subspan(kBlobPrefixLength))) {
        return refuse(NTE_BAD_DATA, "PLAINTEXTKEYBLOB key is longer than 32 bytes");
    }
    const std::optional<std::uint32_t> code = aesKeyTypeOf(algId);
    if (!code) return refuse(NTE_BAD_ALGID, concat("Unsupported algorithm for PLAINTEXTKEYBLOB: ", algId));
    record.key.keyType = *code;
    return storeOnToken(context, record, algId, "PLAINTEXTKEYBLOB import failed",
                        "PLAINTEXTKEYBLOB imported successfully (AES)", phKey);
}

// The wrapped key is taken from behind the header, and the last four bytes of the blob are left out:
// deliberate.
Outcome importWrappedKey(const CSP_CONTEXT& context, Blob blob, HCRYPTKEY* phKey) {
    const Blob wrapped = blob.subspan(sizeof(BLOBHEADER), blob.size() - kBlobPrefixLength);
    Utils::debug("SYMMETRICWRAPKEYBLOB: wrapped key length = ", wrapped.size());
    LibraryBuffer unwrapped;
    const auto wrappingKey =
        unwrapWithAnyKey(context.serial, context.libraryContext, WrappingKeys::OfAesType, wrapped, unwrapped);
    if (!wrappingKey) {
        return refuse(NTE_BAD_KEY, "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK");
    }
    Utils::debug("Successfully unwrapped key with KEK: ", toHex(*wrappingKey));
    SymmetricKeyRecord record;
    if (unwrapped.size() == 0 || !record.setMaterial(unwrapped.bytes())) {
        return refuse(NTE_BAD_DATA, "SYMMETRICWRAPKEYBLOB key is empty or longer than 32 bytes");
    }
    const ALG_ID algId = headerOf(blob).aiKeyAlg;
    record.key.keyType = algId == CALG_AES_128 ? kKeyTypeAes128 : kKeyTypeAes192Or256;
    return storeOnToken(context, record, algId, "Import of unwrapped AES key failed",
                        "SYMMETRICWRAPKEYBLOB imported successfully", phKey);
}

Outcome importBlob(const CSP_CONTEXT& context, Blob blob, HCRYPTKEY hPubKey, HCRYPTKEY* phKey) {
    const BLOBHEADER header = headerOf(blob);
    Utils::debug("CPImportKey - input type : ", header.bType);
    Utils::debug("CPImportKey - input version : ", header.bVersion);
    Utils::debug("CPImportKey - input alg : ", header.aiKeyAlg);
    Utils::debug("CPImportKey - input data length : ", blob.size() - kBlobPrefixLength);
    if (blob.size() == kBlobPrefixLength) {
        return refuse(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
    }
    switch (header.bType) {
    case PUBLICKEYBLOB:
        return importPublicKey(blob, phKey);
    case SIMPLEBLOB:
        return importSimpleBlob(context, blob, hPubKey, phKey);
    case PLAINTEXTKEYBLOB:
        return importPlaintextKey(context, blob, phKey);
    case SYMMETRICWRAPKEYBLOB:
        return importWrappedKey(context, blob, phKey);
    case PRIVATEKEYBLOB:
    case kOpaqueKeyBlob:
        return refuse(NTE_BAD_TYPE, "Key Block Not Implemented yet");
    default:
        return refuse(NTE_BAD_TYPE, concat("CPImportKey - Unsupported type : ", header.bType));
    }
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD cbDataLen, HCRYPTKEY hPubKey,
                        DWORD dwFlags, HCRYPTKEY* phKey) {
    return cspEntry("CPImportKey", [&] {
        Utils::debug("Input length : ", cbDataLen);
        Utils::debug("Input flag : ", dwFlags);
        if (pbData == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPImportKey - Input data is null");
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPImportKey - Contest null or not initialised");
        if (phKey == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPImportKey - phKey is null");
        if (cbDataLen > INT_MAX) return refuse(NTE_BAD_LEN, "CPImportKey - Input data is too long");
        if (cbDataLen < kBlobPrefixLength) {
            return refuse(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
        }
        return importBlob(*context, {pbData, cbDataLen}, hPubKey, phKey);
    });
}
