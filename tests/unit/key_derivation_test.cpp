#include "support/csp_test.h"

#include "csp/hash_context.h"

#include <algorithm>

namespace veltra::test {
namespace {

class KeyDerivationTest : public CspTest {
protected:
    KeyDerivationTest() : provider(acquire()) { token.info.fipsMarker = "..1"; }

    Answer derive(HCRYPTHASH hash, ALG_ID algorithm, DWORD flags = 0) {
        HCRYPTKEY key = 0;
        const Answer answer = run([&] { return CPDeriveKey(provider, algorithm, hash, flags, &key); });
        record = liveKey(key);
        EXPECT_EQ(CPDestroyKey(provider, key), answer.result);
        return answer;
    }
    Bytes material() const { return {record->symmetricKey.data(), record->symmetricKey.data() + 32}; }

    const HCRYPTPROV provider;
    std::shared_ptr<KEY_HANDLE> record; ///< what the last derivation made
};

TEST_F(KeyDerivationTest, KeyIsTheLeadingBytesOfTheHashValueFilledUpWithZeros) {
    struct Row {
        ALG_ID hash, algorithm;
        int mechanism;
        std::size_t length;
    };
    for (const Row& row : {Row{CALG_SHA_256, CALG_AES_256, kMechanismSha256, 32},
                           {CALG_SHA_512, CALG_AES_128, kMechanismSha512, 16},
                           {CALG_SHA_384, CALG_AES_192, kMechanismSha384, 24},
                           {CALG_SHA1, CALG_AES_256, kMechanismSha1, 32}}) {
        const HCRYPTHASH hash = createHash(provider, row.hash);
        hashData(provider, hash, "abc");
        Bytes expected = ScriptedDeviceLibrary::fakeDigest(row.mechanism, {'a', 'b', 'c'});
        expected.resize(row.length);
        expected.resize(32);
        for (const DWORD flags : {0u, 0xFFFFFFFFu}) {
            ASSERT_EQ(derive(hash, row.algorithm, flags), accepted());
            EXPECT_EQ(debugLines.back(), "CPDeriveKey: derived " + std::to_string(row.length * 8) +
                                             "-bit key for algId=0x" + std::to_string(row.algorithm));
            EXPECT_EQ(material(), expected) << "the same key both times";
            EXPECT_EQ(record->symmetricKeyLength, row.length);
            EXPECT_EQ(record->keyBits, row.length * 8);
            EXPECT_EQ(record->algId, row.algorithm);
            EXPECT_EQ(record->keyUsage, 3u);
            EXPECT_EQ(record->mode + record->keyIdLength + record->publicKeyLength, 0u);
        }
        EXPECT_EQ(liveHash(hash)->finalized, 0) << "the hash is not marked finished: deliberate";
    }
    ASSERT_EQ(derive(hashWithValue(provider), CALG_AES_128), accepted());
    EXPECT_EQ(material()[0], 0x11) << "a value that was set is used as it stands";
}

TEST_F(KeyDerivationTest, HmacObjectGivesItsInnerDigest) {
    const HCRYPTHASH hmac = createHash(provider, CALG_HMAC, addSymmetricKey("k"));
    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA_256;
    ASSERT_TRUE(CPSetHashParam(provider, hmac, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&info), 0));
    hashData(provider, hmac, "abc");
    Bytes inner(67, 0x36);
    inner[0] ^= 'k';
    std::ranges::copy(std::string("abc"), inner.begin() + 64);
    ASSERT_EQ(derive(hmac, CALG_AES_256), accepted());
    EXPECT_EQ(material(), ScriptedDeviceLibrary::fakeDigest(kMechanismSha256, inner));
}

TEST_F(KeyDerivationTest, Refusals) {
    HCRYPTKEY key = 0;
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    const Answer invalid = refused(ERROR_INVALID_PARAMETER, {});
    EXPECT_EQ(run([&] { return CPDeriveKey(provider, CALG_RC4, 0, 0, nullptr); }), invalid);
    EXPECT_EQ(run([&] { return CPDeriveKey(0, CALG_RC4, 0, 0, &key); }), invalid);
    EXPECT_EQ(derive(0, CALG_RC4), refused(NTE_BAD_HASH, {}));
    EXPECT_EQ(derive(hash, CALG_RC4), refused(NTE_BAD_ALGID, {"CPDeriveKey: unsupported algorithm 0x26625"}));
    library.script("veltra_finalHash", {.result = 7, .onCall = 1});
    library.script("veltra_finalHash", {.length = -1, .onCall = 2});
    library.script("veltra_finalHash", {.length = 129, .onCall = 3});
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(derive(hash, CALG_AES_128), refused(NTE_FAIL, {"CPDeriveKey: veltra_finalHash failed"}));
    EXPECT_EQ(liveHash(hash)->hashValueLength, 0u);
    EXPECT_THAT(library.calls("veltra_finalHash").at(0), testing::EndsWith("capacity=128)"));
    EXPECT_EQ(run([] { return CPHashSessionKey(0, 7, 8, 0xFFFFFFFF); }),
              refused(ERROR_CALL_NOT_IMPLEMENTED,
                      {"CPHashSessionKey: not supported, hHash=7 hKey=8 dwFlags=4294967295"}));
}

} // namespace
} // namespace veltra::test
