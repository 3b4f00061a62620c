// What applications do with the provider, habits that are not in its documentation included. They know its
// name and nothing else of it: every call goes through the system's CryptoAPI, or through the NCrypt
// functions as the system's router offers them. client.sh sets up the token and what else they need.

#include "dialog/window_driver.h"
#include "support/googletest.h"

#include "crypto_provider.h"
#include "error_text.h"
#include "foundation/cng.h"
#include "wide_text.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>

namespace veltra::test {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr auto kSilentContext = static_cast<DWORD>(NTE_SILENT_CONTEXT);
constexpr unsigned char kFill = 0xEE; ///< what a buffer holds before

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

// Files in the current folder, which is the script's.
Bytes readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& name, const Bytes& bytes) {
    std::ofstream file(name, std::ios::binary);
    std::ranges::copy(bytes, std::ostreambuf_iterator<char>(file));
}

/// TRUE or FALSE of a call as the error that an application sees: 0 for TRUE alone, otherwise the last error,
/// which the call must have set.
DWORD errorOf(const std::function<BOOL()>& call) {
    SetLastError(0x20000001); // a code that no system function sets
    return call() ? ERROR_SUCCESS : GetLastError();
}

/// The container with the token's key.
CryptoProvider open(bool silent = false) {
    ProviderChoice choice;
    choice.silent = silent;
    return CryptoProvider::open(choice, toWide(std::getenv("VELTRA_CLIENT_CONTAINER")));
}

CryptoKey exchangeKey(const CryptoProvider& context) {
    HCRYPTKEY key = 0;
    require(CryptGetUserKey(context.handle(), AT_KEYEXCHANGE, &key), "opening the key");
    return CryptoKey(key);
}

CryptoKey importKey(const CryptoProvider& context, const Bytes& blob, HCRYPTKEY decryptionKey = 0) {
    HCRYPTKEY key = 0;
    require(CryptImportKey(context.handle(), blob.data(), lengthOf(blob), decryptionKey, 0, &key),
            "importing a key");
    return CryptoKey(key);
}

Bytes encrypt(const CryptoKey& key, const Bytes& plaintext) {
    Bytes buffer = plaintext;
    buffer.resize(plaintext.size() + 256);
    DWORD length = lengthOf(plaintext);
    require(CryptEncrypt(key.get(), 0, TRUE, 0, buffer.data(), &length, lengthOf(buffer)), "encrypting");
    buffer.resize(length);
    return buffer;
}

CryptoHash hashed(const CryptoProvider& context, const HashAlgorithm& algorithm, const Bytes& data) {
    CryptoHash hash = context.createHash(algorithm);
    hashPiece(hash, data);
    return hash;
}

/// What `call(BYTE* buffer, DWORD* length)` answers for a buffer of exactly `capacity` bytes, whose size
/// nobody asked for.
template <class Call>
auto intoExactly(DWORD capacity, Bytes& buffer, Call call) {
    buffer.assign(capacity + 1, kFill);
    DWORD length = capacity;
    const auto result = call(buffer.data(), &length);
    EXPECT_EQ(buffer.back(), kFill) << "the byte behind the buffer";
    buffer.pop_back();
    return result;
}

DWORD sign(const CryptoHash& hash, Bytes& signature, DWORD capacity = 256) {
    return intoExactly(capacity, signature, [&](BYTE* buffer, DWORD* length) {
        return errorOf([&] { return CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, buffer, length); });
    });
}

class ClientTest : public testing::Test {
protected:
    ClientTest() {
        const std::wstring name = toWide(std::getenv("VELTRA_CLIENT_KEY"));
        EXPECT_EQ(NCryptOpenStorageProvider(&cngProvider, L"Veltra Cryptographic Provider CSP", 0), kSuccess);
        EXPECT_EQ(NCryptOpenKey(cngProvider, &cngKey, name.c_str(), 0, 0), kSuccess);
    }
    ~ClientTest() override {
        EXPECT_EQ(NCryptFreeObject(cngKey), kSuccess);
        EXPECT_EQ(NCryptFreeObject(cngProvider), kSuccess);
    }

    SECURITY_STATUS signByCng(void* padding, Bytes hash, DWORD flags, Bytes& signature,
                              DWORD capacity = 256) const {
        return intoExactly(capacity, signature, [&](BYTE* buffer, DWORD* length) {
            return NCryptSignHash(cngKey, padding, hash.data(), lengthOf(hash), buffer, capacity, length,
                                  flags);
        });
    }

    /// A session key as an application sends it: the system's provider encrypts the bytes for the token.
    [[nodiscard]] CryptoKey sessionKey(const Bytes& bytes) const {
        const CryptoProvider system = CryptoProvider::openSystem();
        const Bytes publicBlob = askTwice([&](BYTE* blob, DWORD* length) {
            require(CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, blob, length), "exporting a key");
        });
        const Bytes encrypted = encrypt(importKey(system, publicBlob), bytes);
        Bytes blob = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0};
        blob.insert(blob.end(), encrypted.begin(), encrypted.end());
        return importKey(context, blob, key.get());
    }

    /// What the session key makes of the secret, for OpenSSL.
    void leaveToOpenSsl(const std::string& name, const CryptoKey& sessionKey) const {
        Bytes text = encrypt(sessionKey, secret);
        writeFile(name + ".ours", text);
        DWORD length = lengthOf(text);
        EXPECT_TRUE(CryptDecrypt(sessionKey.get(), 0, TRUE, 0, text.data(), &length)) << name;
        text.resize(length);
        EXPECT_EQ(text, secret) << name;
    }

    const Bytes secret = readFile("secret");
    const CryptoProvider context = open();
    const CryptoKey key = exchangeKey(context);
    NCRYPT_PROV_HANDLE cngProvider = 0;
    NCRYPT_KEY_HANDLE cngKey = 0;
};

// Nobody has given the PIN to this process, and the token has no session: the script starts this one by
// itself.
TEST_F(ClientTest, SizeQueriesNeedNoPinWhichIsTypedOnceAndThenSilentCallsWork) {
    const HashAlgorithm& sha256 = *findHashAlgorithm("sha256");
    const CryptoHash hash = hashed(context, sha256, secret);
    DWORD size = 0;
    for (const DWORD keySpec : {AT_SIGNATURE, AT_KEYEXCHANGE}) {
        EXPECT_TRUE(CryptSignHashA(hash.get(), keySpec, nullptr, 0, nullptr, &size)) << GetLastError();
        EXPECT_EQ(size, 256u);
    }
    EXPECT_EQ(NCryptSignHash(cngKey, nullptr, nullptr, 0, nullptr, 0, &size, 0), kSuccess);
    EXPECT_EQ(size, 256u);
    // Everything that uses the private key is refused to a silent context, and nothing is written.
    const CryptoProvider silent = open(true);
    const CryptoKey silentKey = exchangeKey(silent);
    const CryptoHash silentHash = hashed(silent, sha256, secret);
    const auto signSilentlyByCng = [&] {
        Bytes signature;
        return signByCng(nullptr, Bytes(32), kPadPkcs1Flag | NCRYPT_SILENT_FLAG, signature);
    };
    Bytes output;
    EXPECT_EQ(sign(silentHash, output), kSilentContext);
    DWORD length = 256;
    EXPECT_EQ(
        errorOf([&] { return CryptDecrypt(silentKey.get(), 0, TRUE, CRYPT_OAEP, output.data(), &length); }),
        kSilentContext);
    EXPECT_EQ(output, Bytes(256, kFill));
    HCRYPTKEY generated = 0;
    EXPECT_EQ(errorOf([&] { return CryptGenKey(silent.handle(), AT_SIGNATURE, 2048u << 16, &generated); }),
              kSilentContext);
    EXPECT_EQ(signSilentlyByCng(), NTE_SILENT_CONTEXT);

    auto typing = std::async(std::launch::async, [] { enterPin(std::getenv("VELTRA_CLIENT_PIN")); });
    EXPECT_EQ(sign(hash, output), ERROR_SUCCESS);
    typing.get();
    EXPECT_EQ(sign(silentHash, output), ERROR_SUCCESS);
    EXPECT_EQ(signSilentlyByCng(), kSuccess) << "a process has one state for each token";
}

TEST_F(ClientTest, SignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    for (const HashAlgorithm& algorithm : hashAlgorithms()) {
        SCOPED_TRACE(algorithm.name);
        const CryptoHash hash = hashed(context, algorithm, secret);
        Bytes signature;
        EXPECT_EQ(sign(hash, signature, 255), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
        EXPECT_EQ(sign(hash, signature), ERROR_SUCCESS);

        const CryptoHash empty = context.createHash(algorithm);
        EXPECT_TRUE(CryptSetHashParam(empty.get(), HP_HASHVAL, hashValue(hash).data(), 0));
        Bytes again;
        EXPECT_EQ(sign(empty, again), ERROR_SUCCESS);
        EXPECT_EQ(again, signature) << "a value set on a hash";
        std::ranges::reverse(signature);
        writeFile(std::string(algorithm.name) + ".sig", signature); // for OpenSSL
    }
}

TEST_F(ClientTest, CngSignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    BCRYPT_PKCS1_PADDING_INFO noAlgorithm{nullptr};
    BCRYPT_PSS_PADDING_INFO pss{BCRYPT_SHA256_ALGORITHM, 32};
    const std::tuple<const char*, void*, std::size_t, DWORD> kRows[] = {
        {"PSS", &pss, 32, kPadPssFlag},
        {"PKCS#1, silent", &pkcs1, 32, kPadPkcs1Flag | NCRYPT_SILENT_FLAG},
        {"no padding information", nullptr, 32, kPadPkcs1Flag},
        {"no flag", nullptr, 32, 0},
        // What TLS before version 1.2 signs: both digests, and no name of an algorithm.
        {"MD5 and SHA-1", &noAlgorithm, 36, kPadPkcs1Flag},
    };
    for (const auto& [name, padding, hashLength, flags] : kRows) {
        SCOPED_TRACE(name);
        Bytes hash(hashLength, 0x5A);
        Bytes signature;
        EXPECT_EQ(signByCng(padding, hash, flags, signature, 255), NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(signByCng(padding, hash, flags, signature), kSuccess);
        if (hashLength == 36) writeFile("bare.sig", signature); // for OpenSSL
        for (const SECURITY_STATUS expected : {kSuccess, NTE_BAD_SIGNATURE}) {
            EXPECT_EQ(NCryptVerifySignature(cngKey, padding, hash.data(), lengthOf(hash), signature.data(),
                                            256, flags),
                      expected);
            hash.back() ^= 1;
        }
    }
}

TEST_F(ClientTest, DerivedKeysInBothModes) {
    constexpr std::pair<const char*, ALG_ID> kKeys[] = {
        {"128", CALG_AES_128}, {"192", CALG_AES_192}, {"256", CALG_AES_256}};
    constexpr std::pair<const char*, DWORD> kModes[] = {{"cbc", CRYPT_MODE_CBC}, {"ecb", CRYPT_MODE_ECB}};
    for (const HashAlgorithm& digest : hashAlgorithms()) {
        const CryptoHash hash = hashed(context, digest, readFile("passphrase"));
        for (const auto& [bits, algorithm] : kKeys) {
            HCRYPTKEY derived = 0;
            ASSERT_TRUE(CryptDeriveKey(context.handle(), algorithm, hash.get(), 0, &derived))
                << GetLastError();
            const CryptoKey sessionKey(derived);
            for (const auto& [name, mode] : kModes) {
                EXPECT_TRUE(CryptSetKeyParam(derived, KP_MODE, reinterpret_cast<const BYTE*>(&mode), 0));
                leaveToOpenSsl("derived-" + std::string(digest.name) + "-" + bits + "-" + name, sessionKey);
            }
        }
    }
}

// The IV is one for the whole process and can be set through keys of these lengths only.
TEST_F(ClientTest, SessionKeysWithAnIv) {
    const Bytes iv = readFile("aes.iv");
    for (const std::size_t length : {24, 32}) {
        Bytes bytes = readFile("aes.key");
        bytes.resize(length);
        const CryptoKey session = sessionKey(bytes);
        ASSERT_TRUE(CryptSetKeyParam(session.get(), KP_IV, iv.data(), 0));
        leaveToOpenSsl("session-" + std::to_string(8 * length) + "-cbc", session);
        ASSERT_TRUE(CryptSetKeyParam(session.get(), KP_IV, Bytes(iv.size()).data(), 0));
    }
}

TEST_F(ClientTest, Hmac) {
    const CryptoKey macKey = sessionKey(readFile("aes.key"));
    for (const HashAlgorithm& algorithm : hashAlgorithms()) {
        HCRYPTHASH handle = 0;
        const HMAC_INFO info{algorithm.id, nullptr, 0, nullptr, 0};
        require(CryptCreateHash(context.handle(), CALG_HMAC, macKey.get(), 0, &handle), "creating an HMAC");
        const CryptoHash hash(handle);
        EXPECT_TRUE(CryptSetHashParam(handle, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
        hashPiece(hash, secret);
        writeFile(std::string(algorithm.name) + ".hmac", hashValue(hash)); // for OpenSSL
    }
}

} // namespace
} // namespace veltra::test
