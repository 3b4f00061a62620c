#include "e2e/crypto_application.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace veltra::test {

namespace {

std::string fromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value != nullptr ? value : "";
}

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

} // namespace

DWORD errorOf(const std::function<BOOL()>& call) {
    SetLastError(kNoReasonGiven);
    if (call()) return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    return error == ERROR_SUCCESS ? kNoReasonGiven : error;
}

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

Bytes readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& name, const Bytes& bytes) {
    std::ofstream file(name, std::ios::binary);
    std::ranges::copy(bytes, std::ostreambuf_iterator<char>(file));
    EXPECT_TRUE(file.flush()) << name;
}

CryptoApplicationTest::CryptoApplicationTest()
    : prefix(fromEnvironment("VELTRA_CLIENT_PREFIX")), container(containerOf(2048)),
      pin(fromEnvironment("VELTRA_CLIENT_PIN")) {}

std::string CryptoApplicationTest::containerOf(int bits) const {
    return prefix + "-" + std::to_string(bits);
}

CryptoContext CryptoApplicationTest::open(const char* container, DWORD flags) {
    HCRYPTPROV context = 0;
    EXPECT_TRUE(
        CryptAcquireContextA(&context, container, "Veltra Cryptographic Provider CSP", PROV_RSA_FULL, flags))
        << GetLastError();
    return CryptoContext(context);
}

CryptoContext CryptoApplicationTest::openSystem() {
    HCRYPTPROV context = 0;
    EXPECT_TRUE(CryptAcquireContextA(&context, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT));
    return CryptoContext(context);
}

CryptoKey CryptoApplicationTest::userKey(const CryptoContext& context, DWORD keySpec) {
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CryptGetUserKey(context.get(), keySpec, &key)) << GetLastError();
    return CryptoKey(key);
}

Bytes CryptoApplicationTest::publicBlob(const CryptoKey& key) {
    DWORD length = 0;
    EXPECT_TRUE(CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, nullptr, &length)) << GetLastError();
    Bytes blob(length);
    EXPECT_TRUE(CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, blob.data(), &length)) << GetLastError();
    return blob;
}

CryptoKey CryptoApplicationTest::importKey(const CryptoContext& context, const Bytes& blob,
                                           const CryptoKey& decryptionKey) {
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CryptImportKey(context.get(), blob.data(), lengthOf(blob), decryptionKey.get(), 0, &key))
        << GetLastError();
    return CryptoKey(key);
}

Bytes CryptoApplicationTest::encrypt(const CryptoKey& key, const Bytes& plaintext, DWORD flags) {
    constexpr std::size_t kLongestAddition = 512; // an RSA modulus, or the padding of a block cipher
    Bytes buffer = plaintext;
    buffer.resize(plaintext.size() + kLongestAddition);
    DWORD length = lengthOf(plaintext);
    EXPECT_TRUE(CryptEncrypt(key.get(), 0, TRUE, flags, buffer.data(), &length, lengthOf(buffer)))
        << GetLastError();
    buffer.resize(length);
    return buffer;
}

Bytes CryptoApplicationTest::decrypt(const CryptoKey& key, Bytes ciphertext, DWORD flags) {
    DWORD length = lengthOf(ciphertext);
    EXPECT_TRUE(CryptDecrypt(key.get(), 0, TRUE, flags, ciphertext.data(), &length)) << GetLastError();
    ciphertext.resize(length);
    return ciphertext;
}

CryptoHash CryptoApplicationTest::createHash(const CryptoContext& context, ALG_ID algorithm,
                                             const Bytes& data, const CryptoKey& key) {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CryptCreateHash(context.get(), algorithm, key.get(), 0, &hash)) << GetLastError();
    if (!data.empty()) {
        EXPECT_TRUE(CryptHashData(hash, data.data(), lengthOf(data), 0)) << GetLastError();
    }
    return CryptoHash(hash);
}

Bytes CryptoApplicationTest::hashValue(const CryptoHash& hash) {
    Bytes value(64);
    DWORD length = lengthOf(value);
    EXPECT_TRUE(CryptGetHashParam(hash.get(), HP_HASHVAL, value.data(), &length, 0)) << GetLastError();
    value.resize(length);
    return value;
}

DWORD CryptoApplicationTest::signError(const CryptoHash& hash, DWORD keySpec, Bytes& signature,
                                       DWORD length) {
    signature.assign(length + 1, kSignatureFill);
    const DWORD error =
        errorOf([&] { return CryptSignHashA(hash.get(), keySpec, nullptr, 0, signature.data(), &length); });
    EXPECT_EQ(signature.back(), kSignatureFill) << "the byte behind the buffer";
    signature.pop_back();
    EXPECT_EQ(length, signature.size());
    return error;
}

DWORD CryptoApplicationTest::signError(const CryptoContext& context) {
    Bytes signature;
    return signError(createHash(context, CALG_SHA_256, {1}), AT_SIGNATURE, signature, 256);
}

bool CryptoApplicationTest::systemVerifies(const Bytes& publicKey, ALG_ID algorithm, const Bytes& data,
                                           const Bytes& signature) {
    const CryptoContext system = openSystem();
    const CryptoKey key = importKey(system, publicKey);
    const CryptoHash hash = createHash(system, algorithm, data);
    return CryptVerifySignatureA(hash.get(), signature.data(), lengthOf(signature), key.get(), nullptr, 0) !=
           FALSE;
}

} // namespace veltra::test
