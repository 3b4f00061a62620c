// What applications do with a provider, habits that are not in its documentation included.

#include "dialog/window_driver.h"
#include "e2e/crypto_application.h"

#include <wincrypt.h>

#include <algorithm>
#include <future>

namespace veltra::test {
namespace {

const auto kSilentContext = static_cast<DWORD>(NTE_SILENT_CONTEXT);

struct DigestCase {
    const char* name;
    ALG_ID algorithm;
    DWORD length;
};
constexpr DigestCase kDigests[] = {{"SHA-1", CALG_SHA1, 20},
                                   {"SHA-256", CALG_SHA_256, 32},
                                   {"SHA-384", CALG_SHA_384, 48},
                                   {"SHA-512", CALG_SHA_512, 64}};

/// Nobody has given the PIN to this process, and the token has no session. What a test leaves behind stays
/// for the process, so the script starts each of these in one of its own.
class UnverifiedUserTest : public CryptoApplicationTest {
protected:
    /// Everything that uses the private key is refused to a silent context, and nothing is written.
    void expectSilentRefusals() const {
        const CryptoContext silent = open(CRYPT_SILENT);
        Bytes signature;
        EXPECT_EQ(signError(createHash(silent, CALG_SHA_256, data), AT_SIGNATURE, signature, 256),
                  kSilentContext);
        EXPECT_EQ(signature, Bytes(256, kSignatureFill));
        Bytes ciphertext(256, 1);
        DWORD length = 256;
        const CryptoKey key = userKey(silent, AT_KEYEXCHANGE);
        EXPECT_EQ(
            errorOf([&] { return CryptDecrypt(key.get(), 0, TRUE, CRYPT_OAEP, ciphertext.data(), &length); }),
            kSilentContext);
        EXPECT_EQ(ciphertext, Bytes(256, 1));
        HCRYPTKEY generated = 0;
        EXPECT_EQ(errorOf([&] { return CryptGenKey(silent.get(), AT_SIGNATURE, 2048u << 16, &generated); }),
                  kSilentContext);
        EXPECT_EQ(generated, 0u);
    }
};

TEST_F(UnverifiedUserTest, SizeQueriesNeedNoPin) {
    const CryptoContext context = open(CRYPT_SILENT);
    const HCRYPTPROV provider = context.get();
    const CryptoKey key = userKey(context, AT_KEYEXCHANGE);
    const CryptoHash hash = createHash(context, CALG_SHA_256, data);
    const auto certificateLength = static_cast<DWORD>(readFile("certificate.der").size());
    struct Row {
        const char* name;
        DWORD size;
        std::function<BOOL(DWORD*)> ask;
    };
    const Row kRows[] = {
        {"HP_HASHVAL", 32,
         [&](DWORD* size) { return CryptGetHashParam(hash.get(), HP_HASHVAL, nullptr, size, 0); }},
        {"signature", 256,
         [&](DWORD* size) { return CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, size); }},
        {"signature with the exchange key", 256,
         [&](DWORD* size) { return CryptSignHashA(hash.get(), AT_KEYEXCHANGE, nullptr, 0, nullptr, size); }},
        {"ciphertext", 256,
         [&](DWORD* size) { return CryptEncrypt(key.get(), 0, TRUE, 0, nullptr, size, 0); }},
        {"PUBLICKEYBLOB", 276,
         [&](DWORD* size) { return CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, nullptr, size); }},
        {"KP_CERTIFICATE", certificateLength,
         [&](DWORD* size) { return CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, size, 0); }},
        {"KP_KEYLEN", 4,
         [&](DWORD* size) { return CryptGetKeyParam(key.get(), KP_KEYLEN, nullptr, size, 0); }},
        {"PP_CONTAINER", static_cast<DWORD>(container.size() + 1),
         [&](DWORD* size) { return CryptGetProvParam(provider, PP_CONTAINER, nullptr, size, 0); }},
        {"PP_NAME", 34, [&](DWORD* size) { return CryptGetProvParam(provider, PP_NAME, nullptr, size, 0); }},
        {"PP_ENUMCONTAINERS", 33,
         [&](DWORD* size) {
             return CryptGetProvParam(provider, PP_ENUMCONTAINERS, nullptr, size, CRYPT_FIRST);
         }},
        {"PP_ENUMALGS_EX", sizeof(PROV_ENUMALGS_EX),
         [&](DWORD* size) {
             return CryptGetProvParam(provider, PP_ENUMALGS_EX, nullptr, size, CRYPT_FIRST);
         }},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        DWORD size = 0;
        EXPECT_TRUE(row.ask(&size)) << GetLastError();
        EXPECT_EQ(size, row.size);
    }
    expectSilentRefusals(); // the PIN was needed, and nobody has it
}

TEST_F(UnverifiedUserTest, PinIsTypedOnceAndThenSilentCallsWork) {
    expectSilentRefusals();
    auto typing = std::async(std::launch::async, [this] {
        const HWND dialog = waitForWindow("Verify User Password");
        typeInto(dialog, 1001, pin);
        pressAndWait(dialog, IDOK);
    });
    EXPECT_EQ(signError(open()), ERROR_SUCCESS);
    typing.get();
    EXPECT_EQ(signError(open()), ERROR_SUCCESS);
    EXPECT_EQ(signError(open(CRYPT_SILENT)), ERROR_SUCCESS);
}

TEST_F(UnverifiedUserTest, PinIsGivenByParameter) {
    const CryptoContext silent = open(CRYPT_SILENT);
    const auto setPin = [&](DWORD parameter, const std::string& text) {
        return errorOf([&] {
            return CryptSetProvParam(silent.get(), parameter, reinterpret_cast<const BYTE*>(text.c_str()), 0);
        });
    };
    EXPECT_EQ(setPin(PP_SIGNATURE_PIN, "000000"), static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD));
    expectSilentRefusals();
    EXPECT_EQ(setPin(PP_KEYEXCHANGE_PIN, pin), ERROR_SUCCESS);
    EXPECT_EQ(signError(silent), ERROR_SUCCESS);
    EXPECT_EQ(setPin(PP_SIGNATURE_PIN, pin), ERROR_SUCCESS);
}

class CryptoApiClientTest : public CryptoApplicationTest {};

TEST_F(CryptoApiClientTest, SignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    for (const int bits : {2048, 3072, 4096}) {
        const CryptoContext context = open(containerOf(bits).c_str());
        const Bytes publicKey = publicBlob(userKey(context, AT_SIGNATURE));
        for (const DigestCase& digest : kDigests) {
            SCOPED_TRACE(testing::Message() << bits << ' ' << digest.name);
            const CryptoHash hash = createHash(context, digest.algorithm, data);
            const auto length = static_cast<DWORD>(bits / 8);
            Bytes signature;
            EXPECT_EQ(signError(hash, AT_SIGNATURE, signature, length - 1),
                      static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
            EXPECT_EQ(signError(hash, AT_SIGNATURE, signature, length), ERROR_SUCCESS);
            EXPECT_TRUE(systemVerifies(publicKey, digest.algorithm, data, signature));
            EXPECT_FALSE(systemVerifies(publicKey, digest.algorithm, bytesOf("other data"), signature));
        }
    }
}

TEST_F(CryptoApiClientTest, ReadsHashValueAndHashSizeInEitherOrder) {
    const CryptoContext context = open();
    for (const DigestCase& digest : kDigests) {
        SCOPED_TRACE(digest.name);
        const auto hashSize = [&](const CryptoHash& hash) {
            DWORD size = 0;
            DWORD length = sizeof size;
            EXPECT_TRUE(
                CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &length, 0));
            return size;
        };
        const Bytes expected = hashValue(createHash(openSystem(), digest.algorithm, data));
        const CryptoHash sizeFirst = createHash(context, digest.algorithm, data);
        EXPECT_EQ(hashSize(sizeFirst), digest.length);
        EXPECT_EQ(hashValue(sizeFirst), expected);
        const CryptoHash valueFirst = createHash(context, digest.algorithm, data);
        EXPECT_EQ(hashValue(valueFirst), expected);
        EXPECT_EQ(hashSize(valueFirst), digest.length);
        EXPECT_EQ(hashValue(valueFirst), expected) << "once more";
    }
}

TEST_F(CryptoApiClientTest, SignsAValueSetOnAnEmptyHash) {
    const CryptoContext context = open();
    const Bytes publicKey = publicBlob(userKey(context, AT_SIGNATURE));
    for (const DigestCase& digest : kDigests) {
        SCOPED_TRACE(digest.name);
        const Bytes value = hashValue(createHash(openSystem(), digest.algorithm, data));
        const CryptoHash hash = createHash(context, digest.algorithm, {});
        EXPECT_TRUE(CryptSetHashParam(hash.get(), HP_HASHVAL, value.data(), 0)) << GetLastError();
        Bytes signature;
        EXPECT_EQ(signError(hash, AT_SIGNATURE, signature, 256), ERROR_SUCCESS);
        EXPECT_TRUE(systemVerifies(publicKey, digest.algorithm, data, signature));
    }
}

TEST_F(CryptoApiClientTest, TriesTheKeySpecificationsInEitherOrder) {
    struct Row {
        const char* name;
        const char* container;
        std::vector<DWORD> order;
    };
    const Row kRows[] = {
        {"signature first", container.c_str(), {AT_SIGNATURE, AT_KEYEXCHANGE}},
        {"exchange first", container.c_str(), {AT_KEYEXCHANGE, AT_SIGNATURE}},
        {"signature first, no container", nullptr, {AT_SIGNATURE, AT_KEYEXCHANGE}},
        {"exchange first, no container", nullptr, {AT_KEYEXCHANGE, AT_SIGNATURE}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const CryptoContext context = open(row.container);
        DWORD length = 0;
        EXPECT_TRUE(CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, nullptr, &length, CRYPT_FIRST));
        for (const DWORD keySpec : row.order) {
            SCOPED_TRACE(keySpec);
            const Bytes publicKey = publicBlob(userKey(context, keySpec));
            Bytes signature;
            EXPECT_EQ(signError(createHash(context, CALG_SHA_256, data), keySpec, signature, 256),
                      ERROR_SUCCESS);
            EXPECT_TRUE(systemVerifies(publicKey, CALG_SHA_256, data, signature));
        }
    }
}

TEST_F(CryptoApiClientTest, LearnsTheLongestContainerNameAndWalks) {
    const CryptoContext context = open(nullptr, CRYPT_SILENT);
    DWORD longest = 0;
    SetLastError(ERROR_SUCCESS);
    EXPECT_TRUE(CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, nullptr, &longest, CRYPT_FIRST));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    std::vector<std::string> names;
    for (DWORD flag = CRYPT_FIRST;; flag = CRYPT_NEXT) {
        Bytes name(longest);
        DWORD length = longest;
        const DWORD error = errorOf(
            [&] { return CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, name.data(), &length, flag); });
        if (error != ERROR_SUCCESS) {
            EXPECT_EQ(error, static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
            break;
        }
        ASSERT_EQ(length, longest);
        ASSERT_EQ(name.back(), 0);
        names.emplace_back(reinterpret_cast<const char*>(name.data()));
    }
    std::vector<Bytes> listed;
    std::vector<Bytes> known;
    for (const std::string& name : names)
        listed.push_back(publicBlob(userKey(open(name.c_str(), CRYPT_SILENT), AT_KEYEXCHANGE)));
    for (const int bits : {2048, 3072, 4096})
        known.push_back(publicBlob(userKey(open(containerOf(bits).c_str(), CRYPT_SILENT), AT_KEYEXCHANGE)));
    EXPECT_THAT(listed, testing::UnorderedElementsAreArray(known));
}

TEST_F(CryptoApiClientTest, AsksForTheCertificatesSizeThenReadsIt) {
    const CryptoContext context = open(CRYPT_SILENT);
    for (const DWORD keySpec : {AT_SIGNATURE, AT_KEYEXCHANGE}) {
        const CryptoKey key = userKey(context, keySpec);
        DWORD size = 0;
        EXPECT_TRUE(CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, &size, 0));
        DWORD length = size - 1;
        Bytes der(size);
        const auto read = [&] { return CryptGetKeyParam(key.get(), KP_CERTIFICATE, der.data(), &length, 0); };
        EXPECT_EQ(errorOf(read), static_cast<DWORD>(ERROR_MORE_DATA));
        EXPECT_EQ(length, size);
        EXPECT_EQ(errorOf(read), ERROR_SUCCESS);
        EXPECT_EQ(der, readFile("certificate.der"));
    }
    const CryptoContext other = open(containerOf(3072).c_str(), CRYPT_SILENT);
    const CryptoKey key = userKey(other, AT_SIGNATURE);
    DWORD size = 0;
    EXPECT_EQ(errorOf([&] { return CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, &size, 0); }),
              static_cast<DWORD>(NTE_NOT_FOUND));
}

TEST_F(CryptoApiClientTest, TakesASessionKeyThatTheSystemsProviderMade) {
    const CryptoContext context = open();
    const CryptoKey exchangeKey = userKey(context, AT_KEYEXCHANGE);
    const CryptoContext system = openSystem();
    const CryptoKey recipient = importKey(system, publicBlob(exchangeKey));
    for (const ALG_ID algorithm : {CALG_AES_128, CALG_AES_192, CALG_AES_256}) {
        SCOPED_TRACE(algorithm);
        HCRYPTKEY generated = 0;
        ASSERT_TRUE(CryptGenKey(system.get(), algorithm, CRYPT_EXPORTABLE, &generated));
        const CryptoKey session(generated);
        Bytes blob(512);
        DWORD length = 512;
        ASSERT_TRUE(CryptExportKey(session.get(), recipient.get(), SIMPLEBLOB, 0, blob.data(), &length));
        blob.resize(length);
        const CryptoKey imported = importKey(context, blob, exchangeKey);
        const Bytes plaintext = bytesOf("a message of more than one block");
        EXPECT_EQ(decrypt(imported, encrypt(session, plaintext)), plaintext);
        EXPECT_EQ(decrypt(session, encrypt(imported, plaintext)), plaintext);
    }
}

} // namespace
} // namespace veltra::test
