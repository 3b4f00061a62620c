#include "support/csp_test.h"

#include "foundation/text.h"
#include "token/key_operations.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

const DWORD kLibraryFailed = 0x8009001D;
const DWORD kBadLen = static_cast<DWORD>(NTE_BAD_LEN);

class EncryptionTest : public CspTest {
protected:
    EncryptionTest() : provider(acquire()) {
        setProcessIv({});
        ciphertext.resize(256);
        token.addKeyPair(0x11);
        rsaKey = userKey(provider, AT_KEYEXCHANGE);
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
        return cut(
            [&] { return CPEncrypt(provider, key, 0xBAD, final, flags, data.data(), &length, capacity); });
    }
    Answer decrypt(HCRYPTKEY key, const Bytes& encrypted, DWORD flags = CRYPT_OAEP) {
        data = encrypted;
        length = static_cast<DWORD>(encrypted.size());
        return cut([&] { return CPDecrypt(provider, key, 0xBAD, FALSE, flags, data.data(), &length); });
    }
    std::string decryption(const char* flag = "0") const {
        return concat("veltra_decrypt(serial=", serial,
                      ", key=1111..1111, pin=1234, in=0000..3839(256), flag=", flag, ")");
    }

    const HCRYPTPROV provider;
    HCRYPTKEY rsaKey = 0;
    Bytes data;
    DWORD length = 0;
    const Bytes abc = {'a', 'b', 'c'};
    Bytes ciphertext = ScriptedDeviceLibrary::maskOf({'c', 'b', 'a'}); ///< of `abc`, little-endian

private:
    Answer cut(const std::function<BOOL()>& call) {
        const Answer answer = run(call);
        if (answer.result) data.resize(length);
        return answer;
    }
};

TEST_F(EncryptionTest, HandlesAndLengthsAreCheckedBeforeAnythingElse) {
    BYTE byte = 0;
    const auto encrypts = [&](HCRYPTPROV context, HCRYPTKEY key, DWORD* size, DWORD capacity = 256) {
        return [=, &byte] { return CPEncrypt(context, key, 0, TRUE, 0, &byte, size, capacity); };
    };
    const auto decrypts = [&](HCRYPTPROV context, HCRYPTKEY key, BYTE* bytes) {
        return [=, this] { return CPDecrypt(context, key, 0, TRUE, 0, bytes, &length); };
    };
    length = 0;
    expectRefused({
        {encrypts(0, 0, nullptr), ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null"},
        {encrypts(0, 0, &length), NTE_BAD_UID, "CPEncrypt: context is null or not initialized"},
        {encrypts(provider, 0, &length), NTE_BAD_KEY, "CPEncrypt: key handle is null"},
        {encrypts(provider, rsaKey, &length), NTE_BAD_LEN, "Invalid data length for encrypt: 0"},
        {decrypts(0, 0, &byte), NTE_BAD_UID, "CPDecrypt: context is null or not initialized"},
        {decrypts(provider, provider, &byte), NTE_BAD_KEY, "CPDecrypt: key handle is null"},
        {decrypts(provider, rsaKey, &byte), NTE_BAD_DATA, "Invalid data length for decrypt : 0"},
        {encrypts(provider, rsaKey, &length, 255), ERROR_MORE_DATA,
         "CPEncrypt: buffer too small, cbBufLen=255 requiredSize=256"},
        {decrypts(provider, rsaKey, nullptr), NTE_BAD_DATA, "Invalid data length for decrypt : 256"},
    });
    for (const DWORD hostile : {257u, 0x80000000u, 0xFFFFFFFFu}) {
        length = hostile;
        EXPECT_EQ(run(encrypts(provider, rsaKey, &length)).lastError, kBadLen);
    }
    EXPECT_FALSE(run(decrypts(provider, rsaKey, &byte)).result);
    for (const auto& [key, size] : {std::pair{rsaKey, 256u}, {aesKey(32), 32u}, {aesKey(16), 16u}}) {
        length = 0;
        EXPECT_EQ(run([&, any = key] { return CPEncrypt(provider, any, 0, TRUE, 0, nullptr, &length, 0); }),
                  accepted());
        EXPECT_EQ(length, size) << "key bits / 8, not a padded size";
    }
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(EncryptionTest, AesTypesVectorsAndFinalPieces) {
    const Bytes iv(16, 0xAB);
    struct Row {
        std::size_t keyLength;
        DWORD mode;
        Bytes iv;
        BOOL final;
        const char *type, *ivShown;
    };
    for (const Row& row : {Row{16, CRYPT_MODE_CBC, {}, TRUE, "1", "0000..0000(16)"},
                           {24, CRYPT_MODE_CBC, iv, 7, "2", "ABAB..ABAB(16)"},
                           {32, CRYPT_MODE_CBC, {}, FALSE, "2", "0000..0000(16)"},
                           {16, 0, Bytes(8, 0xAB), TRUE, "1", "ABAB..ABAB(8)"},
                           {16, CRYPT_MODE_ECB, iv, TRUE, "5", "null(0)"},
                           {20, CRYPT_MODE_ECB, iv, TRUE, "6", "null(0)"},
                           {32, CRYPT_MODE_ECB, {}, TRUE, "6", "null(0)"}}) {
        setProcessIv(row.iv);
        const HCRYPTKEY key = aesKey(row.keyLength, row.mode);
        const std::string shownKey = concat("key=4B4B..4B4B(", row.keyLength, ")");
        library.clearCalls();
        EXPECT_EQ(encrypt(key, abc, 64, CRYPT_OAEP, row.final), accepted());
        EXPECT_EQ(length, row.final ? 16u : 3u);
        EXPECT_THAT(debugLines,
                    ElementsAre("CPEncrypt",
                                concat("CPEncrypt: symmetric encryption, keyLen=", row.keyLength),
                                concat("CPEncrypt: symmetric encryption success, length=", length)));
        const Bytes encrypted = data;
        if (row.final) {
            EXPECT_EQ(decrypt(key, encrypted, 0), accepted());
            EXPECT_EQ(data, abc);
        } else {
            decrypt(key, Bytes(16), 0);
        }
        EXPECT_EQ(library.calls(),
                  (std::vector{concat("veltra_encrypt_aes(serial=", serial, ", type=", row.type, ", ",
                                      shownKey, ", in=616263, final=", row.final ? 1 : 0,
                                      ", iv=", row.ivShown, ", extra=null(0))"),
                               concat("veltra_decrypt_aes(serial=", serial, ", ", shownKey,
                                      ", in=", row.final ? "3B38..5757" : "0000..0000",
                                      "(16), flag=0, iv=", row.ivShown, ")")}));
    }
    library.clearCalls();
    EXPECT_EQ(encrypt(aesKey(20), abc, 64),
              refused(NTE_BAD_KEY, {"CPEncrypt: unsupported symmetric key length: 20"}));
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_EQ(decrypt(aesKey(2), ScriptedDeviceLibrary::maskOf({'h', 'i', 1}), 0), accepted());
    EXPECT_THAT(debugLines, ElementsAre("CPDecrypt",
                                        "CPDecrypt - dwFlags : 0x00000000 padding=PKCS1 (defaulting to OAEP)",
                                        "CPDecrypt - key id : ", "CPDecrypt - usage : 0",
                                        "CPDecrypt input iv : 00000000000000000000000000000000",
                                        "CPDecrypt input key : 4B4B", "CPDecrypt - decrypted data : 6869",
                                        "CPDecrypt- return"));
}

TEST_F(EncryptionTest, FailuresAndOutputThatDoesNotFit) {
    storePinOfToken();
    const HCRYPTKEY key = aesKey(16);
    const Bytes block(16, 1);
    EXPECT_EQ(encrypt(key, block, 16),
              refused(ERROR_MORE_DATA, {"CPEncrypt: symmetric output buffer too small, required=32"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(data, block) << "nothing is copied";
    const auto scriptAll = [&](const Script& script) {
        library.clearScripts();
        for (const char* name :
             {"veltra_encrypt_aes", "veltra_decrypt_aes", "veltra_encrypt", "veltra_decrypt"})
            library.script(name, script);
    };
    scriptAll({.result = 9});
    EXPECT_EQ(encrypt(key, abc, 16), refused(kLibraryFailed, {"CPEncrypt: symmetric encryption failed: 9"}));
    EXPECT_EQ(decrypt(key, block), refused(kLibraryFailed, {"Symmetric decryption failed : 9"}));
    EXPECT_EQ(encrypt(rsaKey, abc, 256), refused(kLibraryFailed, {"Encrypt data failed: 9"}));
    EXPECT_EQ(decrypt(rsaKey, ciphertext), refused(kLibraryFailed, {"Decrypt data failed : 9"}));
    scriptAll({.length = 257});
    EXPECT_EQ(encrypt(rsaKey, abc, 512).lastError, kLibraryFailed) << "more than the library was given";
    for (const HCRYPTKEY any : {key, rsaKey}) {
        EXPECT_EQ(decrypt(any, ciphertext).lastError, static_cast<DWORD>(ERROR_MORE_DATA));
        EXPECT_EQ(length, 257u);
        EXPECT_EQ(data, ciphertext) << "a plaintext longer than the ciphertext is not copied";
    }
}

TEST_F(EncryptionTest, RsaCiphertextIsLittleEndianAndComesBack) {
    storePinOfToken();
    liveKey(rsaKey)->tokenFlag = 1;
    for (const auto& [flags, padding] : {std::pair{0u, "1"}, {0x40u, "4"}, {0x41u, "4"}}) {
        library.clearCalls();
        EXPECT_EQ(encrypt(rsaKey, abc, 300, flags), accepted());
        EXPECT_THAT(debugLines, ElementsAre("CPEncrypt", "CSP: Public key is raw modulus, converting to DER",
                                            "CPEncrypt - return success"));
        EXPECT_EQ(library.calls(), std::vector{concat("veltra_encrypt(type=8, padding=", padding,
                                                      ", in=616263, out=256, key=3082..0001(294))")});
        EXPECT_EQ(data, ciphertext);
    }
    library.clearCalls();
    EXPECT_EQ(decrypt(rsaKey, ciphertext), accepted());
    EXPECT_EQ(data, abc) << "the plaintext is not reversed";
    EXPECT_EQ(library.calls(), std::vector{decryption("1")}) << "OAEP never asks which token it is";
    EXPECT_THAT(debugLines,
                ElementsAre("CPDecrypt", "CPDecrypt - dwFlags : 0x00000040 padding=OAEP",
                            "CPDecrypt - key id : 11111111111111111111111111111111", "CPDecrypt - usage : 1",
                            "ensurePasswordValidated: PIN already validated, return true",
                            "Before reversing encrypted data", "After reversing encrypted data",
                            "Before decrypting data", "After decrypting data", "CPDecrypt- return"));
    // The type comes from the count of public key bytes, taken for bits: deliberate.
    for (const auto& [count, type] : {std::pair{0u, 8}, {512u, 8}, {550u, 8}, {1024u, 7}}) {
        std::ranges::fill(liveKey(rsaKey)->publicKey, static_cast<unsigned char>(0x30)); // passed on as DER
        liveKey(rsaKey)->publicKeyLength = count;
        EXPECT_EQ(encrypt(rsaKey, abc, 256), accepted());
        EXPECT_THAT(debugLines, Contains("CSP: Public key is already DER encoded"));
        EXPECT_THAT(library.calls().back(), testing::StartsWith(concat("veltra_encrypt(type=", type)));
    }
    EXPECT_EQ(rsaEncryptionType(4096), EncryptionType::Rsa4096) << "more bytes than there can be";
}

TEST_F(EncryptionTest, Pkcs1DecryptionIsForFips1402TokensAndRefusedBeforeThePinIsAsked) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Global\\VeltraDSC_FipsPkcs1DecryptBlocked");
    EXPECT_EQ(decrypt(rsaKey, ciphertext, 0),
              refused(NTE_BAD_FLAGS,
                      {"CPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)"}));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
    EXPECT_THAT(prompt.seen(), IsEmpty());
    token.info.fipsMarker = "3.1";
    prompt.willType({"1234"});
    EXPECT_EQ(decrypt(rsaKey, ciphertext, 0), accepted());
    EXPECT_EQ(data, abc);
    // Without a token there is nothing to ask, and the rule is not applied.
    const HCRYPTPROV tokenless = acquire(nullptr, CRYPT_VERIFYCONTEXT | CRYPT_SILENT);
    EXPECT_EQ(run([&] { return CPDecrypt(tokenless, rsaKey, 0, TRUE, 0, data.data(), &length); }),
              refused(NTE_SILENT_CONTEXT,
                      {"ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false",
                       "CPDecrypt: ensurePasswordValidated failed"}));
}

TEST_F(EncryptionTest, ExpiredSessionIsPromptedForOnceAndRetriedOnce) {
    storePinOfToken();
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    prompt.willType({"1234"});
    prompt.whileAsked([&] { length = 1; }); // the application's window procedures run meanwhile
    EXPECT_EQ(decrypt(rsaKey, ciphertext), accepted());
    EXPECT_EQ(data, abc);
    EXPECT_THAT(debugLines, Contains("CPDecrypt: SSO expired, re-prompting for PIN"));
    EXPECT_THAT(library.calls("veltra_decrypt"), ElementsAre(decryption(), decryption()));
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    prompt.willType({"1234"});
    EXPECT_EQ(decrypt(rsaKey, ciphertext), refused(kLibraryFailed, {"Decrypt data failed : 49"}));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "ask"));
    const Answer cancelled = decrypt(rsaKey, ciphertext);
    EXPECT_EQ(cancelled.lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(cancelled.errors.back(), "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
    EXPECT_EQ(data, ciphertext);
}

} // namespace
} // namespace veltra::test
