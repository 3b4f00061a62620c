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
};
constexpr DigestCase kDigests[] = {
    {"SHA-1", CALG_SHA1}, {"SHA-256", CALG_SHA_256}, {"SHA-384", CALG_SHA_384}, {"SHA-512", CALG_SHA_512}};

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
    const CryptoKey key = userKey(context, AT_KEYEXCHANGE);
    const CryptoHash hash = createHash(context, CALG_SHA_256, data);
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
        {"PP_ENUMCONTAINERS", 33,
         [&](auto size) {
             return CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, nullptr, size, CRYPT_FIRST);
         }},
        {"PP_ENUMALGS_EX", sizeof(PROV_ENUMALGS_EX),
         [&](auto size) {
             return CryptGetProvParam(context.get(), PP_ENUMALGS_EX, nullptr, size, CRYPT_FIRST);
         }},
    };
    for (const auto& [name, expected, ask] : kRows) {
        DWORD size = 0;
        EXPECT_TRUE(ask(&size)) << name << ' ' << GetLastError();
        EXPECT_EQ(size, expected) << name;
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

} // namespace
} // namespace veltra::test
