#include "support/ksp_test.h"

#include "foundation/text.h"
#include "token/device_state.h"
#include "token/process_iv.h"

#include <climits>

namespace veltra::test {
namespace {

using EntryPoint = decltype(&KSPEncrypt);

constexpr DWORD kPkcs1 = 2, kOaep = 4, kSilent = 0x40;

class KspEncryptionTest : public KspTest {
protected:
    KspEncryptionTest() {
        setProcessIv({});
        const Bytes masked = ScriptedDeviceLibrary::maskOf(abc);
        ciphertext.insert(ciphertext.end(), masked.begin(), masked.end());
    }
    /// The output is in `data` afterwards, cut to its length on success. A capacity of 0 is a size query.
    StatusAnswer run(EntryPoint function, NCRYPT_KEY_HANDLE key, Bytes input, DWORD capacity, DWORD flags = 0,
                     void* info = nullptr) {
        data.assign(capacity, 0xEE);
        length = 7;
        const StatusAnswer answer =
            call(function, provider, key, input.data(), static_cast<DWORD>(input.size()), info,
                 capacity == 0 ? nullptr : data.data(), capacity, &length, flags);
        if (answer.status == 0) data.resize(length);
        return answer;
    }
    StatusAnswer decrypt(DWORD capacity = 256, DWORD flags = kOaep) {
        return run(KSPDecrypt, rsaKey, ciphertext, capacity, flags);
    }

    const NCRYPT_KEY_HANDLE rsaKey = addKey(token.addKeyPair(0x11));
    const NCRYPT_KEY_HANDLE aesKey = addSymmetricKey(std::string(16, 'K'));
    Bytes data;
    DWORD length = 0;
    const Bytes abc = {'a', 'b', 'c'};
    Bytes ciphertext = Bytes(253); ///< of `abc` under rsaKey
    void* const unreadable = reinterpret_cast<void*>(1);
};

TEST_F(KspEncryptionTest, RsaPaddingTypeAndKeyFormReachTheLibrary) {
    for (const auto& [flags, hash, padding] : {std::tuple{0u, "SHA256", 1},
                                               {kPkcs1, "-", 1},
                                               {kOaep, "-", 4},
                                               {kOaep, "no name", 4},
                                               {kOaep, "SHA1", 8},
                                               {kOaep, "SHA256", 5},
                                               {kOaep, "SHA384", 6},
                                               {kOaep | kPkcs1, "SHA512", 7},
                                               {kOaep, "SHA224", 4},
                                               {kOaep, "sha1", 4}}) {
        const std::string name = hash;
        const std::u16string wide(name.begin(), name.end());
        BCRYPT_OAEP_PADDING_INFO info{};
        if (name != "no name") info.pszAlgId = reinterpret_cast<LPCWSTR>(wide.c_str());
        void* structure = flags < kOaep ? unreadable : name == "-" ? nullptr : &info;
        EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 300, flags, structure), succeeded());
        EXPECT_EQ(length, 300u);
        EXPECT_EQ(library.calls().back(), concat("veltra_encrypt(type=8, padding=", padding,
                                                 ", in=616263, out=300, key=3082..0001(294))"));
    }
    EXPECT_THAT(debugLines, ElementsAre("KSPEncrypt", "KSP: Public key is raw modulus, converting to DER",
                                        "KSP: Encrypt success"));
    liveKspKey(rsaKey)->publicKey[0] = 0x30;
    liveKspKey(rsaKey)->bitLength = 3072;
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 384), succeeded());
    EXPECT_EQ(library.calls().back(),
              "veltra_encrypt(type=9, padding=1, in=616263, out=384, key=30C1..BEBF(256))");
    EXPECT_THAT(debugLines, Contains("KSP: Public key is already DER encoded"));
    liveKspKey(rsaKey)->publicKeyLength = 0;
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 384), succeeded());
    EXPECT_THAT(library.calls().back(), testing::EndsWith(", key=empty)")) << "a pointer all the same";
    for (const auto& [script, code] : {std::pair{Script{.result = 9}, "9"},
                                       {{.length = -1}, "4294967295"},
                                       {{.length = 513}, "4294967295"}}) {
        library.clearScripts();
        library.script("veltra_encrypt", script);
        EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 512),
                  failed(NTE_INTERNAL_ERROR, {concat("KSP: Encrypt failed: ", code)}));
        EXPECT_EQ(length, 7u);
    }
}

TEST_F(KspEncryptionTest, AesTakesTheProcessIvInBothModesAndSizeQueriesRunTheWholeOperation) {
    const Bytes block(16, 'x'), encrypted = ScriptedDeviceLibrary::maskOf(block);
    for (const auto& [keyLength, ecb, type, iv, ivShown] :
         {std::tuple{16u, false, 1, Bytes(16, 0xAB), "ABAB..ABAB(16)"},
          {24u, false, 2, Bytes(8, 0xAB), "ABAB..ABAB(8)"},
          {16u, true, 5, Bytes(16, 0xAB), "ABAB..ABAB(16)"},
          {32u, true, 6, Bytes(), "null(0)"}}) {
        const NCRYPT_KEY_HANDLE key = addSymmetricKey(std::string(keyLength, 'K'));
        liveKspKey(key)->ecbMode = ecb;
        setProcessIv(iv);
        const std::string mode = ecb ? "ECB mode" : "CBC mode";
        const std::string shown = concat("key=4B4B..4B4B(", keyLength, ")");
        library.clearCalls();
        EXPECT_EQ(run(KSPEncrypt, key, block, 0), succeeded());
        EXPECT_EQ(run(KSPEncrypt, key, block, 16, kOaep), succeeded());
        EXPECT_EQ(data, encrypted);
        EXPECT_THAT(debugLines, ElementsAre("KSPEncrypt", "KSP: Symmetric encrypt " + mode,
                                            "KSP: Symmetric encrypt success, length: 16"));
        EXPECT_EQ(run(KSPDecrypt, key, encrypted, 0), succeeded());
        EXPECT_EQ(length, 16u);
        EXPECT_EQ(debugLines.back(), "pbOutput == NULL ");
        EXPECT_EQ(run(KSPDecrypt, key, encrypted, 16), succeeded());
        EXPECT_EQ(data, block);
        EXPECT_THAT(debugLines, ElementsAre("KSPDecrypt", testing::_, "KSP: Symmetric decrypt " + mode,
                                            "KSP: Decrypt input iv : " + toHex(iv),
                                            "KSP: Decrypt input key : " + toHex(Bytes(keyLength, 'K')),
                                            "KSP: Symmetric decrypt success, length: 16"));
        const std::string encryption =
            concat("veltra_encrypt_aes(serial=", serial, ", type=", type, ", ", shown,
                   ", in=7878..7878(16), final=0, iv=", ivShown, ", extra=null(0))");
        const std::string decryption = concat("veltra_decryptSymetric(serial=", serial,
                                              ", in=2222..2222(16), out=32, iv=", ivShown, ", ", shown, ")");
        EXPECT_THAT(library.calls(), ElementsAre(encryption, encryption, decryption, decryption));
    }
}

TEST_F(KspEncryptionTest, OutputThatDoesNotFitAndFailuresOfAes) {
    const Bytes block(16, 'x');
    EXPECT_EQ(run(KSPEncrypt, aesKey, block, 15),
              failed(NTE_BUFFER_TOO_SMALL, {"KSPEncrypt: symmetric output buffer too small, required=16"}));
    EXPECT_EQ(run(KSPDecrypt, aesKey, block, 15),
              failed(NTE_BUFFER_TOO_SMALL, {"KSPDecrypt: symmetric output buffer too small, required=16"}));
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(data, Bytes(15, 0xEE));
    library.script("veltra_encrypt_aes", {.result = 9});
    EXPECT_EQ(run(KSPEncrypt, aesKey, block, 64),
              failed(NTE_INTERNAL_ERROR, {"KSP: Symmetric encryption failed: 9"}));
    library.script("veltra_decryptSymetric", {.length = 33});
    EXPECT_EQ(run(KSPDecrypt, aesKey, block, 64),
              failed(NTE_INTERNAL_ERROR, {"KSP: Symmetric decryption failed: 4294967295"}));
    library.clearCalls();
    for (const auto& [function, input] : {std::pair{&KSPEncrypt, abc}, {&KSPDecrypt, Bytes()}}) {
        EXPECT_EQ(run(function, rsaKey, input, 0), succeeded()) << "decryption does not look at the input";
        EXPECT_EQ(length, 256u);
    }
    EXPECT_EQ(run(KSPEncrypt, addKey(token.addKeyPair(0x55, kKeyTypeEcP256)), abc, 32),
              failed(NTE_NOT_SUPPORTED, {"KSPEncrypt: an EC key does not encrypt"}));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(KspEncryptionTest, PaddingIsLoggedBeforeAnyCheckAndItsStructureReadOnlyForOaep) {
    BCRYPT_OAEP_PADDING_INFO named{}, unnamed{};
    named.pszAlgId = reinterpret_cast<LPCWSTR>(u"SHA256");
    using Lines = std::vector<std::string>;
    for (const auto& [flags, info, lines] :
         {std::tuple{0u, unreadable, Lines{"dwFlags=0x00000000 padding=NONE (defaulting to OAEP)"}},
          {kPkcs1, unreadable, {"dwFlags=0x00000002 padding=PKCS1"}},
          {0x44u, nullptr, {"dwFlags=0x00000044 padding=OAEP"}},
          {kOaep, &unnamed, {"dwFlags=0x00000004 padding=OAEP", "OAEP hash algorithm=NONE/UNKNOWN"}},
          {0xABCDEF06, &named, {"dwFlags=0xABCDEF06 padding=PKCS1", "OAEP hash algorithm=SHA256"}}}) {
        EXPECT_EQ(call(KSPDecrypt, 0, 0, nullptr, 0, info, nullptr, 0, nullptr, flags).status,
                  NTE_INVALID_HANDLE);
        Lines expected = {"KSPDecrypt"};
        for (const std::string& line : lines)
            expected.push_back("KSPDecrypt: " + line);
        EXPECT_EQ(debugLines, expected);
    }
}

TEST_F(KspEncryptionTest, Pkcs1DecryptionOnAFips1403TokenIsRefusedBeforeTheKeyIsLookedAt) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, "Global\\VeltraDSC_FipsPkcs1DecryptBlocked");
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0}, rsaKey, aesKey}) {
        EXPECT_EQ(
            run(KSPDecrypt, key, ciphertext, 256, kPkcs1 | kOaep),
            failed(NTE_NOT_SUPPORTED, {"KSPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token "
                                       "(OAEP required)"}));
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    }
    CloseHandle(event);
    token.info.fipsMarker = "3.1";
    storePinOfToken();
    EXPECT_EQ(decrypt(256, kPkcs1), succeeded());
    library.setConnected(serial, false);
    EXPECT_EQ(KSPDecrypt(openProvider(), 0, nullptr, 0, nullptr, nullptr, 0, &length, kPkcs1),
              NTE_INVALID_PARAMETER)
        << "without a token the rule is not applied";
}

TEST_F(KspEncryptionTest, RsaDecryptionVerifiesTheUserAndRetriesOnceAfterExpiry) {
    const std::string refused = "KSPDecrypt: password validation failed";
    EXPECT_EQ(decrypt(256, kSilent),
              failed(NTE_SILENT_CONTEXT, {"KSPDecrypt: silent mode requested but PIN not validated"}));
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_EQ(decrypt(), failed(NTE_FAIL, {refused}));
    prompt.willType({"1234", "1234", "1234"});
    liveKspKey(rsaKey)->recordFlag = true;
    EXPECT_EQ(decrypt(3), succeeded());
    EXPECT_EQ(data, abc);
    EXPECT_EQ(debugLines.back(), "KSP: Decrypt success");
    EXPECT_EQ(decrypt(2, kSilent),
              failed(NTE_BUFFER_TOO_SMALL, {"KSPDecrypt: output buffer too small, required=3"}));
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(data, Bytes(2, 0xEE));
    storePin(serial, Pin("old"));
    library.clearCalls();
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    EXPECT_EQ(decrypt(), succeeded());
    EXPECT_THAT(debugLines, Contains("KSP: Decrypt SSO expired, re-prompting for PIN"));
    const std::string start = concat("veltra_decrypt(serial=", serial, ", key=1111..1111, pin=");
    EXPECT_THAT(library.calls("veltra_decrypt"), ElementsAre(start + "old, in=0000..3839(256), flag=1)",
                                                             start + "1234, in=0000..3839(256), flag=1)"));
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(decrypt(), failed(NTE_INTERNAL_ERROR, {"KSP: Decrypt failed: 49"}));
    EXPECT_EQ(decrypt(), failed(NTE_FAIL, {refused + " after SSO expiry"}));
    EXPECT_EQ(length, 7u);
}

} // namespace
} // namespace veltra::test
