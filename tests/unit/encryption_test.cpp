#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"
#include "token/crypto_policy.h"
#include "token/key_operations.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

class EncryptionTest : public CspTest {
protected:
    EncryptionTest() {
        setProcessIv({});
        ciphertext.resize(256);
        token.addKeyPair(0x11);
        rsaKey = userKey(provider, AT_KEYEXCHANGE);
        storePinOfToken();
        library.clearCalls();
    }

    HCRYPTKEY aesKey(std::size_t keyLength, DWORD mode = CRYPT_MODE_CBC) {
        const HCRYPTKEY key = addSymmetricKey(std::string(keyLength, 'K'));
        liveKey(key)->keyBits = static_cast<std::uint32_t>(keyLength * 8);
        liveKey(key)->mode = mode;
        return key;
    }
    /// Both run on a copy of the input, in `data`, which is cut to the output on success.
    Answer encrypt(HCRYPTKEY key, const Bytes& text, DWORD capacity, DWORD flags = 0, BOOL final = TRUE) {
        data = text;
        data.resize(capacity, 0xEE);
        length = static_cast<DWORD>(text.size());
        return cut(run(CPEncrypt, provider, key, 0xBAD, final, flags, data.data(), &length, capacity));
    }
    Answer decrypt(HCRYPTKEY key, const Bytes& encrypted, DWORD flags = CRYPT_OAEP) {
        data = encrypted;
        length = static_cast<DWORD>(encrypted.size());
        return cut(run(CPDecrypt, provider, key, 0xBAD, FALSE, flags, data.data(), &length));
    }
    std::string decryption(const char* flag = "0") const {
        return concat("veltra_decrypt(serial=", serial,
                      ", key=1111..1111, pin=1234, in=0000..3839(256), flag=", flag, ")");
    }

    const HCRYPTPROV provider = acquire();
    HCRYPTKEY rsaKey = 0;
    Bytes data;
    DWORD length = 0;
    const Bytes abc = bytesOf("abc");
    Bytes ciphertext = ScriptedDeviceLibrary::maskOf(bytesOf("cba")); ///< of `abc`, little-endian

private:
    Answer cut(const Answer& answer) {
        if (answer.result) data.resize(length);
        return answer;
    }
};

TEST_F(EncryptionTest, AesTypesVectorsAndFinalPieces) {
    const auto expectCalls = [&](std::size_t keyLength, DWORD mode, const Bytes& iv, BOOL final, int type,
                                 const char* shownIv) {
        setProcessIv(iv);
        const HCRYPTKEY key = aesKey(keyLength, mode);
        const std::string shownKey = concat("key=4B4B..4B4B(", keyLength, ")");
        library.clearCalls();
        EXPECT_EQ(encrypt(key, abc, 64, CRYPT_OAEP, final), accepted());
        EXPECT_EQ(length, final ? 16u : 3u);
        decrypt(key, final ? Bytes(data) : Bytes(16), 0);
        EXPECT_EQ(data == abc, final != FALSE);
        EXPECT_THAT(
            library.calls(),
            ElementsAre(
                concat("veltra_encrypt_aes(serial=", serial, ", type=", type, ", ", shownKey,
                       ", in=616263, final=", final ? 1 : 0, ", iv=", shownIv, ", extra=null(0))"),
                testing::AllOf(HasSubstr(shownKey), testing::EndsWith(concat("flag=0, iv=", shownIv, ")")))));
    };
    const Bytes iv(16, 0xAB);
    expectCalls(16, CRYPT_MODE_CBC, {}, TRUE, 1, "0000..0000(16)");
    expectCalls(24, CRYPT_MODE_CBC, iv, 7, 2, "ABAB..ABAB(16)");
    expectCalls(32, CRYPT_MODE_CBC, {}, FALSE, 2, "0000..0000(16)");
    expectCalls(16, 0, Bytes(8, 0xAB), TRUE, 1, "ABAB..ABAB(8)");
    expectCalls(16, CRYPT_MODE_ECB, iv, TRUE, 5, "null(0)");
    expectCalls(20, CRYPT_MODE_ECB, iv, TRUE, 6, "null(0)");
    expectCalls(32, CRYPT_MODE_ECB, {}, TRUE, 6, "null(0)");
    library.clearCalls();
    EXPECT_EQ(encrypt(aesKey(20), abc, 64),
              refused(NTE_BAD_KEY, {"CPEncrypt: unsupported symmetric key length: 20"}));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(EncryptionTest, OutputThatDoesNotFit) {
    for (const HCRYPTKEY any : {rsaKey, aesKey(16), aesKey(32)}) {
        EXPECT_EQ(run(CPEncrypt, provider, any, 0, TRUE, 0, nullptr, &length, 0), accepted());
        EXPECT_EQ(length, liveKey(any)->keyBits / 8) << "not a padded size";
        for (const char* function : {"veltra_encrypt", "veltra_decrypt_aes", "veltra_decrypt"})
            library.script(function, {.length = 257});
        EXPECT_EQ(decrypt(any, ciphertext),
                  refused(ERROR_MORE_DATA, {"CPDecrypt: output buffer too small, required=257"}));
        EXPECT_EQ(length, 257u);
        EXPECT_EQ(data, ciphertext) << "a plaintext longer than the ciphertext is not copied";
    }
    EXPECT_EQ(encrypt(rsaKey, abc, 512).lastError, 0x8009001D) << "more than the library was given";
    EXPECT_FALSE(encrypt(aesKey(16), Bytes(16, 1), 16).result);
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(data, Bytes(16, 1));
}

TEST_F(EncryptionTest, RsaCiphertextIsLittleEndianAndComesBack) {
    liveKey(rsaKey)->tokenFlag = 1;
    for (const auto& [flags, padding] : {std::pair{0u, "1"}, {0x40u, "4"}, {0x41u, "4"}}) {
        library.clearCalls();
        EXPECT_EQ(encrypt(rsaKey, abc, 300, flags), accepted());
        EXPECT_THAT(library.calls(), ElementsAre(concat("veltra_encrypt(type=8, padding=", padding,
                                                        ", in=616263, out=256, key=3082..0001(294))")));
        EXPECT_EQ(data, ciphertext);
    }
    library.clearCalls();
    EXPECT_EQ(decrypt(rsaKey, ciphertext), accepted());
    EXPECT_EQ(data, abc) << "the plaintext is not reversed";
    EXPECT_THAT(library.calls(), ElementsAre(decryption("1"))) << "OAEP never asks which token it is";
    // The type comes from the count of public key bytes, taken for bits: deliberate.
    for (const auto& [count, type] : {std::pair{0u, 8}, {512u, 8}, {550u, 8}, {1024u, 7}}) {
        std::ranges::fill(liveKey(rsaKey)->publicKey, static_cast<unsigned char>(0x30)); // passed on as DER
        liveKey(rsaKey)->publicKeyLength = count;
        EXPECT_EQ(encrypt(rsaKey, abc, 256), accepted());
        EXPECT_THAT(library.calls().back(), testing::StartsWith(concat("veltra_encrypt(type=", type)));
    }
    EXPECT_EQ(rsaEncryptionType(4096), EncryptionType::Rsa4096) << "more bytes than there can be";
    liveKey(rsaKey)->algId = kEcAlgId;
    liveKey(rsaKey)->publicKey[0] = 0x04;
    liveKey(rsaKey)->publicKeyLength = 65;
    encrypt(rsaKey, abc, 256);
    EXPECT_THAT(library.calls().back(), testing::EndsWith("key=0430..3030(65))")) << "a point is no modulus";
}

TEST_F(EncryptionTest, Pkcs1DecryptionIsForFips1402TokensAndRefusedBeforeThePinIsAsked) {
    const UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, kPkcs1DecryptBlockedEvent));
    EXPECT_EQ(decrypt(rsaKey, ciphertext, 0).lastError, static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_EQ(WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0);
    EXPECT_THAT(library.calls("veltra_decrypt"), IsEmpty());
    token.info.fipsMarker = "3.1";
    EXPECT_EQ(decrypt(rsaKey, ciphertext, 0), accepted());
    EXPECT_EQ(data, abc);
    // Without a token there is nothing to ask, and the rule is not applied.
    const HCRYPTPROV tokenless = acquire(nullptr, CRYPT_VERIFYCONTEXT | CRYPT_SILENT);
    EXPECT_EQ(run(CPDecrypt, tokenless, rsaKey, 0, TRUE, 0, data.data(), &length).lastError,
              static_cast<DWORD>(NTE_SILENT_CONTEXT));
}

TEST_F(EncryptionTest, ExpiredSessionIsPromptedForOnceAndRetriedOnce) {
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    prompt.willType({"1234"});
    prompt.whileAsked([&] { length = 1; }); // the application's window procedures run meanwhile
    EXPECT_EQ(decrypt(rsaKey, ciphertext), accepted());
    EXPECT_EQ(data, abc);
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(decrypt(rsaKey, ciphertext).errors.back(),
              "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
    EXPECT_THAT(library.calls("veltra_decrypt"), testing::AllOf(SizeIs(3), testing::Each(decryption())));
    EXPECT_EQ(data, ciphertext);
}

} // namespace
} // namespace veltra::test
