#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/key_handle.h"
#include "foundation/text.h"
#include "foundation/win_handle.h"
#include "token/crypto_policy.h"

#include <algorithm>

namespace veltra::test {
namespace {

/// The key filled up to the block of the algorithm, with every byte changed.
Bytes paddedKey(Bytes key, std::size_t blockLength, unsigned char change) {
    key.resize(blockLength);
    for (unsigned char& byte : key)
        byte ^= change;
    return key;
}

Bytes sha256(const Bytes& data) {
    return ScriptedDeviceLibrary::fakeDigest(3, data);
}

/// The inner step of an HMAC with the key "key".
Bytes innerSha256(const std::string& data) {
    return sha256(joined({paddedKey(bytesOf("key"), 64, 0x36), bytesOf(data)}));
}

class HashTest : public CspTest {
protected:
    HashTest() : provider(acquire()) { library.clearCalls(); }

    /// With its HMAC_INFO set, unless the algorithm is 0.
    HCRYPTHASH createHmac(ALG_ID inner, const std::string& key = "key") {
        const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey(key));
        EXPECT_TRUE(inner == 0 || setHmacInfo(hash, inner) == accepted());
        return hash;
    }
    /// Asks with a buffer of `capacity` bytes; `length` is what comes back.
    Answer get(HCRYPTHASH hash, DWORD parameter, DWORD capacity = sizeof data) {
        length = capacity;
        return run(CPGetHashParam, provider, hash, parameter, data, &length, 0);
    }
    Answer set(HCRYPTHASH hash, DWORD parameter, const void* value) {
        return run(CPSetHashParam, provider, hash, parameter, static_cast<const BYTE*>(value), 0);
    }
    Answer setHmacInfo(HCRYPTHASH hash, ALG_ID inner) {
        const HMAC_INFO info{inner, data, sizeof data, data, sizeof data}; // the texts are never used
        return set(hash, HP_HMAC_INFO, &info);
    }
    Answer feed(HCRYPTHASH hash, const std::string& text) {
        return run([&] { return hashData(provider, hash, text); });
    }

    void expectFinished(HCRYPTHASH hash) {
        EXPECT_EQ(feed(hash, "x"),
                  refused(NTE_BAD_HASH_STATE,
                          {"CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data"}));
    }

    const HCRYPTPROV provider;
    HCRYPTHASH out = 0;
    BYTE data[256] = {};
    DWORD length = 0;
};

TEST_F(HashTest, WeakDigestsAreRefusedWithAnEventOnlyWhereOneExists) {
    const UniqueHandle md5(CreateEventA(nullptr, FALSE, FALSE, kMd5BlockedEvent));
    const UniqueHandle sha1(CreateEventA(nullptr, FALSE, FALSE, kSha1BlockedEvent));
    const HCRYPTPROV verifyOnly = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const auto expectBlocked = [&](HCRYPTPROV context, ALG_ID algorithm, bool isMd5) {
        EXPECT_EQ(run(CPCreateHash, context, algorithm, 0, 0, &out).lastError,
                  static_cast<DWORD>(NTE_BAD_ALGID));
        EXPECT_EQ(WaitForSingleObject(md5.get(), 0) == WAIT_OBJECT_0, isMd5);
        EXPECT_EQ(WaitForSingleObject(sha1.get(), 0) == WAIT_OBJECT_0, !isMd5);
    };
    expectBlocked(provider, CALG_SHA1, false);
    token.info.fipsMarker = "3.1.0";
    expectBlocked(provider, CALG_MD5, true);
    library.clearCalls();
    expectBlocked(verifyOnly, CALG_SHA1, false); // without a token no record is read: the stricter rule holds
    createHash(verifyOnly, CALG_SHA_256);
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=, algorithm=3)"));
}

TEST_F(HashTest, ValueIsFinishedOnceEvenIfTheBufferIsTooSmall) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256, 0xBAD); // the key is ignored
    EXPECT_EQ(feed(hash, "a"), accepted());
    EXPECT_EQ(run(CPGetHashParam, provider, hash, HP_HASHVAL, nullptr, &length, 0), accepted());
    EXPECT_EQ(feed(hash, "b"), accepted()) << "a size query leaves it open";
    EXPECT_EQ(run(CPHashData, provider, hash, nullptr, 0, CRYPT_USERDATA), accepted());
    EXPECT_EQ(get(hash, HP_HASHVAL, 31),
              refused(ERROR_MORE_DATA, {"CPGetHashParam: HP_HASHVAL buffer too small for finalized hash"}));
    EXPECT_EQ(length, 32u);
    expectFinished(hash);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(hashValue(provider, hash), sha256(bytesOf("ab")));
    EXPECT_EQ(library.calls().front(), "veltra_initHash(serial=" + serial + ", algorithm=3)");
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=32)"));
    library.script("veltra_finalHash", {.length = 33});
    EXPECT_FALSE(get(createHash(provider, CALG_SHA_256), HP_HASHVAL).result) << "above what it was given";
}

TEST_F(HashTest, DuplicateFinishesTheSourceAndTakesItsValue) {
    for (const bool isHmac : {false, true}) {
        const HCRYPTHASH source = isHmac ? createHmac(CALG_SHA_256) : createHash(provider, CALG_SHA_256);
        EXPECT_EQ(feed(source, "abc"), accepted());
        ASSERT_EQ(run(CPDuplicateHash, provider, source, nullptr, 0, &out), accepted());
        for (const HCRYPTHASH hash : {source, out}) {
            EXPECT_EQ(hashValue(provider, hash), isHmac ? innerSha256("abc") : sha256(bytesOf("abc")));
            EXPECT_EQ(liveHash(hash)->isHmac != 0, isHmac);
            expectFinished(hash);
        }
        EXPECT_EQ(liveHash(out)->hmacInfo.HashAlgid, isHmac ? ALG_ID{CALG_SHA_256} : 0);
        EXPECT_EQ(liveHash(out)->hmacKeyLength, 0u) << "the copy takes no key";
        EXPECT_TRUE(CPDestroyHash(provider, out));
    }
}

// That the value is right is for client.sh to say, with published vectors.
TEST_F(HashTest, HmacWipesItsKeyAndTakesNoDataBeforeItsAlgorithm) {
    const HCRYPTHASH hash = createHmac(CALG_SHA1); // whose rule is for plain hashes only
    EXPECT_EQ(feed(hash, "abc"), accepted());
    const Bytes value = hashValue(provider, hash);
    EXPECT_EQ(hashValue(provider, hash), value) << "the outer step is made once";
    EXPECT_EQ(std::ranges::count(liveHash(hash)->hmacKey.data(), liveHash(hash)->hmacKey.data() + 128, 0),
              128);
    EXPECT_EQ(liveHash(hash)->hmacKeyLength, 0u);
    expectFinished(hash);
    const Bytes fixed(20, 7);
    EXPECT_EQ(set(hash, HP_HASHVAL, fixed.data()), accepted());
    EXPECT_EQ(hashValue(provider, hash), fixed) << "no outer hash";
    library.clearCalls();
    EXPECT_EQ(feed(createHmac(0), "x").lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_updateHash(hash=0, data=78)"))
        << "goes to the null hash of the library";
}

TEST_F(HashTest, SecondHmacInfoIsKeyedWithTheOuterPadOfTheFirst) {
    const Bytes pad = paddedKey(bytesOf("key"), 128, 0x5C);
    // 128 bytes are the block of SHA-512, and more than that of SHA-256: digested on the token first, which
    // fails without a line.
    for (const auto& [second, mechanism, block] :
         {std::tuple{CALG_SHA_256, 3, 64u}, {CALG_SHA_512, 5, 128u}}) {
        const HCRYPTHASH hash = createHmac(CALG_SHA_512);
        for (const char* function : {"veltra_initHash", "veltra_updateHash", "veltra_finalHash"}) {
            library.script(function, {.result = 7});
            EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), refused(NTE_FAIL, {})) << function;
            library.clearScripts();
        }
        EXPECT_EQ(setHmacInfo(hash, second), accepted());
        const Bytes key = block < pad.size() ? sha256(pad) : pad;
        const Bytes inner = ScriptedDeviceLibrary::fakeDigest(mechanism, paddedKey(key, block, 0x36));
        EXPECT_EQ(hashValue(provider, hash),
                  ScriptedDeviceLibrary::fakeDigest(mechanism, joined({paddedKey(key, block, 0x5C), inner})));
    }
}

// CPDeriveKey

TEST_F(HashTest, DerivedKeyIsTheLeadingBytesOfTheHashValueFilledUpWithZeros) {
    const auto expectKey = [&](HCRYPTHASH hash, ALG_ID algorithm, std::size_t keyLength, Bytes value) {
        ASSERT_EQ(run(CPDeriveKey, provider, algorithm, hash, 0xFFFFFFFF, &out), accepted());
        value.resize(keyLength);
        EXPECT_EQ(textOf(*liveKey(out)),
                  concat(algorithm, "/", keyLength * 8,
                         "/0/3/0 id=0000..(0) credential= label= secret=", toHex(value)));
        EXPECT_TRUE(CPDestroyKey(provider, out));
    };
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_512);
    const Bytes digest = ScriptedDeviceLibrary::fakeDigest(5, {});
    expectKey(hash, CALG_AES_192, 24, digest);
    EXPECT_EQ(liveHash(hash)->finalized, 0) << "the hash is not marked finished: deliberate";
    EXPECT_EQ(library.calls().back(), "veltra_finalHash(hash=1, capacity=128)");
    EXPECT_EQ(feed(hash, "more"), accepted());
    library.script("veltra_finalHash", {.length = 65});
    EXPECT_FALSE(get(hash, HP_HASHVAL).result);
    expectKey(hash, CALG_AES_192, 24, digest); // what failed has not touched the value
    expectKey(hashWithValue(provider, 0x22), CALG_AES_256, 32, Bytes(32, 0x22)); // a value that was set
    library.clearScripts();
    expectKey(createHmac(CALG_SHA_256), CALG_AES_128, 16, innerSha256(""));
    token.info.fipsMarker = "3.1";
    expectKey(createHash(provider, CALG_SHA1), CALG_AES_256, 32, ScriptedDeviceLibrary::fakeDigest(2, {}));
}

} // namespace
} // namespace veltra::test
