#include "loaded_library.h"

#include "foundation/windows.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace veltra::softtoken::test {

namespace {

std::filesystem::path programFolder() {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
    return std::filesystem::path(path).parent_path();
}

} // namespace

LoadedLibrary::LoadedLibrary(Instance instance) {
    std::filesystem::path path = programFolder() / "VeltraDSCLibrary.dll";
    if (instance == Instance::Second) {
        const std::filesystem::path copy = homeFolder() / "second.dll";
        std::filesystem::copy_file(path, copy);
        path = copy;
    }
    module_ = LoadLibraryW(path.c_str());
    if (module_ == nullptr) throw std::runtime_error("cannot load " + path.string());
    bind(init, "veltra_init");
    bind(getConnectedDeviceList, "veltra_getConnectedDeviceList");
    bind(initDevice, "veltra_initDevice");
    bind(getTokenInfo, "veltra_getTokenInfo");
    bind(validatePassword, "veltra_validatePassword");
    bind(getKeyPairList, "veltra_getKeyPairList");
    bind(generateKeyPair, "veltra_generateKeyPair");
    bind(deleteKeyPair, "veltra_deleteKeyPair");
    bind(updateKeyPairDetails, "veltra_updateKeyPairDetails");
    bind(signHash, "veltra_signHash");
    bind(verifySignatureHash, "veltra_verifySignatureHash");
    bind(generateRamdomNumber, "veltra_generateRamdomNumber");
    bind(initHash, "veltra_initHash");
    bind(updateHash, "veltra_updateHash");
    bind(finalHash, "veltra_finalHash");
    bind(getCertificateList, "veltra_getCertificateList");
    bind(findCertificateForKey, "veltra_findCertificateForKey");
    bind(importCertificate, "veltra_importCertificate");
    bind(getCertificateDetails, "veltra_getCertificateDetails");
    bind(getFilesWithExtensionsAndConvertDER, "veltra_getFilesWithExtensionsAndConvertDER");
    bind(getAesKeyList, "veltra_getAesKeyList");
    bind(importAesKey, "veltra_importAesKey");
    bind(encrypt, "veltra_encrypt");
    bind(decrypt, "veltra_decrypt");
    bind(encryptAes, "veltra_encrypt_aes");
    bind(decryptAes, "veltra_decrypt_aes");
    bind(decryptSymetric, "veltra_decryptSymetric");
    bind(ecdhDerive, "veltra_ecdhDerive");
}

LoadedLibrary::~LoadedLibrary() {
    FreeLibrary(static_cast<HMODULE>(module_));
}

template <class Function>
void LoadedLibrary::bind(Function& function, const char* name) {
    function = std::bit_cast<Function>(GetProcAddress(static_cast<HMODULE>(module_), name));
    if (function == nullptr) throw std::runtime_error(std::string("no export ") + name);
}

LibraryOutput::~LibraryOutput() {
    std::free(data);
}

Bytes fromHex(std::string_view text) {
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    return bytes;
}

SoftTokenTest::SoftTokenTest()
    : home_(std::filesystem::temp_directory_path() / ("softtoken-" + toHex(randomBytes(8)))) {
    SetEnvironmentVariableW(L"VELTRA_SOFTTOKEN_HOME", home_.c_str());
    create(kSerial);
}

SoftTokenTest::~SoftTokenTest() {
    std::error_code ignored;
    std::filesystem::remove_all(home_, ignored);
}

void SoftTokenTest::create(const char* serial, FipsGeneration fips, std::uint32_t attempts) {
    TokenDescription description;
    description.serial = serial;
    description.label = "Token of a test";
    description.fips = fips;
    createToken(description, kPin, attempts);
}

int SoftTokenTest::logIn(const char* pin, int* remaining) const {
    return library_.validatePassword(kSerial, pin, 1, remaining, nullptr);
}

VeltraKeyPair SoftTokenTest::generate(std::uint32_t keyType, std::uint32_t usage) const {
    VeltraKeyPair record{};
    record.keyType = keyType;
    record.usage = usage;
    EXPECT_EQ(library_.generateKeyPair(kSerial, kPin, &record, nullptr), 0) << "key type " << keyType;
    return record;
}

int SoftTokenTest::sign(const VeltraKeyPair& key, std::size_t hashLength, Bytes& signature, bool pss,
                        const char* pin) const {
    const Bytes hash = hashOf(hashLength);
    signature.assign(512, 0);
    int length = static_cast<int>(signature.size());
    const int result = library_.signHash(kSerial, key.keyId, pin, hash.data(), static_cast<int>(hash.size()),
                                         signature.data(), &length, false, nullptr, pss);
    signature.resize(static_cast<std::size_t>(length));
    return result;
}

int SoftTokenTest::sign(const VeltraKeyPair& key, const char* pin) const {
    Bytes signature;
    return sign(key, 32, signature, false, pin);
}

int SoftTokenTest::verify(const VeltraKeyPair& key, std::size_t hashLength, const Bytes& signature,
                          bool pss) const {
    const Bytes hash = hashOf(hashLength);
    const Bytes publicKey = key.keyType <= kKeyTypeRsa4096
                                ? rsaKeyDer(key)
                                : Bytes(key.publicKey, key.publicKey + key.publicKeyLength);
    return library_.verifySignatureHash(key.keyType, "", hash.data(), static_cast<int>(hash.size()),
                                        publicKey.data(), static_cast<int>(publicKey.size()),
                                        signature.data(), static_cast<int>(signature.size()), nullptr, pss);
}

Bytes SoftTokenTest::rsaKeyDer(const VeltraKeyPair& key) {
    Bytes blob(sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY) + key.publicKeyLength);
    const PUBLICKEYSTRUC head{PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, CALG_RSA_KEYX};
    const RSAPUBKEY numbers{0x31415352, key.publicKeyLength * 8, 65537};
    std::memcpy(blob.data(), &head, sizeof(head));
    std::memcpy(blob.data() + sizeof(head), &numbers, sizeof(numbers));
    std::reverse_copy(key.publicKey, key.publicKey + key.publicKeyLength,
                      blob.begin() + sizeof(head) + sizeof(numbers));
    Bytes rsaKey(1024);
    auto length = static_cast<DWORD>(rsaKey.size());
    EXPECT_TRUE(
        CryptEncodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, blob.data(), rsaKey.data(), &length));
    CERT_PUBLIC_KEY_INFO info{};
    std::string algorithm = szOID_RSA_RSA;
    Bytes null{0x05, 0x00};
    info.Algorithm = {algorithm.data(), {2, null.data()}};
    info.PublicKey = {length, rsaKey.data(), 0};
    Bytes der(1024);
    length = static_cast<DWORD>(der.size());
    EXPECT_TRUE(CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, &info, der.data(), &length));
    der.resize(length);
    return der;
}

Bytes SoftTokenTest::hashOf(std::size_t length) {
    Bytes hash(length);
    for (std::size_t i = 0; i < length; ++i)
        hash[i] = static_cast<unsigned char>(0xF1 + 7 * i);
    return hash;
}

} // namespace veltra::softtoken::test
