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
    Answer encrypt(HCRYPTKEY key, DWORD flags = 0, BOOL final = TRUE) {
        data = abc;
        data.resize(256, 0xEE);
        length = static_cast<DWORD>(abc.size());
        return cut(run(CPEncrypt, provider, key, 0xBAD, final, flags, data.data(), &length, 256));
    }
    Answer decrypt(HCRYPTKEY key, DWORD flags = CRYPT_OAEP) {
        data = ciphertext;
        length = static_cast<DWORD>(ciphertext.size());
        return cut(run(CPDecrypt, provider, key, 0xBAD, FALSE, flags, data.data(), &length));
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
        library.clearCalls();
        EXPECT_EQ(encrypt(key, CRYPT_OAEP, final), accepted());
        EXPECT_EQ(length, final ? 16u : 3u);
        EXPECT_EQ(decrypt(key, 0), accepted());
        const std::string end = concat("iv=", shownIv);
        EXPECT_THAT(library.calls(),
                    ElementsAre(concat("veltra_encrypt_aes(serial=", serial, ", type=", type,
                                       ", key=4B4B..4B4B(", keyLength, "), in=616263, final=", final ? 1 : 0,
                                       ", ", end, ", extra=null(0))"),
                                testing::EndsWith(concat("key=4B4B..4B4B(", keyLength,
                                                         "), in=3938..0000(256), flag=0, ", end, ")"))));
    };
    const Bytes iv(16, 0xAB);
    expectCalls(24, CRYPT_MODE_CBC, iv, 7, 2, "ABAB..ABAB(16)");
    expectCalls(32, CRYPT_MODE_CBC, {}, FALSE, 2, "0000..0000(16)");
    expectCalls(16, 0, Bytes(8, 0xAB), TRUE, 1, "ABAB..ABAB(8)");
    expectCalls(16, CRYPT_MODE_ECB, iv, TRUE, 5, "null(0)");
    expectCalls(20, CRYPT_MODE_ECB, {}, TRUE, 6, "null(0)");
    EXPECT_EQ(encrypt(aesKey(20)), refused(NTE_BAD_KEY, {"CPEncrypt: unsupported symmetric key length: 20"}));
    EXPECT_THAT(library.calls("veltra_encrypt_aes"), SizeIs(1));
}

TEST_F(EncryptionTest, SizesAndPlaintextsLongerThanTheCiphertext) {
    for (const char* function : {"veltra_decrypt_aes", "veltra_decrypt"})
        library.script(function, {.length = 257});
    for (const HCRYPTKEY any : {rsaKey, aesKey(16), aesKey(32)}) {
        EXPECT_EQ(run(CPEncrypt, provider, any, 0, TRUE, 0, nullptr, &length, 0), accepted());
        EXPECT_EQ(length, liveKey(any)->keyBits / 8) << "not a padded size";
        EXPECT_EQ(decrypt(any),
                  refused(ERROR_MORE_DATA, {"CPDecrypt: output buffer too small, required=257"}));
        EXPECT_EQ(length, 257u);
        EXPECT_EQ(data, ciphertext);
    }
}

TEST_F(EncryptionTest, RsaCiphertextIsLittleEndianAndComesBack) {
    // The type comes from the count of public key bytes, taken for bits: deliberate.
    const auto expectCall = [&](int type, int padding, const char* key, DWORD flags = 0) {
        EXPECT_EQ(encrypt(rsaKey, flags), accepted());
        EXPECT_EQ(library.calls().back(), concat("veltra_encrypt(type=", type, ", padding=", padding,
                                                 ", in=616263, out=256, key=", key, ")"));
        EXPECT_EQ(data, ciphertext);
    };
    expectCall(8, 1, "3082..0001(294)");
    expectCall(8, 4, "3082..0001(294)", CRYPT_OAEP);
    expectCall(8, 4, "3082..0001(294)", CRYPT_OAEP | 1);
    const auto record = liveKey(rsaKey);
    std::ranges::fill(record->publicKey, static_cast<unsigned char>(0x30)); // passed on as DER
    for (const auto& [count, type] : {std::pair{512u, 8}, {550u, 8}, {1024u, 7}}) {
        record->publicKeyLength = count;
        expectCall(type, 1, concat("3030..3030(", count, ")").c_str());
    }
    EXPECT_EQ(rsaEncryptionType(4096), EncryptionType::Rsa4096) << "more bytes than there can be";
    record->algId = kEcAlgId;
    record->publicKey[0] = 0x04;
    record->publicKeyLength = 65;
    expectCall(8, 1, "0430..3030(65)"); // a point is no modulus
    record->tokenFlag = 1;
    library.clearCalls();
    EXPECT_EQ(decrypt(rsaKey), accepted());
    EXPECT_EQ(data, abc) << "the plaintext is not reversed";
    EXPECT_THAT(library.calls(), ElementsAre("veltra_decrypt(serial=" + serial +
                                             ", key=1111..1111, pin=1234, in=0000..3839(256), flag=1)"))
        << "OAEP never asks which token it is";
}

TEST_F(EncryptionTest, Pkcs1DecryptionIsForFips1402TokensAndRefusedBeforeThePinIsAsked) {
    const UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, kPkcs1DecryptBlockedEvent));
    EXPECT_EQ(decrypt(rsaKey, 0).lastError, static_cast<DWORD>(NTE_BAD_FLAGS));
    EXPECT_EQ(WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0);
    EXPECT_THAT(library.calls("veltra_decrypt"), IsEmpty());
    token.info.fipsMarker = "3.1";
    EXPECT_EQ(decrypt(rsaKey, 0), accepted());
    // Without a token there is nothing to ask, and the rule is not applied.
    const HCRYPTPROV tokenless = acquire(nullptr, CRYPT_VERIFYCONTEXT | CRYPT_SILENT);
    EXPECT_EQ(run(CPDecrypt, tokenless, rsaKey, 0, TRUE, 0, data.data(), &length).lastError,
              static_cast<DWORD>(NTE_SILENT_CONTEXT));
}

TEST_F(EncryptionTest, LengthIsReadOnceWhateverTheApplicationDoesWhileTheDialogIsUp) {
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    prompt.willType({"1234"});
    prompt.whileAsked([&] { length = 1; });
    EXPECT_EQ(decrypt(rsaKey), accepted());
    EXPECT_EQ(data, abc);
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(decrypt(rsaKey).errors.back(), "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
}

} // namespace
} // namespace veltra::test
