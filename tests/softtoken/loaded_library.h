#pragma once

#include "support/googletest.h"

#include "foundation/device_library_contract.h"
#include "gcrypt_support.h"
#include "token_store.h"

#include <string>
#include <string_view>
#include <vector>

namespace veltra::softtoken::test {

/// One loaded instance of VeltraDSCLibrary.dll, with its exports. Every instance has state of its own, as if
/// it were in another process.
class LoadedLibrary {
public:
    /// The DLL beside the test program, or a copy of it, which the system loads a second time.
    enum class Instance { First, Second };
    explicit LoadedLibrary(Instance instance);
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;
    ~LoadedLibrary();

    decltype(&veltra_init) init = nullptr;
    decltype(&veltra_getConnectedDeviceList) getConnectedDeviceList = nullptr;
    decltype(&veltra_initDevice) initDevice = nullptr;
    decltype(&veltra_getTokenInfo) getTokenInfo = nullptr;
    decltype(&veltra_validatePassword) validatePassword = nullptr;
    decltype(&veltra_getKeyPairList) getKeyPairList = nullptr;
    decltype(&veltra_generateKeyPair) generateKeyPair = nullptr;
    decltype(&veltra_deleteKeyPair) deleteKeyPair = nullptr;
    decltype(&veltra_updateKeyPairDetails) updateKeyPairDetails = nullptr;
    decltype(&veltra_signHash) signHash = nullptr;
    decltype(&veltra_verifySignatureHash) verifySignatureHash = nullptr;
    decltype(&veltra_generateRamdomNumber) generateRamdomNumber = nullptr;
    decltype(&veltra_initHash) initHash = nullptr;
    decltype(&veltra_updateHash) updateHash = nullptr;
    decltype(&veltra_finalHash) finalHash = nullptr;
    decltype(&veltra_getCertificateList) getCertificateList = nullptr;
    decltype(&veltra_findCertificateForKey) findCertificateForKey = nullptr;
    decltype(&veltra_importCertificate) importCertificate = nullptr;
    decltype(&veltra_getCertificateDetails) getCertificateDetails = nullptr;
    decltype(&veltra_getFilesWithExtensionsAndConvertDER) getFilesWithExtensionsAndConvertDER = nullptr;
    decltype(&veltra_getAesKeyList) getAesKeyList = nullptr;
    decltype(&veltra_importAesKey) importAesKey = nullptr;
    decltype(&veltra_encrypt) encrypt = nullptr;
    decltype(&veltra_decrypt) decrypt = nullptr;
    decltype(&veltra_encrypt_aes) encryptAes = nullptr;
    decltype(&veltra_decrypt_aes) decryptAes = nullptr;
    decltype(&veltra_decryptSymetric) decryptSymetric = nullptr;
    decltype(&veltra_ecdhDerive) ecdhDerive = nullptr;

private:
    template <class Function>
    void bind(Function& function, const char* name);

    void* module_;
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

/// Of an even number of hexadecimal digits.
Bytes fromHex(std::string_view text);

/// A fresh home folder with one plugged-in token "T1" and the DLL.
class SoftTokenTest : public testing::Test {
protected:
    static constexpr const char* kSerial = "T1";
    static constexpr const char* kPin = "123456";

    SoftTokenTest();
    ~SoftTokenTest() override;

    /// Makes another token.
    static void create(const char* serial, FipsGeneration fips = FipsGeneration::Fips1402,
                       std::uint32_t attempts = kDefaultAttempts);
    template <class Change>
    static void change(Change change) {
        const TokenFolder token(kSerial);
        TokenDescription description = token.description();
        change(description);
        token.saveDescription(description);
    }

    /// veltra_validatePassword of kSerial.
    int logIn(const char* pin = kPin, int* remaining = nullptr) const;
    /// A generated key of kSerial; fails the test when there is none.
    [[nodiscard]] VeltraKeyPair generate(std::uint32_t keyType, std::uint32_t usage = kUsageSign) const;
    /// veltra_signHash of kSerial over `hashLength` bytes; fills `signature` when it succeeds.
    int sign(const VeltraKeyPair& key, std::size_t hashLength, Bytes& signature, bool pss = false,
             const char* pin = kPin) const;
    int sign(const VeltraKeyPair& key, const char* pin = kPin) const;
    /// veltra_verifySignatureHash over the same hash as sign().
    [[nodiscard]] int verify(const VeltraKeyPair& key, std::size_t hashLength, const Bytes& signature,
                             bool pss = false) const;

    /// SubjectPublicKeyInfo of an RSA key with exponent 65537, encoded by the platform.
    static Bytes rsaKeyDer(const VeltraKeyPair& key);
    static Bytes hashOf(std::size_t length);

    std::filesystem::path home_;
    LoadedLibrary library_{LoadedLibrary::Instance::First};
};

} // namespace veltra::softtoken::test
