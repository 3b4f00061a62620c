#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/key_handle.h"
#include "foundation/text.h"
#include "foundation/win_handle.h"
#include "token/crypto_policy.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

struct Algorithm {
    ALG_ID algId;
    int mechanism;
    DWORD digestLength;
    DWORD blockLength;
};
const Algorithm kAlgorithms[] = {{CALG_SHA1, 2, 20, 64},
                                 {CALG_SHA_256, 3, 32, 64},
                                 {CALG_SHA_384, 4, 48, 128},
                                 {CALG_SHA_512, 5, 64, 128}};

Bytes digestOf(const Algorithm& algorithm, const Bytes& data) {
    return ScriptedDeviceLibrary::fakeDigest(algorithm.mechanism, data);
}

/// The key filled up to the block, with every byte changed.
Bytes paddedKey(const Algorithm& algorithm, Bytes key, unsigned char change) {
    key.resize(algorithm.blockLength);
    for (unsigned char& byte : key)
        byte ^= change;
    return key;
}

Bytes innerDigest(const Algorithm& algorithm, const Bytes& key, const Bytes& data) {
    return digestOf(algorithm, joined({paddedKey(algorithm, key, 0x36), data}));
}

/// HMAC as RFC 2104 builds it, over the double's digest.
Bytes expectedHmac(const Algorithm& algorithm, Bytes key, const Bytes& data) {
    if (key.size() > algorithm.blockLength) key = digestOf(algorithm, key);
    return digestOf(algorithm, joined({paddedKey(algorithm, key, 0x5C), innerDigest(algorithm, key, data)}));
}

class HashTest : public CspTest {
protected:
    HashTest() : provider(acquire()) { library.clearCalls(); }

    HCRYPTHASH createHmac(const std::string& key = "key") {
        return createHash(provider, CALG_HMAC, addSymmetricKey(key));
    }
    /// Asks with a buffer of `capacity` bytes; `length` is what comes back.
    Answer get(HCRYPTHASH hash, DWORD parameter, DWORD capacity = sizeof data) {
        length = capacity;
        return run(CPGetHashParam, provider, hash, parameter, data, &length, 0);
    }
    DWORD getNumber(HCRYPTHASH hash, DWORD parameter) {
        DWORD value = 0;
        EXPECT_EQ(get(hash, parameter, sizeof value), accepted());
        std::memcpy(&value, data, sizeof value);
        return value;
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

TEST_F(HashTest, EveryDigest) {
    token.info.fipsMarker = "3.1.0";
    for (const Algorithm& row : kAlgorithms) {
        SCOPED_TRACE(row.mechanism);
        const HCRYPTHASH hash = createHash(provider, row.algId, 0xBAD); // the key is ignored
        EXPECT_EQ(feed(hash, "ab"), accepted());
        EXPECT_EQ(feed(hash, "c"), accepted());
        EXPECT_EQ(getNumber(hash, HP_ALGID), row.algId);
        EXPECT_EQ(getNumber(hash, HP_HASHSIZE), row.digestLength);
        EXPECT_EQ(hashValue(provider, hash), digestOf(row, bytesOf("abc")));
    }
}

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
    token.info.fipsMarker = "3.0.9";
    expectBlocked(provider, CALG_SHA1, false);
    token.info.fipsMarker = "3.1.0";
    expectBlocked(provider, CALG_MD5, true);
    library.clearCalls();
    expectBlocked(verifyOnly, CALG_SHA1, false); // without a token no record is read: the stricter rule holds
    createHash(verifyOnly, CALG_SHA_256);
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=, algorithm=3)"));
}

TEST_F(HashTest, ValueIsFinishedOnceEvenIfTheBufferIsTooSmall) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_EQ(feed(hash, "a"), accepted());
    EXPECT_EQ(run(CPGetHashParam, provider, hash, HP_HASHVAL, nullptr, &length, 0), accepted());
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(feed(hash, "b"), accepted()) << "a size query leaves it open";
    EXPECT_EQ(run(CPHashData, provider, hash, nullptr, 0, CRYPT_USERDATA), accepted());
    EXPECT_EQ(get(hash, HP_HASHVAL, 31),
              refused(ERROR_MORE_DATA, {"CPGetHashParam: HP_HASHVAL buffer too small for finalized hash"}));
    EXPECT_EQ(length, 32u);
    expectFinished(hash);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(hashValue(provider, hash), digestOf(kAlgorithms[1], bytesOf("ab")));
    EXPECT_EQ(library.calls().front(), "veltra_initHash(serial=" + serial + ", algorithm=3)");
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=32)"));
    library.script("veltra_finalHash", {.length = 33});
    EXPECT_FALSE(get(createHash(provider, CALG_SHA_256), HP_HASHVAL).result) << "above what it was given";
}

TEST_F(HashTest, SetValueFixesItWithoutTheToken) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_384);
    const HCRYPTHASH hmac = createHmac();
    EXPECT_EQ(setHmacInfo(hmac, CALG_SHA_384), accepted());
    library.clearCalls();
    for (const Bytes& value : {Bytes(48, 7), Bytes(48, 9)}) {
        EXPECT_EQ(set(hash, HP_HASHVAL, value.data()), accepted());
        EXPECT_EQ(set(hmac, HP_HASHVAL, value.data()), accepted());
        EXPECT_EQ(hashValue(provider, hash), value);
        EXPECT_EQ(hashValue(provider, hmac), value) << "no outer hash";
        expectFinished(hash);
    }
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(HashTest, DuplicateFinishesTheSourceAndTakesItsValue) {
    const HCRYPTHASH source = createHash(provider, CALG_SHA_256);
    const HCRYPTHASH hmac = createHmac();
    EXPECT_EQ(setHmacInfo(hmac, CALG_SHA_256), accepted());
    const auto expectCopy = [&](HCRYPTHASH original, ALG_ID algorithm, const Bytes& value) {
        EXPECT_EQ(feed(original, "abc"), accepted());
        EXPECT_EQ(run(CPDuplicateHash, provider, original, nullptr, 0, &out), accepted());
        for (const HCRYPTHASH hash : {original, out}) {
            EXPECT_EQ(hashValue(provider, hash), value);
            EXPECT_EQ(getNumber(hash, HP_ALGID), algorithm);
            expectFinished(hash);
        }
    };
    expectCopy(source, CALG_SHA_256, digestOf(kAlgorithms[1], bytesOf("abc")));
    EXPECT_TRUE(CPDestroyHash(provider, out));
    expectCopy(hmac, CALG_HMAC, innerDigest(kAlgorithms[1], bytesOf("key"), bytesOf("abc")));
    EXPECT_EQ(get(out, HP_HMAC_INFO), accepted());
    EXPECT_EQ(reinterpret_cast<const HMAC_INFO*>(data)->HashAlgid, static_cast<ALG_ID>(CALG_SHA_256));
    EXPECT_EQ(liveHash(out)->hmacKeyLength, 0u) << "the copy takes no key";
    EXPECT_TRUE(CPDestroyHash(provider, out));
}

TEST_F(HashTest, HmacIsBuiltOnTheTokensDigest) {
    for (const Algorithm& row : kAlgorithms) { // SHA-1 too: its rule is for plain hashes only
        SCOPED_TRACE(row.mechanism);
        const std::string key = "0123456789abcdef0123456789ABCDEF";
        const HCRYPTHASH hash = createHmac(key);
        EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
        EXPECT_EQ(setHmacInfo(hash, row.algId), accepted());
        EXPECT_EQ(feed(hash, "a"), accepted());
        EXPECT_EQ(feed(hash, "bc"), accepted());
        EXPECT_EQ(getNumber(hash, HP_HASHSIZE), row.digestLength);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(hashValue(provider, hash), expectedHmac(row, bytesOf(key), bytesOf("abc")));
        const auto record = liveHash(hash);
        const unsigned char* keyBytes = record->hmacKey.data();
        EXPECT_EQ(std::count(keyBytes, keyBytes + record->hmacKey.size(), 0), 128) << "wiped";
        EXPECT_EQ(record->hmacKeyLength, 0u);
        expectFinished(hash);
    }
    EXPECT_THAT(library.calls("veltra_finalHash"), SizeIs(8)) << "the value stays";
    library.clearCalls();
    EXPECT_EQ(feed(createHmac(), "x").lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_updateHash(hash=0, data=78)"))
        << "data in front of the HMAC_INFO goes to the null hash of the library";
}

TEST_F(HashTest, SecondHmacInfoIsKeyedWithTheOuterPadOfTheFirst) {
    const Bytes pad = paddedKey(kAlgorithms[3], bytesOf("key"), 0x5C);
    // 128 bytes are the block of SHA-512, and more than that of SHA-256: digested on the token first, which
    // fails without a line.
    for (const std::size_t second : {1u, 3u}) {
        const HCRYPTHASH hash = createHmac();
        EXPECT_EQ(setHmacInfo(hash, CALG_SHA_512), accepted());
        for (const char* function : {"veltra_initHash", "veltra_updateHash", "veltra_finalHash"}) {
            library.script(function, {.result = 7});
            EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), refused(NTE_FAIL, {})) << function;
            library.clearScripts();
        }
        EXPECT_EQ(setHmacInfo(hash, kAlgorithms[second].algId), accepted());
        EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[second], pad, {}));
    }
}

// CPDeriveKey

TEST_F(HashTest, DerivedKeyIsTheLeadingBytesOfTheHashValueFilledUpWithZeros) {
    const auto expectKey = [&](HCRYPTHASH hash, ALG_ID algorithm, std::size_t keyLength, Bytes value) {
        for (const DWORD flags : {0u, 0xFFFFFFFFu}) { // the same key both times
            ASSERT_EQ(run(CPDeriveKey, provider, algorithm, hash, flags, &out), accepted());
            const auto key = liveKey(out);
            value.resize(keyLength);
            value.resize(32);
            EXPECT_EQ(Bytes(key->symmetricKey.data(), key->symmetricKey.data() + 32), value);
            EXPECT_EQ(key->symmetricKeyLength, keyLength);
            EXPECT_EQ(key->keyBits, keyLength * 8);
            EXPECT_EQ(key->algId, algorithm);
            EXPECT_EQ(key->keyUsage, 3u);
            EXPECT_EQ(key->mode + key->keyIdLength + key->publicKeyLength, 0u);
            EXPECT_TRUE(CPDestroyKey(provider, out));
        }
    };
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_512);
    expectKey(hash, CALG_AES_192, 24, digestOf(kAlgorithms[3], {}));
    EXPECT_EQ(liveHash(hash)->finalized, 0) << "the hash is not marked finished: deliberate";
    EXPECT_EQ(library.calls().back(), "veltra_finalHash(hash=1, capacity=128)");
    EXPECT_EQ(feed(hash, "more"), accepted());
    library.script("veltra_finalHash", {.length = 65});
    EXPECT_FALSE(get(hash, HP_HASHVAL).result);
    expectKey(hash, CALG_AES_192, 24, digestOf(kAlgorithms[3], {})); // what failed has not touched the value
    library.script("veltra_finalHash", {});
    token.info.fipsMarker = "3.1";
    expectKey(createHash(provider, CALG_SHA1), CALG_AES_256, 32, digestOf(kAlgorithms[0], {}));
    expectKey(hashWithValue(provider, 0x22), CALG_AES_128, 16, Bytes(32, 0x22)); // a value that was set
    const HCRYPTHASH hmac = createHmac();
    EXPECT_EQ(setHmacInfo(hmac, CALG_SHA_256), accepted());
    expectKey(hmac, CALG_AES_256, 32, innerDigest(kAlgorithms[1], bytesOf("key"), {}));
}

} // namespace
} // namespace veltra::test
