#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "token/device_state.h"
#include "token/process_iv.h"

namespace veltra::test {
namespace {

using EntryPoint = decltype(&KSPEncrypt);

constexpr DWORD kPkcs1 = 2, kOaep = 4, kPss = 8;

/// Signatures and encryption.
class KspCryptoTest : public KspTest {
protected:
    KspCryptoTest() {
        setProcessIv({});
        storePinOfToken();
    }
    NCRYPT_KEY_HANDLE addPair(std::uint32_t type) {
        return addKey(token.addKeyPair(static_cast<unsigned char>(type * 0x11), type));
    }
    StatusAnswer sign(NCRYPT_KEY_HANDLE key, DWORD flags = 0, DWORD capacity = 512) {
        data.assign(capacity, 0xEE);
        const StatusAnswer answer = call(KSPSignHash, provider, key, unreadable, hash.data(), 32, data.data(),
                                         capacity, &size, flags);
        if (answer.status == 0) data.resize(size);
        return answer;
    }
    DWORD querySignature(NCRYPT_KEY_HANDLE key) {
        EXPECT_EQ(KSPSignHash(provider, key, unreadable, nullptr, 0, nullptr, 0, &size, 0), 0);
        return size;
    }
    StatusAnswer verify(NCRYPT_KEY_HANDLE key, Bytes signature, DWORD flags = 0) {
        return call(KSPVerifySignature, provider, key, unreadable, hash.data(), 32, signature.data(),
                    static_cast<DWORD>(signature.size()), flags);
    }
    /// Encrypts or decrypts into `data`, which is cut to its length on success. A capacity of 0 is a size
    /// query.
    StatusAnswer run(EntryPoint function, NCRYPT_KEY_HANDLE key, Bytes input, DWORD capacity, DWORD flags = 0,
                     void* info = nullptr) {
        data.assign(capacity, 0xEE);
        const StatusAnswer answer =
            call(function, provider, key, input.data(), static_cast<DWORD>(input.size()), info,
                 capacity == 0 ? nullptr : data.data(), capacity, &size, flags);
        if (answer.status == 0) data.resize(size);
        return answer;
    }
    /// Such a call with an output of `required` bytes, for which one byte less does not do.
    Bytes exactly(DWORD required, EntryPoint function, NCRYPT_KEY_HANDLE key, const Bytes& input,
                  const std::string& tooSmall) {
        const std::string text = concat(tooSmall, " output buffer too small, required=", required);
        EXPECT_EQ(run(function, key, input, required - 1), failed(NTE_BUFFER_TOO_SMALL, {text}));
        EXPECT_EQ(std::exchange(size, 0), required);
        EXPECT_EQ(data, Bytes(required - 1, 0xEE));
        EXPECT_EQ(run(function, key, input, required, 0, unreadable), succeeded());
        return data;
    }

    const NCRYPT_KEY_HANDLE rsaKey = addPair(kKeyTypeRsa2048);
    Bytes hash = Bytes(32, 0xA1);
    const Bytes abc = {'a', 'b', 'c'};
    const Bytes ciphertext = joined({Bytes(253), ScriptedDeviceLibrary::maskOf(abc)}); ///< of `abc`
    Bytes data;                                          ///< signature, ciphertext or plaintext
    void* const unreadable = reinterpret_cast<void*>(1); ///< a structure that is not read
};

TEST_F(KspCryptoTest, EveryKeyTypeSignsIntoAnExactBufferAndVerifies) {
    using Row = std::tuple<std::uint32_t, DWORD, const char*>;
    for (const auto& [type, bytes, publicKey] :
         {Row{2, 256, "3082..0001(294)"}, Row{4, 512, "3082..0001(550)"}, Row{5, 64, "04C1..FF00(65)"},
          Row{7, 132, "04C1..4344(133)"}}) {
        const NCRYPT_KEY_HANDLE key = addPair(type);
        EXPECT_EQ(querySignature(key), bytes);
        EXPECT_EQ(sign(key, 0, bytes), succeeded());
        EXPECT_EQ(data, ScriptedDeviceLibrary::fakeSignature(type));
        EXPECT_EQ(verify(key, data), succeeded());
        EXPECT_THAT(
            library.calls().back(),
            testing::StartsWith(concat("veltra_verifySignatureHash(type=", type, ", serial=", serial,
                                       ", hash=A1A1..A1A1(32), key=", publicKey, ", signature=0102..")));
        data[0] ^= 1;
        EXPECT_EQ(verify(key, data), failed(NTE_BAD_SIGNATURE, {"KSP: Verify signature failed: 75"}));
    }
    liveKspKey(rsaKey)->publicKey[0] = 0x30; // like DER
    EXPECT_EQ(verify(rsaKey, ScriptedDeviceLibrary::fakeSignature(2)), succeeded());
    EXPECT_THAT(library.calls().back(), testing::HasSubstr("key=30C1..BEBF(256)"));
    const NCRYPT_KEY_HANDLE longKey = addPair(kKeyTypeEcP521);
    liveKspKey(longKey)->bitLength = 0xFFFFFFFF;
    EXPECT_EQ(querySignature(longKey), 0x40000000u);
    liveKspKey(longKey)->publicKeyLength = 0;
    EXPECT_EQ(verify(longKey, {1}), failed(NTE_BAD_KEY, {"KSP: No public key for verification"}));
}

TEST_F(KspCryptoTest, BothPaddingFlagsSignWithPkcs1ButVerifyWithPss) {
    for (const auto& [flags, signPss, verifyPss] :
         {std::tuple{0u, 0, 0}, {kPkcs1, 0, 0}, {kPss, 1, 1}, {kPss | kPkcs1, 0, 1}}) {
        EXPECT_EQ(sign(rsaKey, flags), succeeded());
        EXPECT_EQ(library.calls().back(),
                  concat("veltra_signHash(serial=", serial,
                         ", key=2222..2222, pin=1234, hash=A1A1..A1A1(32), out=512, pss=", signPss, ")"));
        EXPECT_EQ(verify(rsaKey, data, flags), succeeded());
        EXPECT_THAT(library.calls().back(), testing::EndsWith(concat(", pss=", verifyPss, ")")));
    }
    token.info.firmwareVersion = "1.9.9";
    provider = openProvider();
    library.clearCalls();
    const std::string text = ": PSS not supported on firmware 1.9.9";
    EXPECT_EQ(sign(rsaKey, kPss), failed(NTE_NOT_SUPPORTED, {"KSPSignHash" + text}));
    EXPECT_EQ(verify(rsaKey, {1}, kPss), failed(NTE_NOT_SUPPORTED, {"KSPVerifySignature" + text}));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(KspCryptoTest, WeakKeysAreRefusedBehindTheUserAndWeakHashesByTheToken) {
    const NCRYPT_KEY_HANDLE weak = addPair(kKeyTypeRsa1024);
    EXPECT_EQ(verify(weak, ScriptedDeviceLibrary::fakeSignature(1)), succeeded());
    library.clearCalls();
    EXPECT_EQ(sign(weak), failed(NTE_NOT_SUPPORTED, {"KSPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 "
                                                     "key size below 112-bit security strength"}));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
    forgetPin(serial);
    EXPECT_EQ(sign(weak), failed(NTE_FAIL, {"KSPSignHash: password validation failed"}));
    storePinOfToken();
    size = 7;
    library.script("veltra_signHash", {.result = kDeviceWeakHashRefused, .onCall = 1});
    EXPECT_EQ(sign(rsaKey),
              failed(NTE_NOT_SUPPORTED, {"KSPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token"}));
    library.script("veltra_signHash", {.length = 513});
    EXPECT_EQ(sign(rsaKey), failed(NTE_INTERNAL_ERROR, {"KSP: Sign hash failed: 4294967295"}));
    EXPECT_EQ(size, 7u);
}

TEST_F(KspCryptoTest, RsaPaddingTypeAndKeyFormReachTheLibrary) {
    using Row = std::tuple<DWORD, const char*, int>;
    for (const auto& [flags, hashName, padding] :
         {Row{0, "SHA256", 1}, Row{kPkcs1, "SHA256", 1}, Row{kOaep, nullptr, 4}, Row{kOaep, "SHA1", 8},
          Row{kOaep | kPkcs1, "SHA512", 7}, Row{kOaep, "sha256", 4}}) {
        const std::vector<WCHAR> name = wideText(hashName == nullptr ? "" : hashName);
        BCRYPT_OAEP_PADDING_INFO info{};
        if (hashName != nullptr) info.pszAlgId = name.data();
        EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 300, flags, flags < kOaep ? unreadable : &info), succeeded());
        EXPECT_EQ(data.size(), 300u);
        EXPECT_EQ(library.calls().back(), concat("veltra_encrypt(type=8, padding=", padding,
                                                 ", in=616263, out=300, key=3082..0001(294))"));
    }
    const auto key = liveKspKey(rsaKey);
    key->publicKey[0] = 0x30;
    key->bitLength = 3072;
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 384, kOaep), succeeded());
    EXPECT_EQ(library.calls().back(),
              "veltra_encrypt(type=9, padding=4, in=616263, out=384, key=30C1..BEBF(256))");
    key->publicKeyLength = 0;
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 384), succeeded());
    EXPECT_THAT(library.calls().back(), testing::EndsWith(", key=empty)")) << "a pointer all the same";
    size = 7;
    library.script("veltra_encrypt", {.length = 513});
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 512),
              failed(NTE_INTERNAL_ERROR, {"KSP: Encrypt failed: 4294967295"}));
    EXPECT_EQ(size, 7u);
}

TEST_F(KspCryptoTest, AesTakesTheProcessIvInBothModesAndSizeQueriesRunTheWholeOperation) {
    const Bytes block(16, 'x'), encrypted = ScriptedDeviceLibrary::maskOf(block);
    NCRYPT_KEY_HANDLE key = 0;
    for (const auto& [keyLength, ecb, type, iv, ivShown] :
         {std::tuple{16u, false, 1, Bytes(16, 0xAB), "ABAB..ABAB(16)"},
          {24u, false, 2, Bytes(8, 0xAB), "ABAB..ABAB(8)"},
          {16u, true, 5, Bytes(16, 0xAB), "ABAB..ABAB(16)"},
          {32u, true, 6, Bytes(), "null(0)"}}) {
        key = addSymmetricKey(std::string(keyLength, 'K'));
        liveKspKey(key)->ecbMode = ecb;
        setProcessIv(iv);
        library.clearCalls();
        for (const auto& [function, input] : {std::pair{&KSPEncrypt, block}, {&KSPDecrypt, encrypted}}) {
            EXPECT_EQ(run(function, key, input, 0), succeeded());
            EXPECT_EQ(size, 16u);
        }
        EXPECT_EQ(exactly(16, KSPEncrypt, key, block, "KSPEncrypt: symmetric"), encrypted);
        EXPECT_EQ(exactly(16, KSPDecrypt, key, encrypted, "KSPDecrypt: symmetric"), block);
        const std::string shown = concat("key=4B4B..4B4B(", keyLength, ")");
        const std::string e = concat("veltra_encrypt_aes(serial=", serial, ", type=", type, ", ", shown,
                                     ", in=7878..7878(16), final=0, iv=", ivShown, ", extra=null(0))");
        const std::string d = concat("veltra_decryptSymetric(serial=", serial,
                                     ", in=2222..2222(16), out=32, iv=", ivShown, ", ", shown, ")");
        EXPECT_THAT(library.calls(), ElementsAre(e, d, e, e, d, d));
    }
    library.script("veltra_encrypt_aes", {.result = 9});
    EXPECT_EQ(run(KSPEncrypt, key, block, 64),
              failed(NTE_INTERNAL_ERROR, {"KSP: Symmetric encryption failed: 9"}));
    library.script("veltra_decryptSymetric", {.length = 33});
    EXPECT_EQ(run(KSPDecrypt, key, block, 64),
              failed(NTE_INTERNAL_ERROR, {"KSP: Symmetric decryption failed: 4294967295"}));
}

TEST_F(KspCryptoTest, RsaDecryptionAndItsSizeForWhichTheInputIsNotLookedAt) {
    liveKspKey(rsaKey)->recordFlag = true;
    EXPECT_EQ(run(KSPEncrypt, rsaKey, abc, 0), succeeded());
    EXPECT_EQ(std::exchange(size, 0), 256u);
    EXPECT_EQ(run(KSPDecrypt, rsaKey, {}, 0), succeeded());
    EXPECT_EQ(size, 256u);
    EXPECT_EQ(run(KSPEncrypt, addPair(kKeyTypeEcP256), abc, 32),
              failed(NTE_NOT_SUPPORTED, {"KSPEncrypt: an EC key does not encrypt"}));
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_EQ(exactly(3, KSPDecrypt, rsaKey, ciphertext, "KSPDecrypt:"), abc);
    EXPECT_EQ(library.calls().back(), concat("veltra_decrypt(serial=", serial, ", key=2222..2222, pin=1234, ",
                                             "in=0000..3839(256), flag=1)"));
}

TEST_F(KspCryptoTest, Pkcs1DecryptionOnAFips1403TokenIsRefusedBeforeTheKeyIsLookedAt) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, "Global\\VeltraDSC_FipsPkcs1DecryptBlocked");
    for (const NCRYPT_KEY_HANDLE key : {NCRYPT_KEY_HANDLE{0}, rsaKey, addSymmetricKey("K")}) {
        EXPECT_EQ(
            run(KSPDecrypt, key, ciphertext, 256, kPkcs1 | kOaep),
            failed(NTE_NOT_SUPPORTED, {"KSPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token "
                                       "(OAEP required)"}));
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    }
    CloseHandle(event);
    token.info.fipsMarker = "3.1";
    EXPECT_EQ(run(KSPDecrypt, rsaKey, ciphertext, 256, kPkcs1, unreadable), succeeded());
    library.setConnected(serial, false);
    EXPECT_EQ(KSPDecrypt(openProvider(), 0, nullptr, 0, nullptr, nullptr, 0, &size, kPkcs1),
              NTE_INVALID_PARAMETER)
        << "without a token the rule is not applied";
}

} // namespace
} // namespace veltra::test
