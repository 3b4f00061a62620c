// cng PIN: what an application does with a token through CNG, from the keys to their deletion. The pieces of
// docs/application-guide.md are from here; the test e2e_examples runs it.

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

constexpr const wchar_t* kProvider = L"Veltra Cryptographic Provider CSP";

void check(SECURITY_STATUS status, const char* what) {
    if (status == ERROR_SUCCESS) return;
    char text[96];
    std::snprintf(text, sizeof(text), "%s: 0x%08lX", what, static_cast<unsigned long>(status));
    throw std::runtime_error(text);
}

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

NCRYPT_PROV_HANDLE open() {
    NCRYPT_PROV_HANDLE provider = 0;
    check(NCryptOpenStorageProvider(&provider, kProvider, 0), "NCryptOpenStorageProvider");
    return provider;
}

void givePin(NCRYPT_PROV_HANDLE provider, std::string pin) {
    // 8-bit text, unlike every other text of CNG
    check(NCryptSetProperty(provider, L"SmartCardPin", reinterpret_cast<BYTE*>(pin.data()),
                            static_cast<DWORD>(pin.size() + 1), 0),
          "PIN");
}

std::vector<std::wstring> listKeys(NCRYPT_PROV_HANDLE provider) {
    std::vector<std::wstring> names;
    NCryptKeyName* name = nullptr;
    void* cursor = nullptr;
    while (NCryptEnumKeys(provider, nullptr, &name, &cursor, 0) == ERROR_SUCCESS) {
        names.emplace_back(name->pszName);
        NCryptFreeBuffer(name);
    }
    NCryptFreeBuffer(cursor);
    return names;
}

NCRYPT_KEY_HANDLE generate(NCRYPT_PROV_HANDLE provider, const wchar_t* algorithm) {
    NCRYPT_KEY_HANDLE key = 0;
    check(NCryptCreatePersistedKey(provider, &key, algorithm, L"unused", 0, 0), "NCryptCreatePersistedKey");
    DWORD usage = NCRYPT_ALLOW_SIGNING_FLAG | NCRYPT_ALLOW_DECRYPT_FLAG; // an RSA key signs alone otherwise
    if (std::wstring(algorithm) == L"RSA")
        check(NCryptSetProperty(key, L"Key Usage", reinterpret_cast<BYTE*>(&usage), sizeof(usage), 0),
              "usage");
    check(NCryptFinalizeKey(key, 0), "NCryptFinalizeKey");
    return key;
}

std::wstring nameOf(NCRYPT_KEY_HANDLE key) {
    wchar_t name[64];
    DWORD length = 0;
    check(NCryptGetProperty(key, L"Name", reinterpret_cast<BYTE*>(name), sizeof(name), &length, 0), "name");
    return name; // the identifier, whatever NCryptCreatePersistedKey was given
}

Bytes sha256(const std::string& text) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    Bytes digest(32);
    std::string copy = text;
    check(BCryptOpenAlgorithmProvider(&algorithm, L"SHA256", nullptr, 0), "SHA256");
    check(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0), "BCryptCreateHash");
    check(BCryptHashData(hash, reinterpret_cast<BYTE*>(copy.data()), static_cast<DWORD>(copy.size()), 0),
          "BCryptHashData");
    check(BCryptFinishHash(hash, digest.data(), lengthOf(digest), 0), "BCryptFinishHash");
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return digest;
}

Bytes sign(NCRYPT_KEY_HANDLE key, Bytes hash) {
    BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"};
    DWORD length = 0;
    check(NCryptSignHash(key, &padding, hash.data(), lengthOf(hash), nullptr, 0, &length, BCRYPT_PAD_PKCS1),
          "NCryptSignHash, size");
    Bytes signature(length);
    check(NCryptSignHash(key, &padding, hash.data(), lengthOf(hash), signature.data(), length, &length,
                         BCRYPT_PAD_PKCS1),
          "NCryptSignHash");
    signature.resize(length);
    return signature;
}

bool verify(NCRYPT_KEY_HANDLE key, Bytes hash, Bytes signature) {
    BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"};
    const SECURITY_STATUS status = NCryptVerifySignature(
        key, &padding, hash.data(), lengthOf(hash), signature.data(), lengthOf(signature), BCRYPT_PAD_PKCS1);
    if (status != NTE_BAD_SIGNATURE) check(status, "NCryptVerifySignature");
    return status == ERROR_SUCCESS;
}

Bytes encrypt(NCRYPT_KEY_HANDLE key, Bytes plaintext) {
    BCRYPT_OAEP_PADDING_INFO padding = {L"SHA256", nullptr, 0};
    DWORD length = 0;
    check(NCryptEncrypt(key, plaintext.data(), lengthOf(plaintext), &padding, nullptr, 0, &length,
                        BCRYPT_PAD_OAEP),
          "NCryptEncrypt, size");
    Bytes ciphertext(length);
    check(NCryptEncrypt(key, plaintext.data(), lengthOf(plaintext), &padding, ciphertext.data(), length,
                        &length, BCRYPT_PAD_OAEP),
          "NCryptEncrypt");
    return ciphertext;
}

Bytes decrypt(NCRYPT_KEY_HANDLE key, Bytes ciphertext) {
    BCRYPT_OAEP_PADDING_INFO padding = {L"SHA256", nullptr, 0};
    Bytes plaintext(ciphertext.size());
    DWORD length = 0;
    check(NCryptDecrypt(key, ciphertext.data(), lengthOf(ciphertext), &padding, plaintext.data(),
                        lengthOf(plaintext), &length, BCRYPT_PAD_OAEP),
          "NCryptDecrypt");
    plaintext.resize(length);
    return plaintext;
}

Bytes exportPublicKey(NCRYPT_KEY_HANDLE key, const wchar_t* type) {
    DWORD length = 0;
    check(NCryptExportKey(key, 0, type, nullptr, nullptr, 0, &length, 0), "NCryptExportKey, size");
    Bytes blob(length);
    check(NCryptExportKey(key, 0, type, nullptr, blob.data(), length, &length, 0), "NCryptExportKey");
    return blob;
}

Bytes agree(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE ownKey, Bytes peerBlob) {
    NCRYPT_KEY_HANDLE peer = 0;
    check(NCryptImportKey(provider, 0, L"ECCPUBLICBLOB", nullptr, &peer, peerBlob.data(), lengthOf(peerBlob),
                          0),
          "NCryptImportKey");
    NCRYPT_SECRET_HANDLE secret = 0;
    check(NCryptSecretAgreement(ownKey, peer, &secret, 0), "NCryptSecretAgreement");
    wchar_t hash[] = L"SHA256";
    NCryptBuffer buffer = {sizeof(hash), KDF_HASH_ALGORITHM, hash};
    NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, 1, &buffer};
    Bytes key(32);
    DWORD length = 0;
    check(NCryptDeriveKey(secret, L"HASH", &parameters, key.data(), lengthOf(key), &length, 0),
          "NCryptDeriveKey");
    NCryptFreeObject(secret);
    NCryptFreeObject(peer);
    return key;
}

void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(what);
}

} // namespace

int main(int count, char** arguments) try {
    require(count == 2, "cng PIN");
    const NCRYPT_PROV_HANDLE provider = open();
    givePin(provider, arguments[1]);

    NCRYPT_KEY_HANDLE key = generate(provider, L"RSA");
    const std::wstring name = nameOf(key);
    require(std::ranges::count(listKeys(provider), name) == 1, "the new key is not listed");
    const Bytes signature = sign(key, sha256("a contract"));
    require(verify(key, sha256("a contract"), signature), "the signature does not verify");
    require(!verify(key, sha256("another contract"), signature), "a signature verifies for another text");
    const Bytes secret = {1, 2, 3};
    require(decrypt(key, encrypt(key, secret)) == secret, "decryption gives something else");
    check(NCryptDeleteKey(key, 0), "NCryptDeleteKey");

    NCRYPT_KEY_HANDLE first = generate(provider, L"ECDH_P256");
    NCRYPT_KEY_HANDLE second = generate(provider, L"ECDH_P256");
    require(agree(provider, first, exportPublicKey(second, L"ECCPUBLICBLOB")) ==
                agree(provider, second, exportPublicKey(first, L"ECCPUBLICBLOB")),
            "the two sides agree on different keys");
    check(NCryptDeleteKey(first, 0), "NCryptDeleteKey");
    check(NCryptDeleteKey(second, 0), "NCryptDeleteKey");
    NCryptFreeObject(provider);
    std::puts("CNG: all right");
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "cng: %s\n", failure.what());
    return 1;
}
