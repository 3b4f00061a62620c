#include "support/ksp_test.h"

#include "foundation/text.h"
#include "token/device_state.h"

namespace veltra::test {
namespace {

constexpr DWORD kPkcs1 = 2, kPss = 8, kSilent = 0x40;

class KspSigningTest : public KspTest {
protected:
    NCRYPT_KEY_HANDLE addPair(std::uint32_t type) {
        return addKey(token.addKeyPair(static_cast<unsigned char>(type * 0x11), type));
    }
    StatusAnswer sign(NCRYPT_KEY_HANDLE key, DWORD flags = 0, DWORD capacity = 512) {
        signature.assign(capacity, 0xEE);
        length = 7;
        const StatusAnswer answer = call(KSPSignHash, provider, key, unreadable, hash.data(), 32,
                                         signature.data(), capacity, &length, flags);
        if (answer.status == 0) signature.resize(length);
        return answer;
    }
    DWORD querySize(NCRYPT_KEY_HANDLE key) {
        EXPECT_EQ(KSPSignHash(provider, key, unreadable, nullptr, 0, nullptr, 0, &length, kSilent), 0);
        return length;
    }
    StatusAnswer verify(NCRYPT_KEY_HANDLE key, Bytes bytes, DWORD flags = 0) {
        return call(KSPVerifySignature, provider, key, unreadable, hash.data(), 32, bytes.data(),
                    static_cast<DWORD>(bytes.size()), flags);
    }
    std::string signCall(DWORD capacity = 512, int pss = 0, const char* pin = "1234") const {
        return concat("veltra_signHash(serial=", serial, ", key=2222..2222, pin=", pin,
                      ", hash=A1A1..A1A1(32), out=", capacity, ", pss=", pss, ")");
    }

    Bytes hash = Bytes(32, 0xA1);
    void* const unreadable = reinterpret_cast<void*>(1); ///< no padding structure is ever read
    Bytes signature;
    DWORD length = 0;
};

TEST_F(KspSigningTest, EveryKeyTypeSignsIntoAnExactBufferAndVerifies) {
    storePinOfToken();
    const char* converted = "KSP: RSA Public key is raw modulus, converting to DER";
    const char* point = "KSP: ECC public key, passing raw EC point";
    for (const auto& [type, bytes, form, formLength] : {std::tuple{2u, 256u, converted, 294},
                                                        {4u, 512u, converted, 550},
                                                        {5u, 64u, point, 65},
                                                        {7u, 132u, point, 133}}) {
        const NCRYPT_KEY_HANDLE key = addPair(type);
        EXPECT_EQ(querySize(key), bytes);
        EXPECT_EQ(takeLogLines().back(), concat("DEBUG KSP: SignHash size query, returning ", bytes));
        EXPECT_EQ(sign(key, 0, bytes), succeeded());
        EXPECT_EQ(signature, ScriptedDeviceLibrary::fakeSignature(type));
        const std::string name(32, static_cast<char>('0' + type));
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPSignHash", "KSP: PIN already validated", "KSP: SignHash - padding=PKCS1",
                                "KSP: SignHash - credential: " + name, "KSP: SignHash - hash length: 32",
                                concat("KSP: SignHash success, signature length=", bytes)));
        EXPECT_EQ(verify(key, signature), succeeded());
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPVerifySignature", form, "KSP: VerifySignature - hash length: 32",
                                concat("KSP: VerifySignature - public key DER length: ", formLength),
                                concat("KSP: VerifySignature - signature length: ", bytes),
                                "KSP: VerifySignature - padding=PKCS1", "KSP: Verify signature success"));
        signature[0] ^= 1;
        EXPECT_EQ(verify(key, signature), failed(NTE_BAD_SIGNATURE, {"KSP: Verify signature failed: 75"}));
    }
    EXPECT_EQ(library.calls("veltra_signHash").front(), signCall(256));
    const NCRYPT_KEY_HANDLE longKey = addPair(kKeyTypeEcP521);
    liveKspKey(longKey)->bitLength = 0xFFFFFFFF;
    EXPECT_EQ(querySize(longKey), 0x40000000u);
    const NCRYPT_KEY_HANDLE derKey = addPair(kKeyTypeRsa2048);
    liveKspKey(derKey)->publicKey[0] = 0x30;
    EXPECT_EQ(verify(derKey, ScriptedDeviceLibrary::fakeSignature(2)), succeeded());
    EXPECT_THAT(debugLines, Contains("KSP: RSA Public key is already DER encoded"));
    liveKspKey(longKey)->publicKeyLength = 0;
    EXPECT_EQ(verify(longKey, {1}), failed(NTE_BAD_KEY, {"KSP: No public key for verification"}));
    EXPECT_EQ(library.calls().back(), concat("veltra_verifySignatureHash(type=2, serial=", serial,
                                             ", hash=A1A1..A1A1(32), key=30C1..BEBF(256), "
                                             "signature=0102..FF00(256), pss=0)"));
}

TEST_F(KspSigningTest, BothPaddingFlagsSignWithPkcs1ButVerifyWithPss) {
    storePinOfToken();
    const NCRYPT_KEY_HANDLE key = addPair(kKeyTypeRsa2048);
    for (const auto& [flags, signPss, verifyPss] :
         {std::tuple{0u, 0, 0}, {kPkcs1, 0, 0}, {kPss | kSilent, 1, 1}, {kPss | kPkcs1, 0, 1}}) {
        EXPECT_EQ(sign(key, flags), succeeded());
        EXPECT_THAT(debugLines, Contains(concat("KSP: SignHash - padding=", signPss ? "PSS" : "PKCS1")));
        EXPECT_EQ(library.calls().back(), signCall(512, signPss));
        EXPECT_EQ(verify(key, signature, flags), succeeded());
        EXPECT_THAT(debugLines,
                    Contains(concat("KSP: VerifySignature - padding=", verifyPss ? "PSS" : "PKCS1")));
        EXPECT_THAT(library.calls().back(), testing::EndsWith(concat(", pss=", verifyPss, ")")));
    }
    for (const auto& [firmware, allowed] : {std::pair{"1.9.9", false}, {"2.0", true}}) {
        token.info.firmwareVersion = firmware;
        provider = openProvider();
        library.clearCalls();
        const std::string text = concat(": PSS not supported on firmware ", firmware);
        EXPECT_EQ(sign(key, kPss), allowed ? succeeded() : failed(NTE_NOT_SUPPORTED, {"KSPSignHash" + text}));
        EXPECT_EQ(verify(key, ScriptedDeviceLibrary::fakeSignature(2), kPss),
                  allowed ? succeeded() : failed(NTE_NOT_SUPPORTED, {"KSPVerifySignature" + text}));
        EXPECT_EQ(library.calls().size(), allowed ? 2u : 0u);
    }
}

TEST_F(KspSigningTest, UserIsVerifiedBeforeTheWeakKeyIsRefused) {
    const NCRYPT_KEY_HANDLE weak = addPair(kKeyTypeRsa1024);
    EXPECT_EQ(sign(weak, kSilent),
              failed(NTE_SILENT_CONTEXT, {"KSPSignHash: silent mode requested but PIN not validated"}));
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_EQ(sign(weak), failed(NTE_FAIL, {"KSPSignHash: password validation failed"}));
    storePinOfToken();
    library.clearCalls();
    EXPECT_EQ(
        sign(weak, kSilent),
        failed(NTE_NOT_SUPPORTED, {"KSPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below "
                                   "112-bit security strength"}));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
    EXPECT_EQ(verify(weak, ScriptedDeviceLibrary::fakeSignature(1)), succeeded());
}

TEST_F(KspSigningTest, ExpiredSessionAsksOnceMoreAndSignsOnceMore) {
    const NCRYPT_KEY_HANDLE key = addPair(kKeyTypeRsa2048);
    struct Row {
        Script script;
        std::vector<std::string> typed;
        StatusAnswer answer;
        std::vector<const char*> pins; ///< of the calls
    };
    const auto blocked =
        failed(NTE_NOT_SUPPORTED, {"KSPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token"});
    const auto cancelled = failed(NTE_FAIL, {"KSPSignHash: password validation failed after SSO expiry"});
    const auto failedWith = [](const char* code) {
        return failed(NTE_INTERNAL_ERROR, {concat("KSP: Sign hash failed: ", code)});
    };
    for (const Row& row : {Row{{.result = 49, .onCall = 1}, {"1234"}, succeeded(), {"old", "1234"}},
                           {{.result = 49}, {"1234"}, failedWith("49"), {"old", "1234"}},
                           {{.result = 49}, {}, cancelled, {"old"}},
                           {{.result = 51}, {}, blocked, {"old"}},
                           {{.result = 48}, {}, failedWith("48"), {"old"}},
                           {{.length = 513}, {}, failedWith("4294967295"), {"old"}}}) {
        if (row.script.length) token.logIn(); // and so accepts every PIN
        storePin(serial, Pin("old"));
        library.clearScripts();
        library.clearCalls();
        library.script("veltra_signHash", row.script);
        prompt.willType(row.typed);
        EXPECT_EQ(sign(key), row.answer);
        std::vector<std::string> calls;
        for (const char* pin : row.pins)
            calls.push_back(signCall(512, 0, pin));
        EXPECT_EQ(library.calls("veltra_signHash"), calls);
        EXPECT_EQ(length, row.answer.status == 0 ? 256u : 7u);
        EXPECT_EQ(testing::Matches(Contains("KSP: SignHash SSO expired, re-prompting for PIN"))(debugLines),
                  row.script.result == 49);
    }
}

} // namespace
} // namespace veltra::test
