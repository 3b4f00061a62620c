// The exports of VeltraDSCLibrary.dll: the contract's argument forms around the operations on tokens. Nothing
// thrown leaves this file.

#include "foundation/device_library_contract.h"

#include "certificate_files.h"
#include "hash_registry.h"
#include "returned_lists.h"
#include "rsa_encryption.h"
#include "token_operations.h"
#include "token_store.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

using namespace veltra;
using namespace veltra::softtoken;

namespace {

int refuse(const char* function, Failure failure, const char* text) noexcept {
    try {
        report(std::string(function) + ": " + text);
    } catch (const std::bad_alloc&) {
        return static_cast<int>(Failure::OutOfMemory);
    }
    return static_cast<int>(failure);
}

/// Runs the body of an export and turns what it throws into a result code.
template <class Body>
int guarded(const char* function, Body body) noexcept {
    try {
        body();
        return kDeviceOk;
    } catch (const TokenError& error) {
        return refuse(function, error.failure(), error.what());
    } catch (const std::bad_alloc&) {
        return refuse(function, Failure::OutOfMemory, "out of memory");
    } catch (const std::exception& error) {
        return refuse(function, Failure::Internal, error.what());
    } catch (...) {
        return refuse(function, Failure::Internal, "unknown error");
    }
}

void require(bool condition, const char* text) {
    if (!condition) throw TokenError(Failure::BadArgument, text);
}

/// A zero-terminated text of the caller's, read no further than one byte over the limit: what is longer is
/// refused by whoever knows the limit.
std::string_view boundedText(const char* text, std::size_t limit) {
    if (text == nullptr) return {};
    return {text, static_cast<std::size_t>(std::find(text, text + limit + 1, '\0') - text)};
}

std::string_view serialText(const char* serial) {
    return boundedText(serial, kMaxSerialLength);
}

std::string_view pinText(const char* pin) {
    return boundedText(pin, kMaxPinLength);
}

/// A buffer of the caller's; null only together with length 0.
BytesView bufferOf(const unsigned char* data, int length) {
    require(length >= 0 && (data != nullptr || length == 0), "a buffer is null or its length negative");
    return {data, static_cast<std::size_t>(length)};
}

BytesView keyIdOf(const unsigned char* keyId) {
    require(keyId != nullptr, "the key identifier is null");
    return {keyId, kKeyIdLength};
}

SignatureScheme schemeOf(bool pss) {
    return pss ? SignatureScheme::Pss : SignatureScheme::Pkcs1;
}

/// Copies a result into a buffer whose capacity is in `*length`; on success the length goes there.
void deliver(BytesView result, unsigned char* out, int* length) {
    if (static_cast<std::size_t>(*length) < result.size()) {
        throw TokenError(Failure::BufferTooSmall, "the buffer is too small");
    }
    std::copy(result.begin(), result.end(), out);
    *length = static_cast<int>(result.size());
}

/// As deliver(), for a result whose length the caller cannot know: a buffer that is too small also gets the
/// needed length into `*length`.
void deliverOrTellLength(BytesView result, unsigned char* out, int* length) {
    const int capacity = std::exchange(*length, static_cast<int>(result.size()));
    if (capacity < *length) throw TokenError(Failure::BufferTooSmall, "the buffer is too small");
    std::copy(result.begin(), result.end(), out);
}

void requireOutBuffer(const unsigned char* out, const int* length) {
    require(out != nullptr && length != nullptr && *length >= 0,
            "the output buffer or its length is unusable");
}

/// Tells what veltra_findCertificateForKey returned from the lists of certificates.
struct FoundCertificate {};

/// What `read` finds on the token, kept for the caller; an empty list when that fails.
template <class Record, class Use = Record, class Read>
std::vector<Record>& returnedList(const char* function, const char* serial, Read read) {
    // What a caller gets when not even an empty list can be made for it.
    static auto& nothing = *new std::vector<Record>;
    std::vector<Record>* list = &nothing;
    guarded(function, [&] {
        std::vector<Record> records;
        const int result = guarded(function, [&] { records = read(serialText(serial)); });
        const bool known = result == kDeviceOk;
        list = &ReturnedLists<Record, Use>::instance().store(
            known ? std::string(serialText(serial)) : std::string(), std::move(records));
    });
    return *list;
}

/// Makes the places for a buffer of the library's empty, so that a caller who releases it after a failure
/// releases nothing.
void clearOutput(unsigned char** out, int* outLength) {
    require(out != nullptr && outLength != nullptr, "the place for the output or its length is null");
    *out = nullptr;
    *outLength = 0;
}

bool isEcb(EncryptionType type) {
    return type == EncryptionType::Aes128Ecb || type == EncryptionType::Aes192Or256Ecb;
}

/// The IV that the type asks for: one block for CBC, none for ECB. Anything else is refused: decryption goes
/// by the IV alone, so it would take data for the other mode's and hand out a wrong plaintext.
BytesView ivFor(EncryptionType type, const unsigned char* iv, int ivLength) {
    const BytesView given = bufferOf(iv, ivLength);
    if (isEcb(type)) {
        require(given.empty(), "ECB takes no IV");
        return {};
    }
    require(given.size() == kAesBlockLength, "CBC needs an IV of 16 bytes");
    return given;
}

void requireAesType(EncryptionType type, std::size_t keyLength) {
    switch (type) {
    case EncryptionType::Aes128Cbc:
    case EncryptionType::Aes128Ecb:
        return require(keyLength == 16, "AES-128 needs a key of 16 bytes");
    case EncryptionType::Aes192Or256Cbc:
    case EncryptionType::Aes192Or256Ecb:
        return require(keyLength == 24 || keyLength == 32,
                       "AES-192 and AES-256 need a key of 24 or 32 bytes");
    default:
        throw TokenError(Failure::NotSupported, "the type is not one of AES");
    }
}

/// Without a serial an operation that needs no key of a token is done by the host.
void requirePluggedIfNamed(const char* serial) {
    if (const std::string_view name = serialText(serial); !name.empty()) requirePlugged(name);
}

CallerBuffer decryptOrUnwrap(std::string_view serial, BytesView keyOrKeyId, BytesView iv, BytesView data) {
    if (!serial.empty()) {
        if (const auto unwrapped = unwrapWithTokenKey(serial, keyOrKeyId, data)) {
            return CallerBuffer(*unwrapped);
        }
    }
    return decryptAes(keyOrKeyId, iv, data);
}

} // namespace

extern "C" {

int __cdecl veltra_init(int, void*, int) {
    return guarded("veltra_init", [] { initialiseCrypto(); });
}

std::vector<std::string> __cdecl veltra_getConnectedDeviceList(bool, void*) {
    std::vector<std::string> serials;
    guarded("veltra_getConnectedDeviceList", [&] { serials = connectedSerials(); });
    return serials;
}

int __cdecl veltra_initDevice(const char* serial, bool, void*) {
    return guarded("veltra_initDevice", [&] { requirePlugged(serialText(serial)); });
}

TokenInfo __cdecl veltra_getTokenInfo(const char* serial, void*) {
    TokenInfo info;
    guarded("veltra_getTokenInfo", [&] { info = tokenInfo(serialText(serial)); });
    return info;
}

int __cdecl veltra_validatePassword(const char* serial, const char* pin, int, int* remaining, void*) {
    return guarded("veltra_validatePassword", [&] {
        require(pin != nullptr, "the PIN is null");
        std::uint32_t left = 0;
        try {
            validatePin(serialText(serial), pinText(pin), left);
        } catch (const TokenError& error) {
            const bool judged = error.failure() == Failure::WrongPin || error.failure() == Failure::PinLocked;
            if (judged && remaining != nullptr) *remaining = static_cast<int>(left);
            throw;
        }
    });
}

std::vector<VeltraKeyPair>& __cdecl veltra_getKeyPairList(const char* serial, void*) {
    return returnedList<VeltraKeyPair>("veltra_getKeyPairList", serial, keyPairs);
}

int __cdecl veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout, void*) {
    return guarded("veltra_generateKeyPair", [&] {
        require(inout != nullptr, "the record is null");
        generateKeyPair(serialText(serial), pinText(pin), *inout);
    });
}

int __cdecl veltra_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin, bool,
                                 void*) {
    return guarded("veltra_deleteKeyPair",
                   [&] { deleteKeyPair(serialText(serial), keyIdOf(keyId), pinText(pin)); });
}

int __cdecl veltra_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                        const char* label, const unsigned char* data, int length, void*) {
    return guarded("veltra_updateKeyPairDetails", [&] {
        require(label != nullptr, "the label is null");
        if (!bufferOf(data, length).empty()) {
            throw TokenError(Failure::NotSupported, "a key pair carries a label and no further data");
        }
        renameKeyPair(serialText(serial), keyIdOf(keyId), pinText(pin),
                      std::string(boundedText(label, kLabelMaxLength)));
    });
}

std::vector<VeltraCertificate>& __cdecl veltra_getCertificateList(const char* serial, void*) {
    return returnedList<VeltraCertificate>("veltra_getCertificateList", serial, certificates);
}

VeltraCertificate* __cdecl veltra_findCertificateForKey(const char* serial, const unsigned char* keyId,
                                                        void*) {
    auto& found = returnedList<VeltraCertificate, FoundCertificate>(
        "veltra_findCertificateForKey", serial, [&](std::string_view name) {
            const std::optional<VeltraCertificate> certificate = findCertificate(name, keyIdOf(keyId));
            return certificate ? std::vector{*certificate} : std::vector<VeltraCertificate>();
        });
    return found.empty() ? nullptr : &found.front();
}

int __cdecl veltra_importCertificate(const char* serial, const char* pin, VeltraCertificate* inout, void*) {
    return guarded("veltra_importCertificate", [&] {
        require(inout != nullptr, "the record is null");
        importCertificate(serialText(serial), pinText(pin), *inout);
    });
}

int __cdecl veltra_getCertificateDetails(const unsigned char* der, int length, CertificateDetails& out,
                                         void*) {
    return guarded("veltra_getCertificateDetails", [&] { out = certificateDetails(bufferOf(der, length)); });
}

NamedCertificates __cdecl veltra_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void*) {
    NamedCertificates files;
    guarded("veltra_getFilesWithExtensionsAndConvertDER",
            [&] { files = readCertificateFolder(folder, extensions); });
    return files;
}

std::vector<VeltraSymmetricKey>& __cdecl veltra_getAesKeyList(const char* serial, void*) {
    return returnedList<VeltraSymmetricKey>("veltra_getAesKeyList", serial, aesKeys);
}

int __cdecl veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout, void*) {
    return guarded("veltra_importAesKey", [&] {
        require(inout != nullptr, "the record is null");
        importAesKey(serialText(serial), pinText(pin), *inout);
    });
}

int __cdecl veltra_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                            const unsigned char* hash, int hashLength, unsigned char* out, int* outLength,
                            bool, void*, bool pss) {
    return guarded("veltra_signHash", [&] {
        requireOutBuffer(out, outLength);
        const Bytes signature =
            sign(serialText(serial), keyIdOf(keyId), pinText(pin), bufferOf(hash, hashLength),
                 static_cast<std::size_t>(*outLength), schemeOf(pss));
        deliver(signature, out, outLength);
    });
}

int __cdecl veltra_verifySignatureHash(unsigned int keyType, const char*, const unsigned char* hash,
                                       int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                       const unsigned char* signature, int signatureLength, void*, bool pss) {
    return guarded("veltra_verifySignatureHash", [&] {
        if (!verify(keyType, bufferOf(hash, hashLength), bufferOf(publicKey, publicKeyLength),
                    bufferOf(signature, signatureLength), schemeOf(pss))) {
            throw TokenError(Failure::BadSignature, "the signature does not verify");
        }
    });
}

int __cdecl veltra_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* in, int inLength,
                           unsigned char* out, int* outLength, const unsigned char* key, int keyLength,
                           void*) {
    return guarded("veltra_encrypt", [&] {
        requireOutBuffer(out, outLength);
        const bool isRsa = type >= EncryptionType::Rsa1024 && type <= EncryptionType::Rsa4096;
        if (!isRsa) throw TokenError(Failure::NotSupported, "the type is not one of RSA");
        const BytesView message = bufferOf(in, inLength);
        // Callers name RSA-2048 for most keys: the key itself says how long it is.
        const std::optional<RsaPublicKey> publicKey = parseRsaPublicKey(bufferOf(key, keyLength));
        require(publicKey.has_value(), "the key is not an RSA public key");
        if (static_cast<std::size_t>(*outLength) < publicKey->modulus.size()) {
            throw TokenError(Failure::BufferTooSmall, "the buffer is shorter than the modulus");
        }
        deliver(encryptRsa(*publicKey, padding, message), out, outLength);
    });
}

int __cdecl veltra_decrypt(const char* serial, const unsigned char* keyId, const char* pin,
                           const unsigned char* in, int inLength, unsigned char** out, int* outLength, bool,
                           void*) {
    return guarded("veltra_decrypt", [&] {
        clearOutput(out, outLength);
        CallerBuffer(decrypt(serialText(serial), keyIdOf(keyId), pinText(pin), bufferOf(in, inLength)))
            .handOut(out, outLength);
    });
}

int __cdecl veltra_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key,
                               int keyLength, const unsigned char* in, int inLength, unsigned char** out,
                               int* outLength, bool final, const unsigned char* iv, int ivLength,
                               const unsigned char* extra, int extraLength, void*) {
    return guarded("veltra_encrypt_aes", [&] {
        clearOutput(out, outLength);
        if (!bufferOf(extra, extraLength).empty()) {
            throw TokenError(Failure::NotSupported, "AES-CBC and AES-ECB take no further data");
        }
        const BytesView keyBytes = bufferOf(key, keyLength);
        requireAesType(type, keyBytes.size());
        requirePluggedIfNamed(serial);
        encryptAes(keyBytes, ivFor(type, iv, ivLength), bufferOf(in, inLength),
                   final ? BlockPadding::Pkcs7 : BlockPadding::None)
            .handOut(out, outLength);
    });
}

int __cdecl veltra_decrypt_aes(const char* serial, const unsigned char* keyOrKeyId, int keyLength,
                               const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                               bool, const unsigned char* iv, int ivLength, void*) {
    return guarded("veltra_decrypt_aes", [&] {
        clearOutput(out, outLength);
        decryptOrUnwrap(serialText(serial), bufferOf(keyOrKeyId, keyLength), bufferOf(iv, ivLength),
                        bufferOf(in, inLength))
            .handOut(out, outLength);
    });
}

int __cdecl veltra_decryptSymetric(const char* serial, const unsigned char* in, int inLength,
                                   unsigned char* out, int* outLength, const unsigned char* iv, int ivLength,
                                   const unsigned char* key, int keyLength, void*) {
    return guarded("veltra_decryptSymetric", [&] {
        requireOutBuffer(out, outLength);
        requirePluggedIfNamed(serial);
        const CallerBuffer plaintext =
            decryptAes(bufferOf(key, keyLength), bufferOf(iv, ivLength), bufferOf(in, inLength));
        deliverOrTellLength(plaintext.bytes(), out, outLength);
    });
}

int __cdecl veltra_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                              const unsigned char* peer, int peerLength, unsigned char** out, int* outLength,
                              void*) {
    return guarded("veltra_ecdhDerive", [&] {
        clearOutput(out, outLength);
        CallerBuffer(agree(serialText(serial), keyIdOf(keyId), pinText(pin), bufferOf(peer, peerLength)))
            .handOut(out, outLength);
    });
}

int __cdecl veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                        void*) {
    return guarded("veltra_generateRamdomNumber", [&] {
        require(count >= 0 && out != nullptr, "the buffer is null or its length negative");
        if (!software) requirePlugged(serialText(serial));
        fillRandom({out, static_cast<std::size_t>(count)});
    });
}

int __cdecl veltra_initHash(const char* serial, int algorithm, void** hash, void*) {
    return guarded("veltra_initHash", [&] {
        require(hash != nullptr, "the place for the handle is null");
        *hash = nullptr;
        requirePluggedIfNamed(serial);
        *hash = HashRegistry::instance().add(std::make_shared<RunningHash>(algorithm));
    });
}

int __cdecl veltra_updateHash(void* hash, const unsigned char* data, int length, void*) {
    return guarded("veltra_updateHash",
                   [&] { HashRegistry::instance().find(hash)->update(bufferOf(data, length)); });
}

int __cdecl veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void*) {
    return guarded("veltra_finalHash", [&] {
        requireOutBuffer(digest, inoutLength);
        const std::shared_ptr<RunningHash> running = HashRegistry::instance().find(hash);
        if (static_cast<std::size_t>(*inoutLength) < running->digestLength()) {
            throw TokenError(Failure::BufferTooSmall,
                             "the buffer is too small; the hash can still be finished");
        }
        HashRegistry::instance().remove(hash);
        deliver(running->digest(), digest, inoutLength);
    });
}

} // extern "C"
