#include "paths.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace veltra::bench {

namespace {

constexpr DWORD kDataLength = 32;
constexpr DWORD kBlockLength = 256; // of RSA-2048

/// The buffers of one call; what is in them does not matter to the stand-in.
struct Buffers {
    std::array<BYTE, kBlockLength> in{};
    std::array<BYTE, kBlockLength> out{};
    DWORD length = 0;
};

VeltraKeyPair keyPair(unsigned char idByte, std::uint32_t type, std::uint32_t usage, DWORD publicKeyLength) {
    VeltraKeyPair pair{};
    std::ranges::fill(pair.keyId, idByte);
    std::fill_n(pair.publicKey, publicKeyLength, static_cast<unsigned char>(0xC3));
    if (type == kKeyTypeEcP256) pair.publicKey[0] = 4; // an uncompressed point
    pair.publicKeyLength = publicKeyLength;
    pair.usage = usage;
    pair.keyType = type;
    return pair;
}

NCRYPT_KEY_HANDLE importAesKey(NCRYPT_PROV_HANDLE cngProvider) {
    struct {
        BCRYPT_KEY_DATA_BLOB_HEADER header{BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, 32};
        std::array<BYTE, 32> key{};
    } blob;
    NCRYPT_KEY_HANDLE key = 0;
    requireStatus(ksp().ImportKey(cngProvider, 0, L"KeyDataBlob", nullptr, &key,
                                  reinterpret_cast<BYTE*>(&blob), sizeof(blob), 0),
                  "KSPImportKey");
    return key;
}

Operation encryptPath(const Application& it, HCRYPTKEY key, DWORD flags) {
    return [&it, key, flags] {
        Buffers buffers{.length = kDataLength};
        require(CPEncrypt(it.context, key, 0, TRUE, flags, buffers.in.data(), &buffers.length, kBlockLength),
                "CPEncrypt");
    };
}

Operation decryptPath(const Application& it, HCRYPTKEY key, DWORD flags, DWORD length) {
    return [&it, key, flags, length] {
        Buffers buffers{.length = length};
        require(CPDecrypt(it.context, key, 0, TRUE, flags, buffers.in.data(), &buffers.length), "CPDecrypt");
    };
}

/// KSPEncrypt or KSPDecrypt.
Operation cngCipherPath(const Application& it, decltype(&KSPEncrypt) cipher, NCRYPT_KEY_HANDLE key,
                        DWORD length, DWORD flags) {
    return [&it, cipher, key, length, flags] {
        Buffers buffers;
        requireStatus(cipher(it.cngProvider, key, buffers.in.data(), length, nullptr, buffers.out.data(),
                             kBlockLength, &buffers.length, flags),
                      "KSPEncrypt or KSPDecrypt");
    };
}

Operation verifyPath(const Application& it) {
    return [&it] {
        const Buffers buffers;
        const HCRYPTHASH hash = it.newHash();
        require(CPVerifySignature(it.context, hash, buffers.in.data(), kBlockLength, it.key, nullptr, 0),
                "CPVerifySignature");
        CPDestroyHash(it.context, hash);
    };
}

Operation cngVerifyPath(const Application& it) {
    return [&it] {
        Buffers buffers;
        requireStatus(ksp().VerifySignature(it.cngProvider, it.cngKey, nullptr, buffers.in.data(),
                                            kDataLength, buffers.out.data(), kBlockLength, kPadPkcs1Flag),
                      "KSPVerifySignature");
    };
}

Operation agreePath(const Application& it) {
    return [&it] {
        NCRYPT_SECRET_HANDLE secret = 0;
        requireStatus(ksp().SecretAgreement(it.cngProvider, it.cngEcKey, it.cngEcKey, &secret, 0),
                      "KSPSecretAgreement");
        requireStatus(ksp().FreeSecret(it.cngProvider, secret), "KSPFreeSecret");
    };
}

} // namespace

TokenKeys::TokenKeys(std::size_t count) {
    pairs_.push_back(keyPair(kEcKeyByte, kKeyTypeEcP256, kUsageEncrypt, 65));
    for (std::size_t i = 1; i < count; ++i) {
        VeltraKeyPair& pair = pairs_.emplace_back(keyPair(0, kKeyTypeRsa2048, kUsageBoth, kBlockLength));
        std::memcpy(pair.keyId, &i, sizeof(i));
    }
    pairs_.push_back(keyPair(kRsaKeyByte, kKeyTypeRsa2048, kUsageBoth, kBlockLength));
    use();
}

HCRYPTPROV acquireContext(DWORD flags) {
    HCRYPTPROV context = 0;
    int table = 0; // must be there, and nobody reads it
    require(CPAcquireContext(&context, flags == 0 ? kContainerName : nullptr, flags,
                             reinterpret_cast<VTableProvStruc*>(&table)),
            "CPAcquireContext");
    return context;
}

void releaseContext(HCRYPTPROV context) {
    require(CPReleaseContext(context, 0), "CPReleaseContext");
}

NCRYPT_KEY_HANDLE openCngKey(NCRYPT_PROV_HANDLE cngProvider, const wchar_t* name) {
    NCRYPT_KEY_HANDLE key = 0;
    requireStatus(ksp().OpenKey(cngProvider, &key, name, 0, 0), "KSPOpenKey");
    return key;
}

Application::Application() : context(acquireContext()) {
    const std::array<BYTE, 5> pin = {'1', '2', '3', '4', 0};
    require(CPSetProvParam(context, PP_SIGNATURE_PIN, pin.data(), 0), "CPSetProvParam");
    require(CPGetUserKey(context, AT_KEYEXCHANGE, &key), "CPGetUserKey");
    const HCRYPTHASH hash = newHash();
    require(CPDeriveKey(context, CALG_AES_256, hash, 0, &aesKey), "CPDeriveKey");
    CPDestroyHash(context, hash);
    requireStatus(ksp().OpenProvider(&cngProvider, L"", 0), "KSPOpenProvider");
    cngKey = openCngKey(cngProvider);
    cngEcKey = openCngKey(cngProvider, kEcKeyName);
    cngAesKey = importAesKey(cngProvider);
}

Application::~Application() {
    CPDestroyKey(context, key);
    CPDestroyKey(context, aesKey);
    CPReleaseContext(context, 0);
    for (const NCRYPT_KEY_HANDLE opened : {cngKey, cngEcKey, cngAesKey})
        ksp().FreeKey(cngProvider, opened);
    ksp().FreeProvider(cngProvider);
}

HCRYPTHASH Application::newHash() const {
    const std::array<BYTE, kDataLength> data{};
    HCRYPTHASH hash = 0;
    require(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
    require(CPHashData(context, hash, data.data(), kDataLength, 0), "CPHashData");
    return hash;
}

Operation signPath(const Application& it) {
    return [&it] {
        Buffers buffers{.length = kBlockLength};
        const HCRYPTHASH hash = it.newHash();
        require(CPSignHash(it.context, hash, AT_SIGNATURE, nullptr, 0, buffers.out.data(), &buffers.length),
                "CPSignHash");
        CPDestroyHash(it.context, hash);
    };
}

Operation cngSignPath(const Application& it) {
    return [&it] {
        Buffers buffers;
        requireStatus(ksp().SignHash(it.cngProvider, it.cngKey, nullptr, buffers.in.data(), kDataLength,
                                     buffers.out.data(), kBlockLength, &buffers.length, kPadPkcs1Flag),
                      "KSPSignHash");
    };
}

std::vector<Path> pathsOf(const Application& it) {
    const auto encrypt = ksp().Encrypt;
    const auto decrypt = ksp().Decrypt;
    return {
        {"CryptoAPI: hash and sign", signPath(it)},
        {"CryptoAPI: hash and verify", verifyPath(it)},
        {"CryptoAPI: encrypt, RSA", encryptPath(it, it.key, CRYPT_OAEP)},
        {"CryptoAPI: decrypt, RSA", decryptPath(it, it.key, CRYPT_OAEP, kBlockLength)},
        {"CryptoAPI: encrypt, AES", encryptPath(it, it.aesKey, 0)},
        {"CryptoAPI: decrypt, AES", decryptPath(it, it.aesKey, 0, kDataLength)},
        {"CNG: sign", cngSignPath(it)},
        {"CNG: verify", cngVerifyPath(it)},
        {"CNG: encrypt, RSA", cngCipherPath(it, encrypt, it.cngKey, kDataLength, kPadOaepFlag)},
        {"CNG: decrypt, RSA", cngCipherPath(it, decrypt, it.cngKey, kBlockLength, kPadOaepFlag)},
        {"CNG: encrypt, AES", cngCipherPath(it, encrypt, it.cngAesKey, kDataLength, 0)},
        {"CNG: decrypt, AES", cngCipherPath(it, decrypt, it.cngAesKey, kDataLength, 0)},
        {"CNG: agree", agreePath(it)},
    };
}

std::vector<Path> openingPathsOf(const Application& it) {
    static void* cursor = nullptr;
    const auto nextCngKey = [&it] {
        NCryptKeyName* name = nullptr;
        requireStatus(ksp().EnumKeys(it.cngProvider, nullptr, &name, &cursor, 0), "KSPEnumKeys");
        ksp().FreeBuffer(name);
    };
    const auto nextContainer = [&it] {
        Buffers buffers{.length = kBlockLength};
        require(
            CPGetProvParam(it.context, PP_ENUMCONTAINERS, buffers.out.data(), &buffers.length, CRYPT_FIRST),
            "PP_ENUMCONTAINERS");
    };
    return {
        {"CryptoAPI: acquire and release, verification only",
         [] { releaseContext(acquireContext(CRYPT_VERIFYCONTEXT)); }},
        {"CryptoAPI: acquire and release, container", [] { releaseContext(acquireContext()); }},
        {"CryptoAPI: next container", nextContainer},
        {"CNG: first key and release of its name", nextCngKey},
        {"CNG: next key and release of its name", nextCngKey},
        {"CNG: release of the cursor", [] { ksp().FreeBuffer(cursor); }},
    };
}

std::size_t enumerateContainers(HCRYPTPROV context) {
    Buffers buffers{.length = kBlockLength};
    std::size_t count = 0;
    for (DWORD flags = CRYPT_FIRST;
         CPGetProvParam(context, PP_ENUMCONTAINERS, buffers.out.data(), &buffers.length, flags);
         flags = CRYPT_NEXT) {
        buffers.length = kBlockLength;
        ++count;
    }
    require(GetLastError() == ERROR_NO_MORE_ITEMS, "PP_ENUMCONTAINERS");
    return count;
}

std::size_t enumerateCngKeys(NCRYPT_PROV_HANDLE cngProvider) {
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    std::size_t count = 0;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while ((status = ksp().EnumKeys(cngProvider, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
        requireStatus(ksp().FreeBuffer(name), "KSPFreeBuffer");
        ++count;
    }
    require(status == NTE_NO_MORE_ITEMS, "KSPEnumKeys");
    requireStatus(ksp().FreeBuffer(state), "KSPFreeBuffer");
    return count;
}

} // namespace veltra::bench
