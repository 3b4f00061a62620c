#pragma once

#include "support/googletest.h"

#include "foundation/device_library_contract.h"
#include "token_store.h"

#include <string>
#include <string_view>
#include <vector>

namespace veltra::softtoken::test {

/// VeltraDSCLibrary.dll beside the program, with its exports. Its sessions are not those of the core library
/// that a test program is linked with: the two are to each other as two processes.
class LoadedLibrary {
public:
    LoadedLibrary();
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;
    ~LoadedLibrary();

private:
    /// The address of an export, as a pointer to whatever function it is assigned to.
    struct Symbol {
        void (*address)();
        template <class Function>
        operator Function*() const {
            return reinterpret_cast<Function*>(address);
        }
    };
    [[nodiscard]] Symbol find(const char* name) const;

    void* module_;

public:
    decltype(&veltra_init) init = find("veltra_init");
    decltype(&veltra_getConnectedDeviceList) getConnectedDeviceList = find("veltra_getConnectedDeviceList");
    decltype(&veltra_initDevice) initDevice = find("veltra_initDevice");
    decltype(&veltra_getTokenInfo) getTokenInfo = find("veltra_getTokenInfo");
    decltype(&veltra_validatePassword) validatePassword = find("veltra_validatePassword");
    decltype(&veltra_getKeyPairList) getKeyPairList = find("veltra_getKeyPairList");
    decltype(&veltra_generateKeyPair) generateKeyPair = find("veltra_generateKeyPair");
    decltype(&veltra_deleteKeyPair) deleteKeyPair = find("veltra_deleteKeyPair");
    decltype(&veltra_updateKeyPairDetails) updateKeyPairDetails = find("veltra_updateKeyPairDetails");
    decltype(&veltra_signHash) signHash = find("veltra_signHash");
    decltype(&veltra_verifySignatureHash) verifySignatureHash = find("veltra_verifySignatureHash");
    decltype(&veltra_generateRamdomNumber) generateRamdomNumber = find("veltra_generateRamdomNumber");
    decltype(&veltra_initHash) initHash = find("veltra_initHash");
    decltype(&veltra_updateHash) updateHash = find("veltra_updateHash");
    decltype(&veltra_finalHash) finalHash = find("veltra_finalHash");
    decltype(&veltra_getCertificateList) getCertificateList = find("veltra_getCertificateList");
    decltype(&veltra_findCertificateForKey) findCertificateForKey = find("veltra_findCertificateForKey");
    decltype(&veltra_importCertificate) importCertificate = find("veltra_importCertificate");
    decltype(&veltra_getCertificateDetails) getCertificateDetails = find("veltra_getCertificateDetails");
    decltype(&veltra_getFilesWithExtensionsAndConvertDER) getFiles =
        find("veltra_getFilesWithExtensionsAndConvertDER");
    decltype(&veltra_getAesKeyList) getAesKeyList = find("veltra_getAesKeyList");
    decltype(&veltra_importAesKey) importAesKey = find("veltra_importAesKey");
    decltype(&veltra_encrypt) encrypt = find("veltra_encrypt");
    decltype(&veltra_decrypt) decrypt = find("veltra_decrypt");
    decltype(&veltra_encrypt_aes) encryptAes = find("veltra_encrypt_aes");
    decltype(&veltra_decrypt_aes) decryptAes = find("veltra_decrypt_aes");
    decltype(&veltra_decryptSymetric) decryptSymetric = find("veltra_decryptSymetric");
    decltype(&veltra_ecdhDerive) ecdhDerive = find("veltra_ecdhDerive");
};

/// The places for a buffer that a function hands out; releases it. Not empty before, to show who clears it.
struct LibraryOutput {
    unsigned char* data = nullptr;
    int length = 77;

    LibraryOutput() = default;
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;
    ~LibraryOutput();

    [[nodiscard]] Bytes bytes() const { return {data, data + length}; }
    [[nodiscard]] bool isEmpty() const { return data == nullptr && length == 0; }
};

} // namespace veltra::softtoken::test
