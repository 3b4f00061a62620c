#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/crypto_policy.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace veltra::test {
namespace {

struct Algorithm {
    ALG_ID algId;
    int mechanism;
    DWORD digestLength;
    DWORD blockLength;
    const char* trace; // of its creation; the spelling is part of the log format
};
const Algorithm kAlgorithms[] = {{CALG_SHA1, 2, 20, 64, "CPCreateHash: SHA-1 (FIPS 140-2 token)"},
                                 {CALG_SHA_256, 3, 32, 64, "Crete hash algorithm 256"},
                                 {CALG_SHA_384, 4, 48, 128, "Crete hash algorithm 384"},
                                 {CALG_SHA_512, 5, 64, 128, "Crete hash algorithm 512"}};

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

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

    Answer create(ALG_ID algorithm, HCRYPTKEY key = 0) {
        return run([&] { return CPCreateHash(provider, algorithm, key, 0, &out); });
    }
    HCRYPTHASH createHmac(const std::string& key = "key") {
        return createHash(provider, CALG_HMAC, addSymmetricKey(key));
    }
    Answer get(HCRYPTHASH hash, DWORD parameter, BYTE* buffer, DWORD& size) {
        return run([&] { return CPGetHashParam(provider, hash, parameter, buffer, &size, 0); });
    }
    /// Asks with a buffer of `capacity` bytes; `length` is what comes back.
    Answer get(HCRYPTHASH hash, DWORD parameter, DWORD capacity) {
        length = capacity;
        return get(hash, parameter, data, length);
    }
    DWORD getNumber(HCRYPTHASH hash, DWORD parameter) {
        DWORD value = 0;
        EXPECT_EQ(get(hash, parameter, sizeof value), accepted());
        std::memcpy(&value, data, sizeof value);
        return value;
    }
    Answer set(HCRYPTHASH hash, DWORD parameter, const void* value) {
        return run(
            [&] { return CPSetHashParam(provider, hash, parameter, static_cast<const BYTE*>(value), 0); });
    }
    Answer setHmacInfo(HCRYPTHASH hash, ALG_ID inner) {
        HMAC_INFO info{};
        info.HashAlgid = inner;
        return set(hash, HP_HMAC_INFO, &info);
    }
    HCRYPTHASH duplicate(HCRYPTHASH source) {
        HCRYPTHASH copy = 0;
        EXPECT_TRUE(CPDuplicateHash(provider, source, nullptr, 0, &copy));
        return copy;
    }
    Answer feed(HCRYPTHASH hash, const std::string& text) {
        return run([&] { return hashData(provider, hash, text); });
    }

    const HCRYPTPROV provider;
    HCRYPTHASH out = 0;
    BYTE data[256] = {};
    DWORD length = 0;
};

const std::string kFinalised =
    "CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data";

TEST_F(HashTest, EveryDigest) {
    token.info.fipsMarker = "3.1.0";
    for (const Algorithm& row : kAlgorithms) {
        SCOPED_TRACE(row.mechanism);
        EXPECT_EQ(create(row.algId, 0xBAD), accepted()) << "the key is ignored";
        EXPECT_THAT(debugLines,
                    ElementsAre("CPCreateHash", concat("Crete hash algorithm input : ", row.algId), row.trace,
                                concat("Crete hash algorithm : ", row.mechanism)));
        const HCRYPTHASH hash = out;
        EXPECT_EQ(feed(hash, "ab"), accepted());
        EXPECT_EQ(feed(hash, "c"), accepted());
        EXPECT_EQ(getNumber(hash, HP_ALGID), row.algId);
        EXPECT_EQ(getNumber(hash, HP_HASHSIZE), row.digestLength);
        EXPECT_EQ(hashValue(provider, hash), digestOf(row, bytesOf("abc")));
        EXPECT_TRUE(CPDestroyHash(provider, hash));
    }
    EXPECT_EQ(library.calls("veltra_initHash")[0], "veltra_initHash(serial=" + serial + ", algorithm=2)");
    EXPECT_EQ(library.calls("veltra_finalHash")[0], "veltra_finalHash(hash=1, capacity=20)");
}

TEST_F(HashTest, RefusalsInTheirOrder) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    const HCRYPTHASH hmac = createHmac();
    const HCRYPTKEY noMaterial = addSymmetricKey("");
    const HCRYPTHASH gone = duplicate(hash);
    EXPECT_EQ(run([&] { return CPDestroyHash(provider, gone); }), accepted());
    const auto creates = [this](ALG_ID algorithm, HCRYPTKEY key = 0, DWORD flags = 0) {
        return [=, this] { return CPCreateHash(provider, algorithm, key, flags, &out); };
    };
    const auto duplicates = [this](HCRYPTPROV context, HCRYPTHASH source, HCRYPTHASH* copy) {
        return [=] { return CPDuplicateHash(context, source, nullptr, 1, copy); };
    };
    const auto gets = [this](HCRYPTPROV context, HCRYPTHASH source, DWORD* size, DWORD parameter = 3,
                             DWORD flags = 0xF1) {
        return [=, this] { return CPGetHashParam(context, source, parameter, data, size, flags); };
    };
    const auto sets = [](HCRYPTPROV context, HCRYPTHASH target, const BYTE* value, DWORD parameter = 3,
                         DWORD flags = 1) {
        return [=] { return CPSetHashParam(context, target, parameter, value, flags); };
    };
    const std::string noContext = "invalid or uninitialized context", noHash = "pHashHandle is NULL";
    const auto invalid = [](const char* function, auto... parts) {
        return concat(function, ": invalid parameter - ", parts...);
    };
    const auto kNull = ERROR_INVALID_PARAMETER;
    length = sizeof data;
    const Bytes value(64); // as long as the longest parameter
    const BYTE* const bytes = value.data();
    expectRefused({
        {[&] { return CPCreateHash(provider, CALG_SHA_256, 0, 1, nullptr); }, kNull,
         invalid("CPCreateHash", "phHash=0 hProv=", provider)},
        {[&] { return CPCreateHash(0, CALG_SHA_256, 0, 1, &out); }, kNull,
         invalid("CPCreateHash", "phHash=", &out, " hProv=0")},
        {creates(CALG_MD5, 0, 1), NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x00000001"},
        {creates(CALG_MD5), NTE_BAD_ALGID, "CPCreateHash: MD5 blocked (FIPS policy)"},
        {creates(CALG_SHA1), NTE_BAD_ALGID, "CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)"},
        {creates(CALG_HMAC), NTE_BAD_KEY, "CPCreateHash: CALG_HMAC requires a key handle"},
        {creates(CALG_HMAC, 0xDEADBEE0), NTE_BAD_KEY, "CPCreateHash: CALG_HMAC requires a key handle"},
        {creates(CALG_HMAC, noMaterial), NTE_BAD_KEY, "CPCreateHash: HMAC key has no symmetric key material"},
        {creates(CALG_MAC), NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00008005"},
        {creates(CALG_AES_256), NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00006610"},
        {[&] { return CPHashData(0, 0, data, 1, 0); }, NTE_BAD_UID, "CPHashData: " + noContext},
        {[&] { return CPHashData(provider, provider, data, 1, 0); }, NTE_BAD_HASH, "CPHashData: " + noHash},
        {[&] { return CPHashData(provider, gone, data, 1, 0); }, NTE_BAD_HASH, "CPHashData: " + noHash},
        {gets(0, hash, &length), kNull,
         invalid("CPGetHashParam", "hProv=0 hHash=", hash, " pcbDataLen=", &length)},
        {gets(provider, 0, &length), kNull,
         invalid("CPGetHashParam", "hProv=", provider, " hHash=0 pcbDataLen=", &length)},
        {gets(provider, hash, nullptr), kNull,
         invalid("CPGetHashParam", "hProv=", provider, " hHash=", hash, " pcbDataLen=0")},
        {gets(provider, hash, &length), NTE_BAD_FLAGS, "CPGetHashParam: invalid dwFlags=0x000000F1"},
        {gets(provider, hash, &length, 3, 0), NTE_BAD_TYPE, "CPGetHashParam: unsupported dwParam=0x00000003"},
        {gets(provider, hash, &length, HP_HMAC_INFO, 0), NTE_BAD_TYPE,
         "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC"},
        {gets(provider, hmac, &length, HP_HASHVAL, 0), NTE_BAD_ALGID,
         "CPGetHashParam: HP_HASHVAL unsupported mechanism=0"},
        {gets(provider, hmac, &length, HP_HASHSIZE, 0), NTE_BAD_ALGID,
         "CPGetHashParam: HP_HASHSIZE unsupported mechanism=0"},
        {sets(0, hash, bytes), kNull, invalid("CPSetHashParam", "hProv=0 hHash=", hash, " pbData=", bytes)},
        {sets(provider, 0, bytes), kNull,
         invalid("CPSetHashParam", "hProv=", provider, " hHash=0 pbData=", bytes)},
        {sets(provider, hash, nullptr), kNull,
         invalid("CPSetHashParam", "hProv=", provider, " hHash=", hash, " pbData=0")},
        {sets(provider, hash, bytes), NTE_BAD_FLAGS, "CPSetHashParam: invalid dwFlags=0x00000001"},
        {sets(provider, hash, bytes, HP_HASHSIZE, 0), NTE_BAD_TYPE,
         "CPSetHashParam: unsupported dwParam=0x00000004"},
        {sets(provider, hash, bytes, HP_HMAC_INFO, 0), NTE_BAD_TYPE,
         "CPSetHashParam: HP_HMAC_INFO on non-HMAC hash"},
        {sets(provider, hmac, bytes, HP_HMAC_INFO, 0), NTE_BAD_ALGID,
         "CPSetHashParam: unsupported HMAC inner hash 0x00000000"},
        {duplicates(provider, hash, nullptr), kNull,
         invalid("CPDuplicateHash", "phHash=0 hProv=", provider, " hHash=", hash)},
        {duplicates(0, hash, &out), kNull,
         invalid("CPDuplicateHash", "phHash=", &out, " hProv=0 hHash=", hash)},
        {duplicates(provider, 0, &out), kNull,
         invalid("CPDuplicateHash", "phHash=", &out, " hProv=", provider, " hHash=0")},
        {duplicates(provider, hash, &out), NTE_BAD_FLAGS, "CPDuplicateHash: invalid dwFlags=0x00000001"},
        {[&] { return CPDestroyHash(0, 0); }, NTE_BAD_UID, "CPDestroyHash: " + noContext},
        {[&] { return CPDestroyHash(provider, gone); }, NTE_BAD_HASH, "CPDestroyHash: " + noHash},
    });
    // Records that nobody has set up, which no entry point hands out.
    const std::string notSetUp = ": context not initialized or hash not valid";
    liveContext(provider)->initialised = 0;
    expectRefused({
        {gets(provider, hash, &length, 3, 0), NTE_BAD_HASH, "CPGetHashParam" + notSetUp},
        {sets(provider, hash, bytes, 3, 0), NTE_BAD_HASH, "CPSetHashParam" + notSetUp},
        {[&] { return CPDuplicateHash(provider, hash, nullptr, 0, &out); }, NTE_BAD_UID,
         "CPDuplicateHash: invalid or uninitialized context"},
    });
    liveContext(provider)->initialised = 1;
    EXPECT_EQ(setHmacInfo(hmac, CALG_HMAC).lastError, static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_EQ(out, 0u) << "no refusal hands out a handle";
}

TEST_F(HashTest, EveryStepThatFails) {
    struct Row {
        const char* function;
        int onCall;
        std::function<Answer(HCRYPTHASH)> step; // on an HMAC object
        const char* error;
    };
    const auto value = [&](HCRYPTHASH hash) {
        EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
        return get(hash, HP_HASHVAL, 32);
    };
    const auto setUp = [&](HCRYPTHASH hash) { return setHmacInfo(hash, CALG_SHA_256); };
    const Row kRows[] = {
        {"veltra_initHash", 1, setUp, "CPSetHashParam: veltra_initHash failed for HMAC inner hash, ret=7"},
        {"veltra_updateHash", 1, setUp, "CPSetHashParam: veltra_updateHash failed for HMAC ipad, ret=7"},
        {"veltra_finalHash", 1, value, "CPGetHashParam: veltra_finalHash failed, ret=7"},
        {"veltra_initHash", 2, value, "CPGetHashParam: HMAC outer veltra_initHash failed, ret=7"},
        {"veltra_updateHash", 2, value, "CPGetHashParam: HMAC outer opad update failed, ret=7"},
        {"veltra_updateHash", 3, value, "CPGetHashParam: HMAC outer inner-result update failed, ret=7"},
        {"veltra_finalHash", 2, value, "CPGetHashParam: HMAC outer veltra_finalHash failed, ret=7"},
        {"veltra_initHash", 1, [&](HCRYPTHASH) { return create(CALG_SHA_512); },
         "CPCreateHash: veltra_initHash failed, ret=7"},
        {"veltra_updateHash", 2,
         [&](HCRYPTHASH hash) {
             EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
             return feed(hash, "x");
         },
         "CPHashData: veltra_updateHash failed, ret=7"},
        {"veltra_finalHash", 1,
         [&](HCRYPTHASH hash) {
             EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
             return run([&] { return CPDuplicateHash(provider, hash, nullptr, 0, &out); });
         },
         "CPDuplicateHash: veltra_finalHash on source failed, ret=7"},
    };
    for (const Row& row : kRows) {
        const HCRYPTHASH hash = createHmac();
        library.clearScripts();
        library.script(row.function, {.result = 7, .onCall = row.onCall});
        EXPECT_EQ(row.step(hash), refused(NTE_FAIL, {row.error}));
    }
    // Digesting a long key fails without a line.
    const HCRYPTHASH hash = createHmac();
    library.clearScripts();
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_512), accepted());
    for (const char* function : {"veltra_initHash", "veltra_updateHash", "veltra_finalHash"}) {
        library.clearScripts();
        library.script(function, {.result = 7, .onCall = 1});
        EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), refused(NTE_FAIL, {})) << function;
    }
}

TEST_F(HashTest, WeakDigestsAreRefusedWithAnEventOnlyWhereOneExists) {
    HANDLE md5 = CreateEventA(nullptr, FALSE, FALSE, kMd5BlockedEvent);
    HANDLE sha1 = CreateEventA(nullptr, FALSE, FALSE, kSha1BlockedEvent);
    const auto signalled = [](HANDLE event) { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; };
    token.info.fipsMarker = "3.1.0";
    EXPECT_EQ(create(CALG_MD5).lastError, static_cast<DWORD>(NTE_BAD_ALGID)) << "on every token";
    EXPECT_TRUE(signalled(md5));
    EXPECT_FALSE(signalled(sha1));
    token.info.fipsMarker = "3.0.9";
    create(CALG_SHA1);
    EXPECT_TRUE(signalled(sha1));

    // Without a token no record is read and the stricter rule holds.
    const HCRYPTPROV verifyOnly = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    library.clearCalls();
    EXPECT_EQ(run([&] { return CPCreateHash(verifyOnly, CALG_SHA1, 0, 0, &out); }),
              refused(NTE_BAD_ALGID, {"CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)"}));
    EXPECT_TRUE(signalled(sha1));
    EXPECT_THAT(library.calls(), IsEmpty());
    createHash(verifyOnly, CALG_SHA_256);
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=, algorithm=3)"));
    CloseHandle(md5);
    CloseHandle(sha1);
}

TEST_F(HashTest, SizeProtocolOfTheFixedAnswers) {
    const HCRYPTHASH plain = createHash(provider, CALG_SHA_256);
    struct Row {
        HCRYPTHASH hash;
        DWORD parameter;
        const char* name;
        DWORD size;
    };
    for (const Row& row : {Row{plain, HP_ALGID, "HP_ALGID", 4},
                           {plain, HP_HASHSIZE, "HP_HASHSIZE", 4},
                           {createHmac(), HP_HMAC_INFO, "HP_HMAC_INFO", sizeof(HMAC_INFO)}}) {
        length = 0;
        EXPECT_EQ(get(row.hash, row.parameter, nullptr, length), accepted());
        EXPECT_EQ(length, row.size);
        EXPECT_EQ(get(row.hash, row.parameter, row.size - 1),
                  refused(ERROR_MORE_DATA, {concat("CPGetHashParam: ", row.name, " buffer too small")}));
        EXPECT_EQ(length, row.size);
        EXPECT_EQ(get(row.hash, row.parameter, sizeof data), accepted());
        EXPECT_EQ(length, row.size);
        EXPECT_THAT(debugLines, Contains("Get hash param success"));
    }
}

TEST_F(HashTest, ValueIsFinishedOnceEvenIfTheBufferIsTooSmall) {
    const std::string tooSmall = "CPGetHashParam: HP_HASHVAL buffer too small for ";
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_EQ(feed(hash, "a"), accepted());
    EXPECT_EQ(get(hash, HP_HASHVAL, nullptr, length), accepted());
    EXPECT_EQ(length, 32u);
    const BYTE letter = 'b';
    EXPECT_EQ(run([&] { return CPHashData(provider, hash, &letter, 1, CRYPT_USERDATA); }), accepted())
        << "a size query leaves it open";
    EXPECT_EQ(run([&] { return CPHashData(provider, hash, nullptr, 0, 0); }), accepted());
    EXPECT_EQ(get(hash, HP_HASHVAL, 31), refused(ERROR_MORE_DATA, {tooSmall + "finalized hash"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(feed(hash, "c"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    EXPECT_EQ(get(hash, HP_HASHVAL, 31), refused(ERROR_MORE_DATA, {tooSmall + "cached hash value"}));
    EXPECT_EQ(length, 32u);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(hashValue(provider, hash), digestOf(kAlgorithms[1], bytesOf("ab")));
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=32)"));
    library.script("veltra_finalHash", {.length = 33});
    EXPECT_FALSE(get(createHash(provider, CALG_SHA_256), HP_HASHVAL, 256).result)
        << "above what it was given";
}

TEST_F(HashTest, SetValueFixesItWithoutTheToken) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_384);
    library.clearCalls();
    Bytes value(48, 7);
    EXPECT_EQ(set(hash, HP_HASHVAL, value.data()), accepted());
    EXPECT_THAT(debugLines,
                ElementsAre("CPSetHashParam", "Set hash param dwParam : 2", "Set hash param dwFlags : 0"));
    EXPECT_EQ(hashValue(provider, hash), value);
    EXPECT_EQ(feed(hash, "x"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    value.assign(48, 9);
    EXPECT_EQ(set(hash, HP_HASHVAL, value.data()), accepted()) << "again";
    EXPECT_EQ(hashValue(provider, hash), value);
    EXPECT_THAT(library.calls(), IsEmpty());
    const HCRYPTHASH hmac = createHmac();
    EXPECT_EQ(setHmacInfo(hmac, CALG_SHA_384), accepted());
    EXPECT_EQ(set(hmac, HP_HASHVAL, value.data()), accepted());
    EXPECT_EQ(hashValue(provider, hmac), value) << "no outer hash";
}

TEST_F(HashTest, DuplicateFinishesTheSourceAndTakesItsValue) {
    const HCRYPTHASH source = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, source, "abc"));
    EXPECT_EQ(run([&] { return CPDuplicateHash(provider, source, nullptr, 0, &out); }), accepted());
    EXPECT_THAT(debugLines, Contains("CPDuplicateHash: source finalized before duplication, hashLen=32"));
    EXPECT_THAT(debugLines, Contains(concat("CPDuplicateHash - source: 0x", toHexAddress(source),
                                            " duplicate: 0x", toHexAddress(out))));
    const Bytes expected = digestOf(kAlgorithms[1], bytesOf("abc"));
    for (const HCRYPTHASH hash : {source, out}) {
        EXPECT_EQ(hashValue(provider, hash), expected);
        EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_SHA_256));
        EXPECT_EQ(feed(hash, "x"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    }
    EXPECT_TRUE(CPDestroyHash(provider, out));
}

TEST_F(HashTest, HmacIsBuiltOnTheTokensDigest) {
    for (const Algorithm& row : kAlgorithms) { // SHA-1 too: its rule is for plain hashes only
        SCOPED_TRACE(row.mechanism);
        const std::string key = "0123456789abcdef0123456789ABCDEF";
        const HCRYPTHASH hash = createHmac(key);
        library.clearCalls();
        EXPECT_EQ(setHmacInfo(hash, row.algId), accepted());
        EXPECT_THAT(debugLines, Contains("CPSetHashParam: HMAC initialized with inner hash algo=" +
                                         std::to_string(row.mechanism)));
        EXPECT_EQ(feed(hash, "a"), accepted());
        EXPECT_EQ(feed(hash, "bc"), accepted());
        EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
        EXPECT_EQ(getNumber(hash, HP_HASHSIZE), row.digestLength);
        const Bytes expected = expectedHmac(row, bytesOf(key), bytesOf("abc"));
        EXPECT_EQ(hashValue(provider, hash), expected);
        EXPECT_EQ(hashValue(provider, hash), expected) << "cached";
        const auto record = liveHash(hash);
        EXPECT_EQ(record->hmacKeyLength, 0u);
        const unsigned char* keyBytes = record->hmacKey.data();
        EXPECT_EQ(std::count(keyBytes, keyBytes + record->hmacKey.size(), 0), 128) << "wiped";
        EXPECT_THAT(library.calls("veltra_initHash"), SizeIs(2));
        EXPECT_THAT(library.calls("veltra_finalHash"), SizeIs(2));
        EXPECT_EQ(feed(hash, "x"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    }
}

TEST_F(HashTest, DataBeforeTheHmacInfoGoesToTheNullHashOfTheLibrary) {
    const HCRYPTHASH hash = createHmac();
    EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
    EXPECT_EQ(feed(hash, "x").lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_updateHash(hash=0, data=78)"));
}

TEST_F(HashTest, HmacInfoIsHandedBackAndItsStringsAreNeverUsed) {
    const HCRYPTHASH hash = createHmac();
    BYTE pad[] = {1, 2, 3, 4};
    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA_256;
    info.pbInnerString = info.pbOuterString = pad;
    info.cbInnerString = info.cbOuterString = sizeof pad;
    EXPECT_EQ(set(hash, HP_HMAC_INFO, &info), accepted());
    EXPECT_EQ(get(hash, HP_HMAC_INFO, sizeof data), accepted());
    EXPECT_EQ(std::memcmp(data, &info, sizeof info), 0);
    EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[1], bytesOf("key"), {}));
}

TEST_F(HashTest, SecondHmacInfoIsKeyedWithTheOuterPadOfTheFirst) {
    // 128 bytes are the block of SHA-512, and more than that of SHA-256: digested on the token first.
    for (const std::size_t second : {1u, 3u}) {
        const HCRYPTHASH hash = createHmac();
        EXPECT_EQ(setHmacInfo(hash, CALG_SHA_512), accepted());
        EXPECT_EQ(setHmacInfo(hash, kAlgorithms[second].algId), accepted());
        const Bytes pad = paddedKey(kAlgorithms[3], bytesOf("key"), 0x5C);
        EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[second], pad, {}));
    }
}

TEST_F(HashTest, HmacDuplicatedBeforeItsValueKeepsTheInnerDigest) {
    const HCRYPTHASH hash = createHmac();
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
    EXPECT_EQ(feed(hash, "abc"), accepted());
    const HCRYPTHASH copy = duplicate(hash);
    const Bytes expected = innerDigest(kAlgorithms[1], bytesOf("key"), bytesOf("abc"));
    EXPECT_EQ(hashValue(provider, hash), expected);
    EXPECT_EQ(hashValue(provider, copy), expected);
    EXPECT_EQ(getNumber(copy, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
    EXPECT_EQ(get(copy, HP_HMAC_INFO, sizeof data), accepted());
    EXPECT_EQ(reinterpret_cast<const HMAC_INFO*>(data)->HashAlgid, static_cast<ALG_ID>(CALG_SHA_256));
    EXPECT_EQ(liveHash(copy)->hmacKeyLength, 0u) << "the copy takes no key";
    EXPECT_TRUE(CPDestroyHash(provider, copy));
}

} // namespace
} // namespace veltra::test
