#include "e2e/cng_application.h"

#include <cstdlib>

namespace veltra::test {

namespace {

std::wstring keyFromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    const std::string text = value != nullptr ? value : "";
    return {text.begin(), text.end()};
}

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

} // namespace

Bytes wideBytes(const std::wstring& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
    return {bytes, bytes + (text.size() + 1) * sizeof(wchar_t)};
}

CngApplicationTest::CngApplicationTest()
    : rsaKey(keyFromEnvironment("VELTRA_CLIENT_RSA_KEY")),
      signKey(keyFromEnvironment("VELTRA_CLIENT_SIGN_KEY")) {}

CngHandle CngApplicationTest::openProvider() {
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(NCryptOpenStorageProvider(&handle, L"Veltra Cryptographic Provider CSP", 0), kSuccess);
    return CngHandle(handle);
}

CngHandle CngApplicationTest::openKey(const std::wstring& name, DWORD keySpec, DWORD flags) const {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(NCryptOpenKey(provider.get(), &key, name.c_str(), keySpec, flags), kSuccess);
    return CngHandle(key);
}

CngHandle CngApplicationTest::importKey(const wchar_t* blobType, Bytes blob) const {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(NCryptImportKey(provider.get(), 0, blobType, nullptr, &key, blob.data(), lengthOf(blob), 0),
              kSuccess);
    return CngHandle(key);
}

Bytes CngApplicationTest::exportKey(const CngHandle& key, const wchar_t* blobType) {
    DWORD length = 0;
    EXPECT_EQ(NCryptExportKey(key.get(), 0, blobType, nullptr, nullptr, 0, &length, 0), kSuccess);
    Bytes blob(length);
    EXPECT_EQ(NCryptExportKey(key.get(), 0, blobType, nullptr, blob.data(), length, &length, 0), kSuccess);
    return blob;
}

Bytes CngApplicationTest::property(const CngHandle& object, const wchar_t* name) {
    DWORD length = 0;
    EXPECT_EQ(NCryptGetProperty(object.get(), name, nullptr, 0, &length, 0), kSuccess);
    Bytes value(length);
    EXPECT_EQ(NCryptGetProperty(object.get(), name, value.data(), length, &length, 0), kSuccess);
    return value;
}

SECURITY_STATUS CngApplicationTest::setProperty(const CngHandle& object, const wchar_t* name, Bytes value) {
    return NCryptSetProperty(object.get(), name, value.data(), lengthOf(value), 0);
}

SECURITY_STATUS CngApplicationTest::sign(const CngHandle& key, void* padding, Bytes hash, Bytes& signature,
                                         DWORD length, DWORD flags) {
    constexpr BYTE kGuard = 0xEE;
    signature.assign(length + 1, kGuard);
    const SECURITY_STATUS status = NCryptSignHash(key.get(), padding, hash.data(), lengthOf(hash),
                                                  signature.data(), length, &length, flags);
    EXPECT_EQ(signature.back(), kGuard) << "the byte behind the buffer";
    signature.pop_back();
    return status;
}

SECURITY_STATUS CngApplicationTest::verify(const CngHandle& key, void* padding, Bytes hash, Bytes signature,
                                           DWORD flags) {
    return NCryptVerifySignature(key.get(), padding, hash.data(), lengthOf(hash), signature.data(),
                                 lengthOf(signature), flags);
}

Bytes CngApplicationTest::digest(ALG_ID algorithm, const Bytes& data) {
    return hashValue(createHash(openSystem(), algorithm, data));
}

} // namespace veltra::test
