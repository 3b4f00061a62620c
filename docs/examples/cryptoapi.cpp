// cryptoapi CONTAINER PIN: what an application does with a token through CryptoAPI, from the key to the
// deletion. The pieces of docs/application-guide.md are from here; the test e2e_examples runs it.

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

constexpr const char* kProvider = "Veltra Cryptographic Provider CSP";

void check(BOOL succeeded, const char* what) {
    if (!succeeded) throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

HCRYPTPROV open(const char* container, DWORD flags) {
    HCRYPTPROV provider = 0;
    check(CryptAcquireContextA(&provider, container, kProvider, PROV_RSA_FULL, flags), "CryptAcquireContext");
    return provider;
}

std::vector<std::string> listContainers(HCRYPTPROV provider) {
    std::vector<std::string> names;
    char name[64];
    DWORD length = sizeof(name);
    DWORD flags = CRYPT_FIRST;
    while (CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &length, flags)) {
        names.emplace_back(name); // the identifier of a key: a container's name as well
        length = sizeof(name);
        flags = CRYPT_NEXT;
    }
    return names; // GetLastError() is ERROR_NO_MORE_ITEMS
}

void givePin(HCRYPTPROV provider, const char* pin) {
    check(CryptSetProvParam(provider, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin), 0), "PIN");
}

HCRYPTKEY generate(HCRYPTPROV provider) {
    constexpr DWORD kBits = 2048;
    HCRYPTKEY key = 0;
    check(CryptGenKey(provider, CALG_RSA_KEYX, kBits << 16, &key), "CryptGenKey");
    return key;
}

HCRYPTKEY keyOf(HCRYPTPROV provider) {
    HCRYPTKEY key = 0;
    check(CryptGetUserKey(provider, AT_KEYEXCHANGE, &key), "CryptGetUserKey");
    return key;
}

HCRYPTHASH hashOf(HCRYPTPROV provider, const std::string& text) {
    HCRYPTHASH hash = 0;
    check(CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash), "CryptCreateHash");
    check(CryptHashData(hash, reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()), 0),
          "CryptHashData");
    return hash;
}

Bytes sign(HCRYPTPROV provider, const std::string& text) {
    HCRYPTHASH hash = hashOf(provider, text);
    DWORD length = 0;
    check(CryptSignHash(hash, AT_KEYEXCHANGE, nullptr, 0, nullptr, &length), "CryptSignHash, size");
    Bytes signature(length);
    check(CryptSignHash(hash, AT_KEYEXCHANGE, nullptr, 0, signature.data(), &length), "CryptSignHash");
    signature.resize(length);
    CryptDestroyHash(hash);
    return signature; // little-endian; everybody else wants std::reverse of it
}

bool verify(HCRYPTPROV provider, HCRYPTKEY key, const std::string& text, const Bytes& signature) {
    HCRYPTHASH hash = hashOf(provider, text);
    const BOOL verified =
        CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
    if (!verified && GetLastError() != static_cast<DWORD>(NTE_BAD_SIGNATURE))
        check(FALSE, "CryptVerifySignature");
    CryptDestroyHash(hash);
    return verified != FALSE;
}

Bytes encrypt(HCRYPTKEY key, const Bytes& plaintext) {
    DWORD length = 0;
    check(CryptEncrypt(key, 0, TRUE, CRYPT_OAEP, nullptr, &length, 0), "CryptEncrypt, size");
    Bytes buffer(length);
    std::copy(plaintext.begin(), plaintext.end(), buffer.begin());
    length = static_cast<DWORD>(plaintext.size());
    check(CryptEncrypt(key, 0, TRUE, CRYPT_OAEP, buffer.data(), &length, static_cast<DWORD>(buffer.size())),
          "CryptEncrypt");
    buffer.resize(length);
    return buffer;
}

Bytes decrypt(HCRYPTKEY key, Bytes buffer) {
    auto length = static_cast<DWORD>(buffer.size());
    check(CryptDecrypt(key, 0, TRUE, CRYPT_OAEP, buffer.data(), &length), "CryptDecrypt");
    buffer.resize(length);
    return buffer;
}

Bytes selfSignedCertificate(HCRYPTPROV provider) {
    BYTE subject[64];
    CERT_NAME_BLOB name = {sizeof(subject), subject};
    check(CertStrToNameA(X509_ASN_ENCODING, "CN=Jo Example", CERT_X500_NAME_STR, nullptr, subject,
                         &name.cbData, nullptr),
          "CertStrToName");
    char sha256WithRsa[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm = {sha256WithRsa, {0, nullptr}};
    const CERT_CONTEXT* certificate = CertCreateSelfSignCertificate(
        provider, &name, CERT_CREATE_SELFSIGN_NO_KEY_INFO, nullptr, &algorithm, nullptr, nullptr, nullptr);
    check(certificate != nullptr, "CertCreateSelfSignCertificate");
    Bytes der(certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded);
    CertFreeCertificateContext(certificate);
    return der;
}

void storeCertificate(HCRYPTKEY key, const Bytes& der) {
    check(CryptSetKeyParam(key, KP_CERTIFICATE, der.data(), 0), "CryptSetKeyParam");
}

Bytes certificateOf(HCRYPTKEY key) {
    DWORD length = 0;
    check(CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &length, 0), "CryptGetKeyParam, size");
    Bytes der(length);
    check(CryptGetKeyParam(key, KP_CERTIFICATE, der.data(), &length, 0), "CryptGetKeyParam");
    return der;
}

void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
}

} // namespace

int main(int count, char** arguments) try {
    require(count == 3, "cryptoapi CONTAINER PIN");
    const char* container = arguments[1]; // a new one
    HCRYPTPROV provider = open(container, 0);
    givePin(provider, arguments[2]);
    CryptDestroyKey(generate(provider));
    CryptReleaseContext(provider, 0);

    provider = open(container, CRYPT_SILENT); // the process has the PIN
    HCRYPTKEY key = keyOf(provider);
    const Bytes signature = sign(provider, "a contract");
    require(verify(provider, key, "a contract", signature), "the signature does not verify");
    require(!verify(provider, key, "another contract", signature), "a signature verifies for another text");
    const Bytes secret = {1, 2, 3};
    require(decrypt(key, encrypt(key, secret)) == secret, "decryption gives something else");
    const Bytes certificate = selfSignedCertificate(provider);
    storeCertificate(key, certificate);
    require(certificateOf(key) == certificate, "the token has another certificate");
    require(!listContainers(provider).empty(), "no containers");
    CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    open(container, CRYPT_DELETEKEYSET | CRYPT_SILENT);
    std::puts("CryptoAPI: all right");
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "cryptoapi: %s\n", failure.what());
    return 1;
}
