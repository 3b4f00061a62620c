#pragma once

#include "foundation/device_library_contract.h"

namespace veltra {

/// Not a code of the library: what its callers make of a success whose reported length is negative or does
/// not fit the buffer that the library was given.
constexpr int kDeviceBadLength = -1;

/// `code`, the result of a call that wrote into a buffer of `capacity` bytes, unless it is a success that
/// reports an impossible length.
constexpr int checkReportedLength(int code, int reported, std::size_t capacity) {
    const bool fits = reported >= 0 && static_cast<std::size_t>(reported) <= capacity;
    return code == kDeviceOk && !fits ? kDeviceBadLength : code;
}

/// Nor is this: a call that threw, where one failing token must not fail the whole operation.
constexpr int kDeviceThrew = -2;

/// The seam to the device library: everything in the provider that touches a token goes through this
/// interface. The methods carry the library's own names and contracts (device_library_contract.h).
///
/// Thread safety: every method may be called from any thread at any time.
class DeviceLibrary {
public:
    DeviceLibrary() = default;
    DeviceLibrary(const DeviceLibrary&) = delete;
    DeviceLibrary& operator=(const DeviceLibrary&) = delete;
    virtual ~DeviceLibrary() = default;

    virtual int veltra_init(int mode, void* ctx, int kind) = 0;
    virtual std::vector<std::string> veltra_getConnectedDeviceList(bool refresh, void* ctx) = 0;
    virtual int veltra_initDevice(const char* serial, bool reread, void* ctx) = 0;
    virtual TokenInfo veltra_getTokenInfo(const char* serial, void* ctx) = 0;
    virtual int veltra_validatePassword(const char* serial, const char* pin, int mode, int* remaining,
                                        void* ctx) = 0;
    virtual std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char* serial, void* ctx) = 0;
    virtual int veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout,
                                       void* ctx) = 0;
    virtual int veltra_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin,
                                     bool flag, void* ctx) = 0;
    virtual int veltra_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                            const char* label, const unsigned char* data, int length,
                                            void* ctx) = 0;
    virtual std::vector<VeltraCertificate>& veltra_getCertificateList(const char* serial, void* ctx) = 0;
    virtual VeltraCertificate* veltra_findCertificateForKey(const char* serial, const unsigned char* keyId,
                                                            void* ctx) = 0;
    virtual int veltra_importCertificate(const char* serial, const char* pin, VeltraCertificate* inout,
                                         void* ctx) = 0;
    virtual int veltra_getCertificateDetails(const unsigned char* der, int length, CertificateDetails& out,
                                             void* ctx) = 0;
    virtual std::vector<NamedDer>
    veltra_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                               const std::vector<std::string>& extensions, void* ctx) = 0;
    virtual std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char* serial, void* ctx) = 0;
    virtual int veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout,
                                    void* ctx) = 0;
    virtual int veltra_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                                const unsigned char* hash, int hashLength, unsigned char* out, int* outLength,
                                bool reserved, void* ctx, bool pss) = 0;
    virtual int veltra_verifySignatureHash(unsigned int keyType, const char* serial,
                                           const unsigned char* hash, int hashLength,
                                           const unsigned char* publicKey, int publicKeyLength,
                                           const unsigned char* signature, int signatureLength, void* ctx,
                                           bool pss) = 0;
    virtual int veltra_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* in,
                               int inLength, unsigned char* out, int* outLength, const unsigned char* key,
                               int keyLength, void* ctx) = 0;
    virtual int veltra_decrypt(const char* serial, const unsigned char* keyId, const char* pin,
                               const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                               bool flag, void* ctx) = 0;
    virtual int veltra_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key,
                                   int keyLength, const unsigned char* in, int inLength, unsigned char** out,
                                   int* outLength, bool final, const unsigned char* iv, int ivLength,
                                   const unsigned char* extra, int extraLength, void* ctx) = 0;
    virtual int veltra_decrypt_aes(const char* serial, const unsigned char* keyOrKeyId, int keyLength,
                                   const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                                   bool flag, const unsigned char* iv, int ivLength, void* ctx) = 0;
    virtual int veltra_decryptSymetric(const char* serial, const unsigned char* in, int inLength,
                                       unsigned char* out, int* outLength, const unsigned char* iv,
                                       int ivLength, const unsigned char* key, int keyLength, void* ctx) = 0;
    virtual int veltra_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                                  const unsigned char* peer, int peerLength, unsigned char** out,
                                  int* outLength, void* ctx) = 0;
    virtual int veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                            void* ctx) = 0;
    virtual int veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx) = 0;
    virtual int veltra_updateHash(void* hash, const unsigned char* data, int length, void* ctx) = 0;
    virtual int veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx) = 0;
};

/// The device library in use: VeltraDSCLibrary.dll, bound at the first call (first in the folder of this
/// module, then by the system's search), or the one that setDeviceLibrary put in its place. A library that is
/// missing or lacks an export answers as if no token were connected; one error line says what is missing.
DeviceLibrary& deviceLibrary();

/// Puts `library` in the place of the real one; null puts the real one back. Not owned. For tests.
void setDeviceLibrary(DeviceLibrary* library);

} // namespace veltra
