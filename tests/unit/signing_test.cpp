#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

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
    /// A signature as the application has it.
    static Bytes signatureOf(std::uint32_t keyType) {
        Bytes bytes = ScriptedDeviceLibrary::fakeSignature(keyType);
        if (keyType <= kKeyTypeRsa4096) std::ranges::reverse(bytes);
        return bytes;
    }

    Bytes signature;
    DWORD length = 0;
};

TEST_F(SigningTest, RsaSignaturesAreReversedAndEcSignaturesAreNot) {
    for (const auto& [type, askedSize] :
         {std::pair{2u, 256u}, {3u, 384u}, {4u, 512u}, {5u, 256u}, {6u, 256u}, {7u, 256u}}) {
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type);
        const HCRYPTPROV provider = acquireKey(static_cast<char>('0' + type));
        const HCRYPTHASH hash = hashWithValue(provider);
        EXPECT_EQ(run(CPSignHash, provider, hash, AT_SIGNATURE, nullptr, 0, nullptr, &length), accepted());
        EXPECT_EQ(length, askedSize);
        EXPECT_EQ(sign(provider, hash), accepted());
        EXPECT_EQ(signature, signatureOf(type));
    }
}

TEST_F(SigningTest, KeyIsTheFirstOfTheContainerThatCanSignElseTheFirst) {
    // The key that signs, or the reason why none does. The pairs are 0x11, 0x22, ...
    const auto signer = [&](const std::vector<std::uint32_t>& usages, const std::string& container) {
        token.keyPairs.clear();
        for (unsigned char id = 0; const std::uint32_t usage : usages)
            token.addKeyPair(id += 0x11, kKeyTypeRsa2048, usage);
        const HCRYPTPROV provider = acquire(container.c_str());
        const Answer answer = sign(provider, hashWithValue(provider));
        if (!answer.result) return answer.errors.at(0);
        const std::string call = library.calls("veltra_signHash").back();
        return call.substr(call.find("key=") + 4, 4);
    };
    const std::string none = "CPSignHash: sign key not found for container=";
    EXPECT_EQ(signer({2, 3, 1}, ""), "2222");
    EXPECT_EQ(signer({2, 2}, ""), "1111") << "only encryption keys";
    EXPECT_EQ(signer({9, 2}, ""), "2222") << "an unknown usage is passed over";
    EXPECT_EQ(signer({9, 0}, ""), none);
    EXPECT_EQ(signer({1, 2, 1}, std::string(32, '2')), "2222");
    EXPECT_EQ(signer({1, 2}, "no such key"), none + "no such key");
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
    token.keyPairs.pop_back(); // the slot is used all the same; the token refuses
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_KEYEXCHANGE).errors.at(0), "Sign hash failed : 72");
}

TEST_F(SigningTest, SignatureFinishesAHashOnceWhichKeepsItsKey) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, hash, "abc"));
    library.script("veltra_finalHash", {.length = 129, .onCall = 1});
    EXPECT_EQ(sign(provider, hash).lastError, static_cast<DWORD>(NTE_FAIL)) << "above what it was given";
    EXPECT_EQ(sign(provider, hash), accepted());
    token.addKeyPair(0x99);
    std::swap(token.keyPairs[0], token.keyPairs[1]);
    EXPECT_EQ(sign(provider, hash, AT_KEYEXCHANGE), accepted());
    const std::string finish = "veltra_finalHash(hash=1, capacity=128)";
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre(finish, finish));
    EXPECT_THAT(library.calls("veltra_signHash"),
                testing::Each(HasSubstr("key=1111..1111, pin=1234, hash=")));
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
    // `pins`: those of the calls, each of which answers one of the codes; behind the first one they are
    // typed.
    const auto expectSignatures = [&](std::vector<int> codes, const std::vector<std::string>& pins,
                                      const Answer& answer) {
        SCOPED_TRACE(testing::PrintToString(codes));
        storePin(serial, Pin("old"));
        library.clearScripts();
        library.clearCalls();
        for (int call = 0; const int code : codes)
            library.script("veltra_signHash", {.result = code, .onCall = ++call});
        prompt.willType({pins.begin() + 1, pins.end()});
        EXPECT_EQ(sign(provider, hashWithValue(provider)), answer);
        std::vector<std::string> calls;
        for (const std::string& pin : pins)
            calls.push_back(concat("veltra_signHash(serial=", serial, ", key=1111..1111, pin=", pin,
                                   ", hash=1122..2222(32), out=512, pss=0)"));
        EXPECT_EQ(library.calls("veltra_signHash"), calls);
    };
    const auto refusal = [](const char* code) {
        return refused(0x8009001D, {concat("Sign hash failed : ", code)});
    };
    const Answer blocked =
        refused(NTE_BAD_ALGID, {"CPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token"});
    expectSignatures({49, 49}, {"old", "1234"}, refusal("49"));
    expectSignatures({49, 51}, {"old", "1234"}, blocked);
    expectSignatures({51}, {"old"}, blocked);
    expectSignatures({48}, {"old"}, refusal("48")); // no special code here
    expectSignatures({-3}, {"old"}, refusal("4294967293"));
    expectSignatures({49}, {"old"},
                     refused(NTE_FAIL, {"loginUser: user cancelled password dialog, return FALSE",
                                        "ensurePasswordValidated: password validation failed, return false",
                                        "CPSignHash: ensurePasswordValidated failed after SSO expiry"}));
    expectSignatures({49}, {"old", "1234"}, accepted());
    EXPECT_EQ(length, 256u);
}

TEST_F(SigningTest, KeyObjectDecidesTypeAndForm) {
    const HCRYPTPROV provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const HCRYPTHASH hash = hashWithValue(provider);
    const auto expectVerified = [&](HCRYPTKEY key, std::uint32_t type, const std::string& shownKey) {
        library.clearCalls();
        EXPECT_EQ(verify(provider, hash, signatureOf(type), key), accepted());
        EXPECT_THAT(library.calls(),
                    ElementsAre(HasSubstr(concat("(type=", type, ", serial=, hash=1122..2222(32), key=",
                                                 shownKey, ", signature=0102.."))));
    };
    expectVerified(addPublicKey(CALG_RSA_KEYX, 1024, Bytes(128, 0xC0)), 1, "3081..0001(162)");
    expectVerified(addPublicKey(CALG_RSA_SIGN, 1025, Bytes(256, 0xC0)), 2, "3082..0001(294)"); // as 2048
    expectVerified(addPublicKey(CALG_RSA_SIGN, 2048, Bytes(256, 0x30)), 2, "3030..3030(256)"); // already DER
    expectVerified(addPublicKey(kEcAlgId, 384, Bytes(97, 4)), 6, "0404..0404(97)");
    expectVerified(addPublicKey(kEcAlgId, 521, Bytes(133, 4)), 7, "0404..0404(133)");
    expectVerified(addPublicKey(kEcAlgId, 0, Bytes(65, 0x30)), 5, "3030..3030(65)"); // as P-256
}

TEST_F(SigningTest, WithoutAPublicKeyTheContainersKeyIsTakenAndItsRsaKeyAlwaysConverted) {
    const std::string missing = "Key Handle Not Initialized or Public Key Length is zero";
    const Answer verified = {TRUE, kUntouched, {missing}};
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_EQ(verify(provider, hash, {1}),
              refused(NTE_BAD_KEY,
                      {missing, "CPVerifySignature: container not found in key list, containerName="}));
    token.addKeyPair(0x99, kKeyTypeRsa2048, 9);                                 // unknown usage
    token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageEncrypt).publicKey[0] = 0x30; // as DER begins: nobody looks
    token.addKeyPair(0x22, kKeyTypeEcP256);
    for (const HCRYPTKEY key : {HCRYPTKEY{0}, addPublicKey(CALG_RSA_SIGN, 2048, {})}) {
        EXPECT_EQ(verify(provider, hash, signatureOf(kKeyTypeRsa2048), key), verified);
        EXPECT_THAT(library.calls().back(), HasSubstr(", key=3082..0001(293), signature=0102..FF00(256)"));
    }
    EXPECT_EQ(verify(acquireKey('2'), hash, signatureOf(kKeyTypeEcP256)), verified);
    EXPECT_EQ(liveHash(hash)->hashValueLength, 32u) << "verification finishes the hash as well";
}

} // namespace
} // namespace veltra::test
