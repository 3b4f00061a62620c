#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

const DWORD kSignFailed = 0x8009001D;
const ALG_ID kEcKey = 0x2200;

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

class SigningTest : public CspTest {
protected:
    SigningTest() { storePinOfToken(); }

    /// `signature` is what was written.
    Answer sign(HCRYPTPROV provider, HCRYPTHASH hash, DWORD keySpec = AT_SIGNATURE) {
        length = 512;
        signature.assign(length, 0);
        const Answer answer = run(CPSignHash, provider, hash, keySpec, nullptr, 0, signature.data(), &length);
        signature.resize(length);
        return answer;
    }
    Answer verify(HCRYPTPROV provider, HCRYPTHASH hash, const Bytes& bytes, HCRYPTKEY key = 0) {
        const auto size = static_cast<DWORD>(bytes.size());
        return run(CPVerifySignature, provider, hash, bytes.data(), size, key, nullptr, 0);
    }
    HCRYPTKEY addPublicKey(ALG_ID algorithm, std::uint32_t bits, const Bytes& bytes) {
        auto key = std::make_unique<KEY_HANDLE>();
        key->algId = algorithm;
        key->keyBits = bits;
        std::ranges::copy(bytes, key->publicKey);
        key->publicKeyLength = static_cast<std::uint32_t>(bytes.size());
        return addKey(std::move(key));
    }

    Bytes signature;
    DWORD length = 0;
};

TEST_F(SigningTest, RsaSignaturesAreReversedAndEcSignaturesAreNot) {
    for (const auto& [type, askedSize] :
         {std::pair{1u, 256u}, {2u, 256u}, {3u, 384u}, {4u, 512u}, {5u, 256u}, {6u, 256u}, {7u, 256u}}) {
        SCOPED_TRACE(type);
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type);
        const HCRYPTPROV provider = acquireKey(static_cast<char>('0' + type));
        const HCRYPTHASH hash = hashWithValue(provider);
        EXPECT_EQ(run(CPSignHash, provider, hash, AT_SIGNATURE, nullptr, 0, nullptr, &length), accepted());
        EXPECT_EQ(length, askedSize);
        EXPECT_EQ(sign(provider, hash).result, type != kKeyTypeRsa1024);
        if (type == kKeyTypeRsa1024) continue;
        const Bytes big = ScriptedDeviceLibrary::fakeSignature(type);
        EXPECT_EQ(signature, type <= kKeyTypeRsa4096 ? reversed(big) : big);
        EXPECT_EQ(verify(provider, hash, signature, userKey(provider, AT_SIGNATURE)), accepted());
    }
    EXPECT_THAT(library.calls("veltra_signHash"), SizeIs(6)) << "none with RSA-1024";
}

TEST_F(SigningTest, KeyIsTheFirstOfTheContainerThatCanSignElseTheFirst) {
    // The pairs are 0x11, 0x22, ...
    const auto expectKey = [&](const std::vector<std::uint32_t>& usages, const std::string& container,
                               const char* keyId) {
        token.keyPairs.clear();
        for (unsigned char id = 0; const std::uint32_t usage : usages)
            token.addKeyPair(id += 0x11, kKeyTypeRsa2048, usage);
        library.clearCalls();
        const HCRYPTPROV provider = acquire(container.c_str());
        if (keyId) {
            EXPECT_EQ(sign(provider, hashWithValue(provider)), accepted());
            EXPECT_THAT(library.calls("veltra_signHash"), ElementsAre(HasSubstr(concat("key=", keyId))));
        } else {
            EXPECT_EQ(sign(provider, hashWithValue(provider)),
                      refused(0x8009000D, {"CPSignHash: sign key not found for container=" + container}));
        }
    };
    expectKey({2, 3, 1}, "", "2222");
    expectKey({2, 2}, "", "1111"); // only encryption keys
    expectKey({9, 2}, "", "2222"); // an unknown usage is passed over
    expectKey({9, 0}, "", nullptr);
    expectKey({1, 2, 1}, std::string(32, '2'), "2222");
    expectKey({1, 2}, "no such key", nullptr);
}

TEST_F(SigningTest, RememberedKeyOfTheSpecificationComesFirst) {
    token.addKeyPair(0x11);
    token.addKeyPair(0x22, kKeyTypeRsa3072, kUsageEncrypt);
    const HCRYPTPROV provider = acquireKey('1');
    liveContext(provider)->exchangeKey.fill(token.keyPairs[1].keyId);
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_KEYEXCHANGE), accepted());
    EXPECT_EQ(length, 384u);
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_SIGNATURE), accepted()) << "its slot is empty";
    EXPECT_EQ(length, 256u);
    token.keyPairs.pop_back();
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_KEYEXCHANGE),
              refused(kSignFailed, {"Sign hash failed : 72"}))
        << "a slot whose key is gone is used all the same; the token refuses";
}

TEST_F(SigningTest, SignatureFinishesAHashOnceWhichKeepsItsKey) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, hash, "abc"));
    library.script("veltra_finalHash", {.length = 129, .onCall = 1});
    EXPECT_EQ(sign(provider, hash).lastError, static_cast<DWORD>(NTE_FAIL)) << "above what it was given";
    EXPECT_EQ(sign(provider, hash), accepted());
    token.keyPairs.insert(token.keyPairs.begin(), token.keyPairs.front());
    token.keyPairs.front().keyId[0] = 0x99;
    EXPECT_EQ(sign(provider, hash, AT_KEYEXCHANGE), accepted());
    const std::string finish = "veltra_finalHash(hash=1, capacity=128)";
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre(finish, finish));
    EXPECT_THAT(library.calls("veltra_signHash"), testing::Each(HasSubstr("key=1111")));
    EXPECT_FALSE(hashData(provider, hash, "more"));
    HCRYPTHASH copy = 0;
    ASSERT_TRUE(CPDuplicateHash(provider, hash, nullptr, 0, &copy));
    EXPECT_FALSE(liveHash(copy)->signingKey.filled()) << "the copy takes no key";
    EXPECT_TRUE(CPDestroyHash(provider, copy));
    EXPECT_EQ(hashValue(provider, hash), ScriptedDeviceLibrary::fakeDigest(3, {'a', 'b', 'c'}));
}

TEST_F(SigningTest, ExpiredSessionAsksOnceMoreAndSignsOnceMore) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquireKey('1');
    prompt.whileAsked([&] { length = 0xFFFFFFFF; }); // by the application's window procedures
    const auto expectSignatures = [&](std::size_t count, std::vector<int> codes, const Answer& answer,
                                      std::vector<std::string> typed = {}) {
        SCOPED_TRACE(testing::PrintToString(codes));
        storePin(serial, Pin("old"));
        library.clearScripts();
        library.clearCalls();
        for (int call = 0; const int code : codes)
            library.script("veltra_signHash", {.result = code, .onCall = ++call});
        prompt.willType(std::move(typed));
        EXPECT_EQ(sign(provider, hashWithValue(provider)), answer);
        std::vector<std::string> calls;
        for (const char* pin : {"old", "1234"})
            calls.push_back(concat("veltra_signHash(serial=", serial, ", key=1111..1111, pin=", pin,
                                   ", hash=1122..2222(32), out=512, pss=0)"));
        calls.resize(count);
        EXPECT_EQ(library.calls("veltra_signHash"), calls);
        EXPECT_EQ(library.calls("veltra_validatePassword").size(), count - 1);
    };
    const auto failed = [](const char* code) {
        return refused(kSignFailed, {concat("Sign hash failed : ", code)});
    };
    const Answer blocked =
        refused(NTE_BAD_ALGID, {"CPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token"});
    const Answer cancelled =
        refused(NTE_FAIL, {"loginUser: user cancelled password dialog, return FALSE",
                           "ensurePasswordValidated: password validation failed, return false",
                           "CPSignHash: ensurePasswordValidated failed after SSO expiry"});
    expectSignatures(2, {49, 49}, failed("49"), {"1234", "1234"});
    expectSignatures(2, {49, 51}, blocked, {"1234"});
    expectSignatures(1, {49}, cancelled);
    expectSignatures(1, {51}, blocked);
    expectSignatures(1, {48}, failed("48")); // no special code here
    expectSignatures(1, {-3}, failed("4294967293"));
    expectSignatures(2, {49}, accepted(), {"1234"});
    EXPECT_EQ(length, 256u);
}

TEST_F(SigningTest, KeyObjectDecidesTypeAndForm) {
    const HCRYPTPROV provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const HCRYPTHASH hash = hashWithValue(provider);
    const auto expectVerified = [&](ALG_ID algorithm, std::uint32_t bits, const Bytes& bytes,
                                    const std::string& shownKey, std::uint32_t type) {
        SCOPED_TRACE(bits);
        const HCRYPTKEY key = addPublicKey(algorithm, bits, bytes);
        const Bytes big = ScriptedDeviceLibrary::fakeSignature(type);
        library.clearCalls();
        EXPECT_EQ(verify(provider, hash, algorithm == kEcKey ? big : reversed(big), key), accepted());
        EXPECT_THAT(library.calls(),
                    ElementsAre(HasSubstr(concat("(type=", type, ", serial=, hash=1122..2222(32), key=",
                                                 shownKey, ", signature=0102.."))));
    };
    expectVerified(CALG_RSA_KEYX, 1024, Bytes(128, 0xC0), "3081..0001(162)", 1);
    expectVerified(CALG_RSA_SIGN, 1025, Bytes(256, 0xC0), "3082..0001(294)", 2); // as 2048
    expectVerified(CALG_RSA_SIGN, 2048, Bytes(256, 0x30), "3030..3030(256)", 2); // already DER
    expectVerified(kEcKey, 521, Bytes(133, 4), "0404..0404(133)", 7);
    expectVerified(kEcKey, 0, Bytes(65, 0x30), "3030..3030(65)", 5); // any other counts as P-256
}

TEST_F(SigningTest, WithoutAPublicKeyTheContainersKeyIsTakenAndItsRsaKeyAlwaysConverted) {
    const std::string missing = "Key Handle Not Initialized or Public Key Length is zero";
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_EQ(verify(provider, hash, {1}),
              refused(NTE_BAD_KEY,
                      {missing, "CPVerifySignature: container not found in key list, containerName="}));
    token.addKeyPair(0x99, kKeyTypeRsa2048, 9);                                 // unknown usage
    token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageEncrypt).publicKey[0] = 0x30; // as DER begins: nobody looks
    token.addKeyPair(0x22, kKeyTypeEcP256);
    const Bytes rsa = reversed(ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048));
    const Bytes ec = ScriptedDeviceLibrary::fakeSignature(kKeyTypeEcP256);
    library.clearCalls();
    for (const HCRYPTKEY key : {HCRYPTKEY{0}, addPublicKey(CALG_RSA_SIGN, 2048, {})})
        EXPECT_EQ(verify(provider, hash, rsa, key), (Answer{TRUE, kUntouched, {missing}}));
    EXPECT_EQ(verify(acquireKey('2'), hash, ec), (Answer{TRUE, kUntouched, {missing}}));
    const auto rsaCall = HasSubstr(", key=3082..0001(293), signature=0102..FF00(256)");
    EXPECT_THAT(library.calls("veltra_verifySignatureHash"),
                ElementsAre(rsaCall, rsaCall, HasSubstr("type=5")));
    EXPECT_EQ(liveHash(hash)->hashValueLength, 32u) << "verification finishes the hash as well";
}

} // namespace
} // namespace veltra::test
