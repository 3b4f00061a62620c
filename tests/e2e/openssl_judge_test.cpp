// Files that OpenSSL made, read by the provider, and files of the provider for OpenSSL to read. The names are
// agreed with cryptoapi_client.sh, which checks the provider's files.

#include "e2e/crypto_application.h"

namespace veltra::test {
namespace {

class OpenSslJudgeTest : public CryptoApplicationTest {
protected:
    const Bytes secret = readFile("secret");
};

TEST_F(OpenSslJudgeTest, DerivedKeysInBothModes) {
    struct Named {
        const char* name;
        DWORD value;
    };
    const CryptoContext context = open(nullptr, CRYPT_SILENT);
    for (const Named& digest : {Named{"sha1", CALG_SHA1}, Named{"sha256", CALG_SHA_256},
                                Named{"sha384", CALG_SHA_384}, Named{"sha512", CALG_SHA_512}}) {
        for (const Named& algorithm :
             {Named{"128", CALG_AES_128}, Named{"192", CALG_AES_192}, Named{"256", CALG_AES_256}}) {
            for (const Named& mode : {Named{"cbc", CRYPT_MODE_CBC}, Named{"ecb", CRYPT_MODE_ECB}}) {
                const std::string name =
                    std::string("aes-") + digest.name + "-" + algorithm.name + "-" + mode.name;
                SCOPED_TRACE(name);
                const CryptoHash hash = createHash(context, digest.value, readFile("passphrase"));
                HCRYPTKEY derived = 0;
                ASSERT_TRUE(CryptDeriveKey(context.get(), algorithm.value, hash.get(), 0, &derived));
                const CryptoKey key(derived);
                DWORD value = mode.value;
                ASSERT_TRUE(CryptSetKeyParam(derived, KP_MODE, reinterpret_cast<BYTE*>(&value), 0));
                EXPECT_EQ(decrypt(key, readFile(name + ".theirs")), secret);
                writeFile(name + ".ours", encrypt(key, secret));
            }
        }
    }
}

// The IV is one for the whole process and can be set through keys of these lengths only.
TEST_F(OpenSslJudgeTest, SessionKeysWithAnIv) {
    const CryptoContext context = open();
    const CryptoKey exchangeKey = userKey(context, AT_KEYEXCHANGE);
    for (const std::string bits : {"192", "256"}) {
        SCOPED_TRACE(bits);
        const CryptoKey key = importKey(context, readFile("session-" + bits + ".blob"), exchangeKey);
        const Bytes iv = readFile("iv");
        ASSERT_TRUE(CryptSetKeyParam(key.get(), KP_IV, iv.data(), 0));
        EXPECT_EQ(decrypt(key, readFile("session-" + bits + ".theirs")), secret);
        writeFile("session-" + bits + ".ours", encrypt(key, secret));
        ASSERT_TRUE(CryptSetKeyParam(key.get(), KP_IV, Bytes(iv.size()).data(), 0));
    }
}

TEST_F(OpenSslJudgeTest, RsaKeysAndCiphertexts) {
    const CryptoContext context = open(CRYPT_SILENT);
    for (const int bits : {2048, 3072, 4096}) {
        SCOPED_TRACE(bits);
        const std::string name = std::to_string(bits);
        const CryptoContext owner = open(containerOf(bits).c_str());
        const CryptoKey own = userKey(owner, AT_KEYEXCHANGE);
        writeFile("rsa-" + name + ".blob", publicBlob(own));
        const CryptoKey theirs = importKey(context, readFile("theirs-" + name + ".blob"));
        for (const auto& [padding, flags] : {std::pair{"pkcs1", 0u}, {"oaep", DWORD{CRYPT_OAEP}}}) {
            const std::string file = "rsa-" + name + "-" + padding;
            EXPECT_EQ(decrypt(own, reversed(readFile(file + ".theirs")), flags), secret) << padding;
            writeFile(file + ".ours", reversed(encrypt(theirs, secret, flags)));
        }
    }
}

} // namespace
} // namespace veltra::test
