#include "foundation/device_library_binding.h"

#include "foundation/missing_device_library.h"
#include "foundation/module.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"

#include <atomic>
#include <bit>
#include <functional>

namespace veltra {

namespace {

/// The exports of a loaded device library.
class LoadedDeviceLibrary final : public DeviceLibrary {
public:
    /// Binds every export to the address that `find` gives for its name, null for none. Returns the names of
    /// those that are missing.
    template <class Find>
    std::vector<const char*> bind(const Find& find) {
        std::vector<const char*> missing;
        const auto bindExport = [&](auto*& function, const char* name) {
            const FARPROC address = find(name);
            if (address == nullptr) missing.push_back(name);
            function = std::bit_cast<std::remove_reference_t<decltype(function)>>(address);
        };
        bindExport(init_, "veltra_init");
        bindExport(getConnectedDeviceList_, "veltra_getConnectedDeviceList");
        bindExport(initDevice_, "veltra_initDevice");
        bindExport(getTokenInfo_, "veltra_getTokenInfo");
        bindExport(validatePassword_, "veltra_validatePassword");
        bindExport(getKeyPairList_, "veltra_getKeyPairList");
        bindExport(generateKeyPair_, "veltra_generateKeyPair");
        bindExport(deleteKeyPair_, "veltra_deleteKeyPair");
        bindExport(updateKeyPairDetails_, "veltra_updateKeyPairDetails");
        bindExport(getCertificateList_, "veltra_getCertificateList");
        bindExport(findCertificateForKey_, "veltra_findCertificateForKey");
        bindExport(importCertificate_, "veltra_importCertificate");
        bindExport(getCertificateDetails_, "veltra_getCertificateDetails");
        bindExport(getFiles_, "veltra_getFilesWithExtensionsAndConvertDER");
        bindExport(getAesKeyList_, "veltra_getAesKeyList");
        bindExport(importAesKey_, "veltra_importAesKey");
        bindExport(signHash_, "veltra_signHash");
        bindExport(verifySignatureHash_, "veltra_verifySignatureHash");
        bindExport(encrypt_, "veltra_encrypt");
        bindExport(decrypt_, "veltra_decrypt");
        bindExport(encryptAes_, "veltra_encrypt_aes");
        bindExport(decryptAes_, "veltra_decrypt_aes");
        bindExport(decryptSymmetric_, "veltra_decryptSymetric");
        bindExport(ecdhDerive_, "veltra_ecdhDerive");
        bindExport(generateRandomNumber_, "veltra_generateRamdomNumber");
        bindExport(initHash_, "veltra_initHash");
        bindExport(updateHash_, "veltra_updateHash");
        bindExport(finalHash_, "veltra_finalHash");
        return missing;
    }

    int veltra_init(int mode, void* ctx, int kind) override { return init_(mode, ctx, kind); }
    std::vector<std::string> veltra_getConnectedDeviceList(bool refresh, void* ctx) override {
        return getConnectedDeviceList_(refresh, ctx);
    }
    int veltra_initDevice(const char* serial, bool reread, void* ctx) override {
        return initDevice_(serial, reread, ctx);
    }
    TokenInfo veltra_getTokenInfo(const char* serial, void* ctx) override {
        return getTokenInfo_(serial, ctx);
    }
    int veltra_validatePassword(const char* serial, const char* pin, int mode, int* remaining,
                                void* ctx) override {
        return validatePassword_(serial, pin, mode, remaining, ctx);
    }
    std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char* serial, void* ctx) override {
        return getKeyPairList_(serial, ctx);
    }
    int veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout,
                               void* ctx) override {
        return generateKeyPair_(serial, pin, inout, ctx);
    }
    int veltra_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin, bool flag,
                             void* ctx) override {
        return deleteKeyPair_(serial, keyId, pin, flag, ctx);
    }
    int veltra_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                    const char* label, const unsigned char* data, int length,
                                    void* ctx) override {
        return updateKeyPairDetails_(serial, keyId, pin, label, data, length, ctx);
    }
    std::vector<VeltraCertificate>& veltra_getCertificateList(const char* serial, void* ctx) override {
        return getCertificateList_(serial, ctx);
    }
    VeltraCertificate* veltra_findCertificateForKey(const char* serial, const unsigned char* keyId,
                                                    void* ctx) override {
        return findCertificateForKey_(serial, keyId, ctx);
    }
    int veltra_importCertificate(const char* serial, const char* pin, VeltraCertificate* inout,
                                 void* ctx) override {
        return importCertificate_(serial, pin, inout, ctx);
    }
    int veltra_getCertificateDetails(const unsigned char* der, int length, CertificateDetails& out,
                                     void* ctx) override {
        return getCertificateDetails_(der, length, out, ctx);
    }
    std::vector<NamedDer> veltra_getFilesWithExtensionsAndConvertDER(
        const std::string& folder, const std::vector<std::string>& extensions, void* ctx) override {
        return getFiles_(folder, extensions, ctx);
    }
    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char* serial, void* ctx) override {
        return getAesKeyList_(serial, ctx);
    }
    int veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout,
                            void* ctx) override {
        return importAesKey_(serial, pin, inout, ctx);
    }
    int veltra_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                        const unsigned char* hash, int hashLength, unsigned char* out, int* outLength,
                        bool reserved, void* ctx, bool pss) override {
        return signHash_(serial, keyId, pin, hash, hashLength, out, outLength, reserved, ctx, pss);
    }
    int veltra_verifySignatureHash(unsigned int keyType, const char* serial, const unsigned char* hash,
                                   int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                   const unsigned char* signature, int signatureLength, void* ctx,
                                   bool pss) override {
        return verifySignatureHash_(keyType, serial, hash, hashLength, publicKey, publicKeyLength, signature,
                                    signatureLength, ctx, pss);
    }
    int veltra_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* in, int inLength,
                       unsigned char* out, int* outLength, const unsigned char* key, int keyLength,
                       void* ctx) override {
        return encrypt_(type, padding, in, inLength, out, outLength, key, keyLength, ctx);
    }
    int veltra_decrypt(const char* serial, const unsigned char* keyId, const char* pin,
                       const unsigned char* in, int inLength, unsigned char** out, int* outLength, bool flag,
                       void* ctx) override {
        return decrypt_(serial, keyId, pin, in, inLength, out, outLength, flag, ctx);
    }
    int veltra_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                           const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                           bool final, const unsigned char* iv, int ivLength, const unsigned char* extra,
                           int extraLength, void* ctx) override {
        return encryptAes_(serial, type, key, keyLength, in, inLength, out, outLength, final, iv, ivLength,
                           extra, extraLength, ctx);
    }
    int veltra_decrypt_aes(const char* serial, const unsigned char* keyOrKeyId, int keyLength,
                           const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                           bool flag, const unsigned char* iv, int ivLength, void* ctx) override {
        return decryptAes_(serial, keyOrKeyId, keyLength, in, inLength, out, outLength, flag, iv, ivLength,
                           ctx);
    }
    int veltra_decryptSymetric(const char* serial, const unsigned char* in, int inLength, unsigned char* out,
                               int* outLength, const unsigned char* iv, int ivLength,
                               const unsigned char* key, int keyLength, void* ctx) override {
        return decryptSymmetric_(serial, in, inLength, out, outLength, iv, ivLength, key, keyLength, ctx);
    }
    int veltra_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                          const unsigned char* peer, int peerLength, unsigned char** out, int* outLength,
                          void* ctx) override {
        return ecdhDerive_(serial, keyId, pin, peer, peerLength, out, outLength, ctx);
    }
    int veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                    void* ctx) override {
        return generateRandomNumber_(serial, count, out, software, ctx);
    }
    int veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx) override {
        return initHash_(serial, algorithm, hash, ctx);
    }
    int veltra_updateHash(void* hash, const unsigned char* data, int length, void* ctx) override {
        return updateHash_(hash, data, length, ctx);
    }
    int veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx) override {
        return finalHash_(hash, digest, inoutLength, ctx);
    }

private:
    decltype(&::veltra_init) init_ = nullptr;
    decltype(&::veltra_getConnectedDeviceList) getConnectedDeviceList_ = nullptr;
    decltype(&::veltra_initDevice) initDevice_ = nullptr;
    decltype(&::veltra_getTokenInfo) getTokenInfo_ = nullptr;
    decltype(&::veltra_validatePassword) validatePassword_ = nullptr;
    decltype(&::veltra_getKeyPairList) getKeyPairList_ = nullptr;
    decltype(&::veltra_generateKeyPair) generateKeyPair_ = nullptr;
    decltype(&::veltra_deleteKeyPair) deleteKeyPair_ = nullptr;
    decltype(&::veltra_updateKeyPairDetails) updateKeyPairDetails_ = nullptr;
    decltype(&::veltra_getCertificateList) getCertificateList_ = nullptr;
    decltype(&::veltra_findCertificateForKey) findCertificateForKey_ = nullptr;
    decltype(&::veltra_importCertificate) importCertificate_ = nullptr;
    decltype(&::veltra_getCertificateDetails) getCertificateDetails_ = nullptr;
    decltype(&::veltra_getFilesWithExtensionsAndConvertDER) getFiles_ = nullptr;
    decltype(&::veltra_getAesKeyList) getAesKeyList_ = nullptr;
    decltype(&::veltra_importAesKey) importAesKey_ = nullptr;
    decltype(&::veltra_signHash) signHash_ = nullptr;
    decltype(&::veltra_verifySignatureHash) verifySignatureHash_ = nullptr;
    decltype(&::veltra_encrypt) encrypt_ = nullptr;
    decltype(&::veltra_decrypt) decrypt_ = nullptr;
    decltype(&::veltra_encrypt_aes) encryptAes_ = nullptr;
    decltype(&::veltra_decrypt_aes) decryptAes_ = nullptr;
    decltype(&::veltra_decryptSymetric) decryptSymmetric_ = nullptr;
    decltype(&::veltra_ecdhDerive) ecdhDerive_ = nullptr;
    decltype(&::veltra_generateRamdomNumber) generateRandomNumber_ = nullptr;
    decltype(&::veltra_initHash) initHash_ = nullptr;
    decltype(&::veltra_updateHash) updateHash_ = nullptr;
    decltype(&::veltra_finalHash) finalHash_ = nullptr;
};

constexpr const wchar_t* kLibraryName = L"VeltraDSCLibrary.dll";

// First in the folder, then by the system's search. On failure `error` says why the file in the folder was
// refused, if there is one, and otherwise why none was found.
UniqueModule loadDeviceLibraryModule(const std::wstring& folder, DWORD& error) {
    const std::wstring beside = folder + kLibraryName;
    if (!folder.empty() && GetFileAttributesW(beside.c_str()) != INVALID_FILE_ATTRIBUTES) {
        UniqueModule module(LoadLibraryExW(beside.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
        if (module) return module;
        error = GetLastError();
    }
    UniqueModule module(LoadLibraryW(kLibraryName));
    if (!module && error == ERROR_SUCCESS) error = GetLastError();
    return module;
}

// The library stays loaded and its binding is never destroyed: the monitor thread may be in it at any time.
DeviceLibrary* bindForThisProcess() {
    const LastErrorKeeper keeper;
    DeviceLibraryBinding binding = bindDeviceLibrary(thisModuleFolder());
    if (binding.library) return binding.library.release();
    if (!binding.missingExports.empty()) {
        Utils::error("VeltraDSCLibrary.dll lacks the export ", binding.missingExports.front());
    } else {
        Utils::error("VeltraDSCLibrary.dll cannot be loaded, error=", binding.error);
    }
    return new MissingDeviceLibrary;
}

std::atomic<DeviceLibrary*> substitute{nullptr};

} // namespace

DeviceLibraryBinding bindDeviceLibrary(const std::wstring& folder) {
    DeviceLibraryBinding binding;
    DWORD error = ERROR_SUCCESS; // not everywhere the same type as the binding's
    UniqueModule module = loadDeviceLibraryModule(folder, error);
    binding.error = error;
    if (!module) return binding;
    binding.file = moduleFile(module.get());
    auto library = std::make_unique<LoadedDeviceLibrary>();
    binding.missingExports =
        library->bind([&](const char* name) { return GetProcAddress(module.get(), name); });
    if (binding.missingExports.empty()) {
        binding.library = std::move(library);
        static_cast<void>(module.release());
    }
    return binding;
}

std::vector<const char*> missingExports(const std::function<bool(const char*)>& has) {
    const auto anyAddress = std::bit_cast<FARPROC>(&missingExports); // is asked for, and never called
    return LoadedDeviceLibrary().bind([&](const char* name) { return has(name) ? anyAddress : nullptr; });
}

DeviceLibrary& deviceLibrary() {
    if (DeviceLibrary* library = substitute) return *library;
    static DeviceLibrary* const bound = bindForThisProcess();
    return *bound;
}

void setDeviceLibrary(DeviceLibrary* library) {
    substitute = library;
}

} // namespace veltra
