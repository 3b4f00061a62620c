#pragma once

#include "foundation/device_library.h"

namespace veltra {

/// Answers in the place of a device library that cannot be used: no token is connected.
class MissingDeviceLibrary : public DeviceLibrary {
public:
    int veltra_init(int, void*, int) override { return kLibraryMissing; }
    std::vector<std::string> veltra_getConnectedDeviceList(bool, void*) override { return {}; }
    int veltra_initDevice(const char*, bool, void*) override { return kLibraryMissing; }
    TokenInfo veltra_getTokenInfo(const char*, void*) override { return {}; }
    int veltra_validatePassword(const char*, const char*, int, int*, void*) override {
        return kLibraryMissing;
    }
    std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char*, void*) override { return noKeyPairs_; }
    int veltra_generateKeyPair(const char*, const char*, VeltraKeyPair*, void*) override {
        return kLibraryMissing;
    }
    int veltra_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) override {
        return kLibraryMissing;
    }
    int veltra_updateKeyPairDetails(const char*, const unsigned char*, const char*, const char*,
                                    const unsigned char*, int, void*) override {
        return kLibraryMissing;
    }
    std::vector<VeltraCertificate>& veltra_getCertificateList(const char*, void*) override {
        return noCertificates_;
    }
    VeltraCertificate* veltra_findCertificateForKey(const char*, const unsigned char*, void*) override {
        return nullptr;
    }
    int veltra_importCertificate(const char*, const char*, VeltraCertificate*, void*) override {
        return kLibraryMissing;
    }
    int veltra_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) override {
        return kLibraryMissing;
    }
    std::vector<NamedDer> veltra_getFilesWithExtensionsAndConvertDER(const std::string&,
                                                                     const std::vector<std::string>&,
                                                                     void*) override {
        return {};
    }
    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char*, void*) override { return noAesKeys_; }
    int veltra_importAesKey(const char*, const char*, VeltraSymmetricKey*, void*) override {
        return kLibraryMissing;
    }
    int veltra_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int,
                        unsigned char*, int*, bool, void*, bool) override {
        return kLibraryMissing;
    }
    int veltra_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*,
                                   int, const unsigned char*, int, void*, bool) override {
        return kLibraryMissing;
    }
    int veltra_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*, int*,
                       const unsigned char*, int, void*) override {
        return kLibraryMissing;
    }
    int veltra_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int,
                       unsigned char**, int*, bool, void*) override {
        return kLibraryMissing;
    }
    int veltra_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*, int,
                           unsigned char**, int*, bool, const unsigned char*, int, const unsigned char*, int,
                           void*) override {
        return kLibraryMissing;
    }
    int veltra_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int, unsigned char**,
                           int*, bool, const unsigned char*, int, void*) override {
        return kLibraryMissing;
    }
    int veltra_decryptSymetric(const char*, const unsigned char*, int, unsigned char*, int*,
                               const unsigned char*, int, const unsigned char*, int, void*) override {
        return kLibraryMissing;
    }
    int veltra_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int,
                          unsigned char**, int*, void*) override {
        return kLibraryMissing;
    }
    int veltra_generateRamdomNumber(const char*, int, unsigned char*, bool, void*) override {
        return kLibraryMissing;
    }
    int veltra_initHash(const char*, int, void**, void*) override { return kLibraryMissing; }
    int veltra_updateHash(void*, const unsigned char*, int, void*) override { return kLibraryMissing; }
    int veltra_finalHash(void*, unsigned char*, int*, void*) override { return kLibraryMissing; }

private:
    static constexpr int kLibraryMissing = -1;

    std::vector<VeltraKeyPair> noKeyPairs_;
    std::vector<VeltraCertificate> noCertificates_;
    std::vector<VeltraSymmetricKey> noAesKeys_;
};

} // namespace veltra
