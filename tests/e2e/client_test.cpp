// An application that encrypts with keys that it derived, and authenticates with keys that it sent to the
// token. It knows the provider's name and nothing else of it: every call goes through the system's CryptoAPI.
// client.sh sets up the token and what else it needs, and lets OpenSSL judge.

#include "support/googletest.h"

#include "crypto_provider.h"
#include "error_text.h"
#include "wide_text.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace veltra::test {
namespace {

using Bytes = std::vector<unsigned char>;

DWORD lengthOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

// Files in the current folder, which is the script's.
Bytes readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
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

Bytes decrypt(const CryptoKey& key, Bytes ciphertext) {
    DWORD length = lengthOf(ciphertext);
    require(CryptDecrypt(key.get(), 0, TRUE, 0, ciphertext.data(), &length), "decrypting");
    ciphertext.resize(length);
    return ciphertext;
}

class ClientTest : public testing::Test {
protected:
    /// A session key as an application sends it: the system's provider encrypts the bytes for the token.
    [[nodiscard]] CryptoKey sessionKey(const Bytes& bytes) const {
        const CryptoProvider system = CryptoProvider::openSystem();
        const Bytes publicKey = askTwice([&](BYTE* blob, DWORD* length) {
            require(CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, blob, length), "exporting the key");
        });
        const Bytes encrypted = encrypt(importKey(system, publicKey), bytes);
        Bytes blob = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0};
        blob.insert(blob.end(), encrypted.begin(), encrypted.end());
        return importKey(context, blob, key.get());
    }

    const CryptoProvider context = CryptoProvider::open({}, toWide(std::getenv("VELTRA_CLIENT_CONTAINER")));
    const CryptoKey key = exchangeKey(context);
};

TEST_F(ClientTest, DerivedKeysInBothModes) {
    constexpr std::pair<const char*, ALG_ID> kKeys[] = {
        {"128", CALG_AES_128}, {"192", CALG_AES_192}, {"256", CALG_AES_256}};
    const Bytes secret = readFile("secret");
    constexpr std::pair<const char*, DWORD> kModes[] = {{"cbc", CRYPT_MODE_CBC}, {"ecb", CRYPT_MODE_ECB}};
    for (const HashAlgorithm& digest : hashAlgorithms()) {
        const CryptoHash hash = context.createHash(digest);
        hashPiece(hash, readFile("passphrase"));
        for (const auto& [bits, algorithm] : kKeys) {
            HCRYPTKEY derived = 0;
            ASSERT_TRUE(CryptDeriveKey(context.handle(), algorithm, hash.get(), 0, &derived))
                << GetLastError();
            const CryptoKey sessionKey(derived);
            for (const auto& [name, mode] : kModes) {
                EXPECT_TRUE(CryptSetKeyParam(derived, KP_MODE, reinterpret_cast<const BYTE*>(&mode), 0));
                const Bytes ciphertext = encrypt(sessionKey, secret);
                EXPECT_EQ(decrypt(sessionKey, ciphertext), secret);
                std::ofstream file(std::string(digest.name) + "-" + bits + "-" + name, std::ios::binary);
                std::ranges::copy(ciphertext, std::ostreambuf_iterator<char>(file));
            }
        }
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
