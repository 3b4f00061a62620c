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

struct CngObjectFreer {
    void operator()(NCRYPT_HANDLE handle) const { NCryptFreeObject(handle); }
};
using CngHandle = CryptoHandle<CngObjectFreer>; ///< of any object of the NCrypt functions

constexpr auto kSilentContext = static_cast<DWORD>(NTE_SILENT_CONTEXT);
constexpr unsigned char kFill = 0xEE; ///< what a buffer holds before
const HashAlgorithm& kSha256 = *findHashAlgorithm("sha256");

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string fromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value != nullptr ? value : "";
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
    EXPECT_TRUE(file.flush()) << name;
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
    return CryptoProvider::open(choice, toWide(fromEnvironment("VELTRA_CLIENT_CONTAINER")));
}

CryptoKey exchangeKey(const CryptoProvider& context) {
    HCRYPTKEY key = 0;
    require(CryptGetUserKey(context.handle(), AT_KEYEXCHANGE, &key), "opening the key");
    return CryptoKey(key);
}

Bytes publicBlob(const CryptoKey& key) {
    return askTwice([&](BYTE* blob, DWORD* length) {
        require(CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, blob, length), "exporting a key");
    });
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

Bytes decrypt(const CryptoKey& key, Bytes ciphertext) {
    DWORD length = lengthOf(ciphertext);
    require(CryptDecrypt(key.get(), 0, TRUE, 0, ciphertext.data(), &length), "decrypting");
    ciphertext.resize(length);
    return ciphertext;
}

CryptoHash hashed(const CryptoProvider& context, const HashAlgorithm& algorithm, const Bytes& data) {
    CryptoHash hash = context.createHash(algorithm);
    hashPiece(hash, data);
    return hash;
}

/// The digest of the data, made by the system's own provider.
Bytes digest(const HashAlgorithm& algorithm, const Bytes& data) {
    return hashValue(hashed(CryptoProvider::openSystem(), algorithm, data));
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

DWORD sign(const CryptoHash& hash, DWORD keySpec, Bytes& signature, DWORD capacity = 256) {
    return intoExactly(capacity, signature, [&](BYTE* buffer, DWORD* length) {
        return errorOf([&] { return CryptSignHashA(hash.get(), keySpec, nullptr, 0, buffer, length); });
    });
}

DWORD sign(const CryptoProvider& context) {
    Bytes signature;
    return sign(hashed(context, kSha256, {1}), AT_SIGNATURE, signature);
}

SECURITY_STATUS sign(const CngHandle& key, void* padding, Bytes hash, Bytes& signature, DWORD capacity,
                     DWORD flags) {
    return intoExactly(capacity, signature, [&](BYTE* buffer, DWORD* length) {
        return NCryptSignHash(key.get(), padding, hash.data(), lengthOf(hash), buffer, capacity, length,
                              flags);
    });
}

/// Whether the system's own provider, which shares no code with ours, accepts the signature.
bool systemVerifies(const Bytes& publicKey, const HashAlgorithm& algorithm, const Bytes& data,
                    const Bytes& signature) {
    const CryptoProvider system = CryptoProvider::openSystem();
    const CryptoKey key = importKey(system, publicKey);
    const CryptoHash hash = hashed(system, algorithm, data);
    return CryptVerifySignatureA(hash.get(), signature.data(), lengthOf(signature), key.get(), nullptr, 0) !=
           FALSE;
}

class ClientTest : public testing::Test {
protected:
    ClientTest() {
        NCRYPT_PROV_HANDLE provider = 0;
        NCRYPT_KEY_HANDLE handle = 0;
        const std::wstring name = toWide(fromEnvironment("VELTRA_CLIENT_KEY"));
        EXPECT_EQ(NCryptOpenStorageProvider(&provider, L"Veltra Cryptographic Provider CSP", 0), kSuccess);
        EXPECT_EQ(NCryptOpenKey(provider, &handle, name.c_str(), 0, 0), kSuccess);
        cngProvider = CngHandle(provider);
        cngKey = CngHandle(handle);
    }

    [[nodiscard]] SECURITY_STATUS silentCngSignature() const {
        Bytes signature;
        return sign(cngKey, nullptr, digest(kSha256, data), signature, 256,
                    kPadPkcs1Flag | NCRYPT_SILENT_FLAG);
    }

    /// A session key as an application sends it: the system's provider encrypts the bytes for the token.
    [[nodiscard]] CryptoKey sessionKey(const Bytes& bytes) const {
        const CryptoProvider system = CryptoProvider::openSystem();
        const Bytes encrypted = encrypt(importKey(system, publicBlob(key)), bytes);
        Bytes blob = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0};
        blob.insert(blob.end(), encrypted.begin(), encrypted.end());
        return importKey(context, blob, key.get());
    }

    /// What the session key makes of the secret, for OpenSSL.
    void leaveToOpenSsl(const std::string& name, const CryptoKey& sessionKey) const {
        const Bytes ciphertext = encrypt(sessionKey, secret);
        EXPECT_EQ(decrypt(sessionKey, ciphertext), secret) << name;
        writeFile(name + ".ours", ciphertext);
    }

    const std::string pin = fromEnvironment("VELTRA_CLIENT_PIN");
    const Bytes data = bytesOf("what the application signs");
    const Bytes secret = readFile("secret");
    const CryptoProvider context = open();
    const CryptoKey key = exchangeKey(context);
    CngHandle cngProvider;
    CngHandle cngKey;
};

// Nobody has given the PIN to this process, and the token has no session: the script starts this one by
// itself.
TEST_F(ClientTest, SizeQueriesNeedNoPinWhichIsTypedOnceAndThenSilentCallsWork) {
    const CryptoHash hash = hashed(context, kSha256, data);
    const std::tuple<const char*, DWORD, std::function<BOOL(DWORD*)>> kRows[] = {
        {"HP_HASHVAL", 32,
         [&](auto size) { return CryptGetHashParam(hash.get(), HP_HASHVAL, nullptr, size, 0); }},
        {"signature", 256,
         [&](auto size) { return CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, size); }},
        {"signature with the exchange key", 256,
         [&](auto size) { return CryptSignHashA(hash.get(), AT_KEYEXCHANGE, nullptr, 0, nullptr, size); }},
        {"ciphertext", 256, [&](auto size) { return CryptEncrypt(key.get(), 0, TRUE, 0, nullptr, size, 0); }},
        {"PUBLICKEYBLOB", 276,
         [&](auto size) { return CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, nullptr, size); }},
        {"CNG signature", 256,
         [&](auto size) {
             return NCryptSignHash(cngKey.get(), nullptr, nullptr, 0, nullptr, 0, size, 0) == kSuccess;
         }},
    };
    for (const auto& [name, expected, ask] : kRows) {
        DWORD size = 0;
        EXPECT_TRUE(ask(&size)) << name << ' ' << GetLastError();
        EXPECT_EQ(size, expected) << name;
    }
    // Everything that uses the private key is refused to a silent context, and nothing is written.
    const CryptoProvider silent = open(true);
    const CryptoKey silentKey = exchangeKey(silent);
    Bytes output;
    EXPECT_EQ(sign(hashed(silent, kSha256, data), AT_SIGNATURE, output), kSilentContext);
    DWORD length = 256;
    EXPECT_EQ(
        errorOf([&] { return CryptDecrypt(silentKey.get(), 0, TRUE, CRYPT_OAEP, output.data(), &length); }),
        kSilentContext);
    EXPECT_EQ(output, Bytes(256, kFill));
    HCRYPTKEY generated = 0;
    EXPECT_EQ(errorOf([&] { return CryptGenKey(silent.handle(), AT_SIGNATURE, 2048u << 16, &generated); }),
              kSilentContext);
    EXPECT_EQ(silentCngSignature(), NTE_SILENT_CONTEXT);

    auto typing = std::async(std::launch::async, [this] { enterPin(pin); });
    EXPECT_EQ(sign(context), ERROR_SUCCESS);
    typing.get();
    EXPECT_EQ(sign(silent), ERROR_SUCCESS);
    EXPECT_EQ(silentCngSignature(), kSuccess) << "a process has one state for each token";
}

TEST_F(ClientTest, SignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    const Bytes publicKey = publicBlob(key);
    for (const HashAlgorithm& algorithm : hashAlgorithms()) {
        SCOPED_TRACE(algorithm.name);
        const CryptoHash hash = hashed(context, algorithm, data);
        Bytes signature;
        EXPECT_EQ(sign(hash, AT_SIGNATURE, signature, 255), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
        EXPECT_EQ(sign(hash, AT_SIGNATURE, signature), ERROR_SUCCESS);
        EXPECT_TRUE(systemVerifies(publicKey, algorithm, data, signature));
        EXPECT_FALSE(systemVerifies(publicKey, algorithm, bytesOf("other data"), signature));

        const CryptoHash empty = context.createHash(algorithm);
        EXPECT_TRUE(CryptSetHashParam(empty.get(), HP_HASHVAL, digest(algorithm, data).data(), 0));
        EXPECT_EQ(sign(empty, AT_SIGNATURE, signature), ERROR_SUCCESS);
        EXPECT_TRUE(systemVerifies(publicKey, algorithm, data, signature)) << "a value set on a hash";
    }
}

TEST_F(ClientTest, CngSignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    BCRYPT_PKCS1_PADDING_INFO noAlgorithm{nullptr};
    BCRYPT_PSS_PADDING_INFO pss{BCRYPT_SHA256_ALGORITHM, 32};
    const Bytes sha256 = digest(kSha256, data);
    // What TLS before version 1.2 signs: both digests, and no name of an algorithm.
    HashAlgorithm md5{};
    md5.id = CALG_MD5;
    Bytes md5AndSha1 = digest(md5, data);
    std::ranges::copy(digest(*findHashAlgorithm("sha1"), data), std::back_inserter(md5AndSha1));
    const std::tuple<const char*, void*, Bytes, DWORD> kRows[] = {
        {"PSS", &pss, sha256, kPadPssFlag},
        {"PKCS#1, silent", &pkcs1, sha256, kPadPkcs1Flag | NCRYPT_SILENT_FLAG},
        {"no padding information", nullptr, sha256, kPadPkcs1Flag},
        {"no flag", nullptr, sha256, 0},
        {"MD5 and SHA-1", &noAlgorithm, md5AndSha1, kPadPkcs1Flag},
    };
    Bytes signature;
    for (const auto& [name, padding, hash, flags] : kRows) {
        SCOPED_TRACE(name);
        EXPECT_EQ(sign(cngKey, padding, hash, signature, 255, flags), NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(sign(cngKey, padding, hash, signature, 256, flags), kSuccess);
        Bytes verified = hash;
        for (const SECURITY_STATUS expected : {kSuccess, NTE_BAD_SIGNATURE}) {
            EXPECT_EQ(NCryptVerifySignature(cngKey.get(), padding, verified.data(), lengthOf(verified),
                                            signature.data(), 256, flags),
                      expected);
            verified.back() ^= 1;
        }
    }
    writeFile("md5-sha1.hash", md5AndSha1); // for the script, where OpenSSL judges
    writeFile("md5-sha1.sig", signature);
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

TEST_F(ClientTest, HmacOfRfc4231) {
    std::ifstream cases("rfc4231.txt");
    int count = 0;
    for (std::string hashName, keyBytes, message, value; cases >> hashName >> keyBytes >> message >> value;
         ++count) {
        SCOPED_TRACE(testing::Message() << "case " << count);
        const CryptoKey macKey = sessionKey(fromHex(keyBytes));
        HCRYPTHASH handle = 0;
        ASSERT_TRUE(CryptCreateHash(context.handle(), CALG_HMAC, macKey.get(), 0, &handle)) << GetLastError();
        const CryptoHash hash(handle);
        HMAC_INFO info{};
        info.HashAlgid = findHashAlgorithm(hashName)->id;
        EXPECT_TRUE(CryptSetHashParam(handle, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
        hashPiece(hash, fromHex(message));
        Bytes mac = hashValue(hash);
        mac.resize(value.size() / 2); // one is truncated
        EXPECT_EQ(mac, fromHex(value));
    }
    EXPECT_EQ(count, 17);
}

} // namespace
} // namespace veltra::test
