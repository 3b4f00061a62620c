#include "support/csp_test.h"

#include "foundation/text.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const DWORD kMoreData = ERROR_MORE_DATA;
const DWORD kLibraryFailed = 0x8009001D;
const DWORD kBadLen = 0x80090004;
const DWORD kBadData = 0x80090005;
const DWORD kBadKey = 0x80090003;
const std::string kPkcs1Blocked =
    "CPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)";

class EncryptionTest : public CspTest {
protected:
    EncryptionTest() { setProcessIv({}); }

    HCRYPTKEY aesKey(std::size_t keyLength, DWORD mode = CRYPT_MODE_CBC) {
        const HCRYPTKEY key = addSymmetricKey(std::string(keyLength, 'K'));
        liveKey(key)->keyBits = static_cast<std::uint32_t>(keyLength * 8);
        liveKey(key)->mode = mode;
        return key;
    }
    /// Runs it on a copy of `text` in a buffer of `capacity` bytes; the output is in `data`.
    Answer encrypt(HCRYPTPROV provider, HCRYPTKEY key, const Bytes& text, DWORD capacity, DWORD flags = 0,
                   BOOL final = TRUE) {
        data = text;
        data.resize(std::max<std::size_t>(capacity, 1), 0xEE);
        length = static_cast<DWORD>(text.size());
        return collect(
            [&] { return CPEncrypt(provider, key, 0xBAD, final, flags, data.data(), &length, capacity); });
    }
    Answer decrypt(HCRYPTPROV provider, HCRYPTKEY key, const Bytes& ciphertext, DWORD flags = CRYPT_OAEP) {
        data = ciphertext;
        length = static_cast<DWORD>(ciphertext.size());
        return collect([&] { return CPDecrypt(provider, key, 0xBAD, FALSE, flags, data.data(), &length); });
    }
    std::string decryption(const std::string& pin, const std::string& flag = "0") const {
        return "veltra_decrypt(serial=" + serial + ", key=1111..1111, pin=" + pin +
               ", in=0000..3839(256), flag=" + flag + ")";
    }
    static Bytes ciphertextOfAbc() {
        Bytes littleEndian = {'c' ^ 0x5A, 'b' ^ 0x5A, 'a' ^ 0x5A};
        littleEndian.resize(256);
        return littleEndian;
    }

    Bytes data;
    DWORD length = 0;
    const Bytes abc = {'a', 'b', 'c'};

private:
    Answer collect(const std::function<BOOL()>& call) {
        Answer answer = run(call);
        if (answer.result) data.resize(length);
        return answer;
    }
};

TEST_F(EncryptionTest, HandlesAndLengthsAreChecked) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    library.clearCalls();
    EXPECT_EQ(run([&] { return CPEncrypt(0, 0, 0, TRUE, 0, nullptr, nullptr, 0); }),
              refused(ERROR_INVALID_PARAMETER, {"CPEncrypt: pcbDataLen is null"}));
    EXPECT_EQ(encrypt(0, 0, abc, 256),
              refused(NTE_BAD_UID, {"CPEncrypt: context is null or not initialized"}));
    EXPECT_EQ(encrypt(provider, 0, abc, 256), refused(kBadKey, {"CPEncrypt: key handle is null"}));
    EXPECT_EQ(decrypt(0, 0, abc), refused(NTE_BAD_UID, {"CPDecrypt: context is null or not initialized"}));
    EXPECT_EQ(decrypt(provider, provider, abc), refused(kBadKey, {"CPDecrypt: key handle is null"}));
    EXPECT_EQ(decrypt(provider, key, {}), refused(kBadData, {"Invalid data length for decrypt : 0"}));
    length = 5;
    EXPECT_EQ(run([&] { return CPDecrypt(provider, key, 0, TRUE, 0, nullptr, &length); }),
              refused(kBadData, {"Invalid data length for decrypt : 5"}));
    EXPECT_EQ(run([&] { return CPDecrypt(provider, key, 0, TRUE, 0, data.data(), nullptr); }).result, FALSE);
    // The buffer is measured before the data is looked at.
    EXPECT_EQ(encrypt(provider, key, {}, 255),
              refused(kMoreData, {"CPEncrypt: buffer too small, cbBufLen=255 requiredSize=256"}));
    EXPECT_EQ(length, 256u);
    EXPECT_EQ(encrypt(provider, key, {}, 256), refused(kBadLen, {"Invalid data length for encrypt: 0"}));
    for (const DWORD hostile : {257u, 0x80000000u, 0xFFFFFFFFu}) {
        data.assign(256, 0);
        length = hostile;
        EXPECT_EQ(
            run([&] { return CPEncrypt(provider, key, 0, TRUE, 0, data.data(), &length, 256); }).lastError,
            kBadLen);
        if (hostile < 0x80000000u) continue;
        EXPECT_EQ(run([&] { return CPDecrypt(provider, key, 0, TRUE, 0, data.data(), &length); }).result,
                  FALSE);
    }
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(EncryptionTest, SizeQueryGivesTheKeyLengthInBytesForEveryKindOfKey) {
    token.addKeyPair(0x11, kKeyTypeRsa3072);
    const HCRYPTPROV provider = acquire();
    for (const auto& [key, size] :
         {std::pair{userKey(provider, AT_KEYEXCHANGE), 384u}, {aesKey(32), 32u}, {aesKey(16), 16u}}) {
        length = 0;
        EXPECT_EQ(run([&] { return CPEncrypt(provider, key, 0, TRUE, 0, nullptr, &length, 0); }), accepted());
        EXPECT_EQ(length, size);
    }
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(EncryptionTest, AesTypesVectorsAndFinalPieces) {
    const HCRYPTPROV provider = acquire();
    const Bytes iv(16, 0xAB);
    struct Row {
        std::size_t keyLength;
        DWORD mode;
        Bytes iv;
        BOOL final;
        const char *type, *ivShown; // of the call; no type: refused
    };
    const Row kRows[] = {
        {16, CRYPT_MODE_CBC, {}, TRUE, "1", "0000..0000(16)"},
        {24, CRYPT_MODE_CBC, iv, 7, "2", "ABAB..ABAB(16)"},
        {32, CRYPT_MODE_CBC, {}, FALSE, "2", "0000..0000(16)"},
        {16, CRYPT_MODE_ECB, iv, TRUE, "5", "null(0)"},
        {20, CRYPT_MODE_ECB, iv, TRUE, "6", "null(0)"},
        {32, CRYPT_MODE_ECB, {}, TRUE, "6", "null(0)"},
        {16, 0, Bytes(8, 0xAB), TRUE, "1", "ABAB..ABAB(8)"},
        {20, CRYPT_MODE_CBC, {}, TRUE, nullptr, ""},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.keyLength * 10 + row.mode);
        setProcessIv(row.iv);
        const HCRYPTKEY key = aesKey(row.keyLength, row.mode);
        library.clearCalls();
        const Answer answer = encrypt(provider, key, abc, 64, CRYPT_OAEP, row.final);
        const std::string trace = "CPEncrypt: symmetric encryption, keyLen=" + std::to_string(row.keyLength);
        EXPECT_THAT(debugLines, Contains(trace));
        if (!row.type) {
            EXPECT_EQ(answer, refused(kBadKey, {"CPEncrypt: unsupported symmetric key length: 20"}));
            EXPECT_THAT(library.calls(), IsEmpty());
            continue;
        }
        EXPECT_EQ(answer, accepted());
        const std::string shownKey = "key=4B4B..4B4B(" + std::to_string(row.keyLength) + ")";
        EXPECT_THAT(library.calls(),
                    ElementsAre("veltra_encrypt_aes(serial=" + serial + ", type=" + row.type + ", " +
                                shownKey + ", in=616263, final=" + (row.final ? "1" : "0") +
                                ", iv=" + row.ivShown + ", extra=null(0))"));
        EXPECT_EQ(length, row.final ? 16u : 3u);
        EXPECT_EQ(debugLines.back(),
                  "CPEncrypt: symmetric encryption success, length=" + std::to_string(length));
        if (!row.final) continue;
        const Bytes ciphertext = data;
        library.clearCalls();
        EXPECT_EQ(decrypt(provider, key, ciphertext, 0), accepted());
        EXPECT_EQ(data, abc);
        EXPECT_THAT(library.calls(), ElementsAre("veltra_decrypt_aes(serial=" + serial + ", " + shownKey +
                                                 ", in=3B38..5757(16), flag=0, iv=" + row.ivShown + ")"));
    }
}

TEST_F(EncryptionTest, AesDecryptionTracesItsKeyAndPlaintext) {
    const HCRYPTPROV provider = acquire(nullptr, CRYPT_SILENT);
    EXPECT_EQ(decrypt(provider, aesKey(16), ScriptedDeviceLibrary::maskOf({'h', 'i', 1}), 0), accepted());
    EXPECT_THAT(debugLines, ElementsAre("CPDecrypt",
                                        "CPDecrypt - dwFlags : 0x00000000 padding=PKCS1 (defaulting to OAEP)",
                                        "CPDecrypt - key id : ", "CPDecrypt - usage : 0",
                                        "CPDecrypt input iv : 00000000000000000000000000000000",
                                        "CPDecrypt input key : 4B4B4B4B4B4B4B4B4B4B4B4B4B4B4B4B",
                                        "CPDecrypt - decrypted data : 6869", "CPDecrypt- return"));
}

TEST_F(EncryptionTest, AesFailuresAndLengthsThatDoNotFit) {
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = aesKey(16);
    const Bytes block = ScriptedDeviceLibrary::maskOf(Bytes(16, 0x40));
    EXPECT_EQ(encrypt(provider, key, Bytes(16, 1), 16),
              refused(kMoreData, {"CPEncrypt: symmetric output buffer too small, required=32"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(data, Bytes(16, 1)) << "nothing is copied";
    library.script("veltra_encrypt_aes", {.result = 9});
    EXPECT_EQ(encrypt(provider, key, abc, 16),
              refused(kLibraryFailed, {"CPEncrypt: symmetric encryption failed: 9"}));
    library.script("veltra_decrypt_aes", {.result = 9});
    EXPECT_EQ(decrypt(provider, key, block), refused(kLibraryFailed, {"Symmetric decryption failed : 9"}));
    EXPECT_EQ(data, block);
    library.clearScripts();
    for (const char* function : {"veltra_encrypt_aes", "veltra_decrypt_aes"})
        library.script(function, {.length = -1});
    EXPECT_EQ(encrypt(provider, key, abc, 16).lastError, kLibraryFailed);
    EXPECT_EQ(decrypt(provider, key, block).lastError, kLibraryFailed);
    library.clearScripts();
    library.script("veltra_decrypt_aes", {.length = 17});
    EXPECT_EQ(decrypt(provider, key, block).lastError, kMoreData);
    EXPECT_EQ(length, 17u);
    EXPECT_EQ(data, block) << "a plaintext longer than the ciphertext is not copied";
}

TEST_F(EncryptionTest, RsaCiphertextIsLittleEndianAndComesBack) {
    VeltraKeyPair& pair = token.addKeyPair(0x11);
    pair.flag = 1;
    storePinOfToken();
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    for (const auto& [flags, padding] : {std::pair{DWORD{0}, "1"}, {DWORD{CRYPT_OAEP}, "4"}, {0x41u, "4"}}) {
        library.clearCalls();
        EXPECT_EQ(encrypt(provider, key, abc, 300, flags), accepted());
        EXPECT_EQ(debugLines,
                  (std::vector<std::string>{"CPEncrypt", "CSP: Public key is raw modulus, converting to DER",
                                            "CPEncrypt - return success"}));
        EXPECT_THAT(library.calls(), ElementsAre("veltra_encrypt(type=8, padding=" + std::string(padding) +
                                                 ", in=616263, out=256, key=3082..0001(294))"));
        EXPECT_EQ(data, ciphertextOfAbc());
    }
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc()), accepted());
    EXPECT_EQ(data, abc) << "the plaintext is not reversed";
    EXPECT_THAT(library.calls("veltra_decrypt"), ElementsAre(decryption("1234", "1")));
    EXPECT_THAT(library.calls("veltra_getTokenInfo"), IsEmpty()) << "OAEP never asks which token it is";
    EXPECT_THAT(debugLines,
                ElementsAre("CPDecrypt", "CPDecrypt - dwFlags : 0x00000040 padding=OAEP",
                            "CPDecrypt - key id : 11111111111111111111111111111111", "CPDecrypt - usage : 1",
                            "ensurePasswordValidated: PIN already validated, return true",
                            "Before reversing encrypted data", "After reversing encrypted data",
                            "Before decrypting data", "After decrypting data", "CPDecrypt- return"));
}

TEST_F(EncryptionTest, RsaTypeComesFromTheCountOfPublicKeyBytesTakenForBits) {
    const HCRYPTPROV provider = acquire();
    for (const auto& [count, type] : {std::pair{0u, "8"}, {512u, "8"}, {550u, "8"}, {1024u, "7"}}) {
        auto record = std::make_unique<KEY_HANDLE>();
        std::ranges::fill(record->publicKey,
                          static_cast<unsigned char>(0x30)); // "DER": passed on as it stands
        record->publicKeyLength = count;
        record->keyBits = 4096;
        library.clearCalls();
        EXPECT_EQ(encrypt(provider, addKey(std::move(record)), abc, 512), accepted());
        EXPECT_THAT(debugLines, Contains("CSP: Public key is already DER encoded"));
        EXPECT_THAT(library.calls().at(0), testing::StartsWith(std::string("veltra_encrypt(type=") + type));
    }
}

TEST_F(EncryptionTest, RsaFailures) {
    token.addKeyPair(0x11);
    storePinOfToken();
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    for (const int hostile : {-1, 257}) {
        library.script("veltra_encrypt", {.length = hostile});
        EXPECT_EQ(encrypt(provider, key, abc, 512).lastError, kLibraryFailed) << hostile;
        EXPECT_EQ(length, 3u);
    }
    library.clearScripts();
    library.script("veltra_encrypt", {.result = 5});
    EXPECT_EQ(encrypt(provider, key, abc, 256), refused(kLibraryFailed, {"Encrypt data failed: 5"}));
    library.script("veltra_decrypt", {.length = 257, .onCall = 1});
    library.script("veltra_decrypt", {.result = 6, .onCall = 2});
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc()).lastError, kMoreData);
    EXPECT_EQ(length, 257u);
    EXPECT_EQ(data, ciphertextOfAbc());
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc()),
              refused(kLibraryFailed, {"Decrypt data failed : 6"}));
}

TEST_F(EncryptionTest, Pkcs1DecryptionIsForFips1402TokensAndRefusedBeforeThePinIsAsked) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Global\\VeltraDSC_FipsPkcs1DecryptBlocked");
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc(), 0), refused(NTE_BAD_FLAGS, {kPkcs1Blocked}));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_EQ(encrypt(provider, key, abc, 256, 0), accepted()) << "no rule for encryption";
    token.info.fipsMarker = "3.1";
    prompt.willType({"1234"});
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc(), 0), accepted());
    EXPECT_EQ(data, abc);
    // Without a token there is nothing to ask, and the rule is not applied.
    const HCRYPTPROV verify = acquire(nullptr, CRYPT_VERIFYCONTEXT | CRYPT_SILENT);
    EXPECT_EQ(decrypt(verify, key, ciphertextOfAbc(), 0),
              refused(NTE_SILENT_CONTEXT,
                      {"ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false",
                       "CPDecrypt: ensurePasswordValidated failed"}));
}

TEST_F(EncryptionTest, ExpiredSessionIsPromptedForOnceAndRetriedOnce) {
    token.addKeyPair(0x11);
    storePinOfToken();
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    const std::string expired = "CPDecrypt: SSO expired, re-prompting for PIN";
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    prompt.willType({"1234"});
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc()), accepted());
    EXPECT_EQ(data, abc);
    EXPECT_THAT(debugLines, Contains(expired));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask"));
    EXPECT_THAT(library.calls("veltra_decrypt"), ElementsAre(decryption("1234"), decryption("1234")));

    library.clearScripts();
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    prompt.willType({"1234"});
    EXPECT_EQ(decrypt(provider, key, ciphertextOfAbc()),
              refused(kLibraryFailed, {"Decrypt data failed : 49"}));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "ask"));
    const Answer cancelled = decrypt(provider, key, ciphertextOfAbc());
    EXPECT_EQ(cancelled.lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(cancelled.errors.back(), "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
    EXPECT_EQ(data, ciphertextOfAbc());
}

} // namespace
} // namespace veltra::test
