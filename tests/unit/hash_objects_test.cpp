#include "support/csp_test.h"

#include "csp/hash_context.h"
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

Bytes concatenated(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// HMAC as RFC 2104 builds it, over the double's digest.
Bytes expectedHmac(const Algorithm& algorithm, Bytes key, const Bytes& data) {
    const auto digest = [&](const Bytes& input) {
        return ScriptedDeviceLibrary::fakeDigest(algorithm.mechanism, input);
    };
    if (key.size() > algorithm.blockLength) key = digest(key);
    key.resize(algorithm.blockLength);
    Bytes inner = key;
    Bytes outer = key;
    for (unsigned char& byte : inner)
        byte ^= 0x36;
    for (unsigned char& byte : outer)
        byte ^= 0x5C;
    return digest(concatenated(outer, digest(concatenated(inner, data))));
}

class HashTest : public CspTest {
protected:
    HashTest() : provider(acquire()) { library.clearCalls(); }

    Answer create(ALG_ID algorithm, HCRYPTKEY key = 0, DWORD flags = 0) {
        return run([&] { return CPCreateHash(provider, algorithm, key, flags, &out); });
    }
    Answer get(HCRYPTHASH hash, DWORD parameter, BYTE* data, DWORD& length, DWORD flags = 0) {
        return run([&] { return CPGetHashParam(provider, hash, parameter, data, &length, flags); });
    }
    DWORD getNumber(HCRYPTHASH hash, DWORD parameter) {
        DWORD value = 0;
        DWORD length = sizeof value;
        EXPECT_EQ(get(hash, parameter, reinterpret_cast<BYTE*>(&value), length), accepted());
        EXPECT_EQ(length, sizeof value);
        return value;
    }
    Answer set(HCRYPTHASH hash, DWORD parameter, const void* data, DWORD flags = 0) {
        return run(
            [&] { return CPSetHashParam(provider, hash, parameter, static_cast<const BYTE*>(data), flags); });
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
    Answer feed(HCRYPTHASH hash, const std::string& data) {
        return run([&] { return hashData(provider, hash, data); });
    }

    const HCRYPTPROV provider;
    HCRYPTHASH out = 0;
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
        EXPECT_EQ(hashValue(provider, hash),
                  ScriptedDeviceLibrary::fakeDigest(row.mechanism, bytesOf("abc")));
        EXPECT_TRUE(CPDestroyHash(provider, hash));
    }
    EXPECT_THAT(library.calls("veltra_initHash"),
                ElementsAre("veltra_initHash(serial=" + serial + ", algorithm=2)",
                            "veltra_initHash(serial=" + serial + ", algorithm=3)",
                            "veltra_initHash(serial=" + serial + ", algorithm=4)",
                            "veltra_initHash(serial=" + serial + ", algorithm=5)"));
    EXPECT_EQ(library.calls("veltra_finalHash")[0], "veltra_finalHash(hash=1, capacity=20)");
}

TEST_F(HashTest, CreateRefusals) {
    const HCRYPTKEY noMaterial = addSymmetricKey("");
    const std::string pointer = std::to_string(reinterpret_cast<ULONG_PTR>(&out));
    EXPECT_EQ(run([&] { return CPCreateHash(provider, CALG_SHA_256, 0, 1, nullptr); }),
              refused(ERROR_INVALID_PARAMETER,
                      {"CPCreateHash: invalid parameter - phHash=0 hProv=" + std::to_string(provider)}));
    EXPECT_EQ(run([&] { return CPCreateHash(0, CALG_SHA_256, 0, 1, &out); }),
              refused(ERROR_INVALID_PARAMETER,
                      {"CPCreateHash: invalid parameter - phHash=" + pointer + " hProv=0"}));
    struct Row {
        ALG_ID algorithm;
        HCRYPTKEY key;
        DWORD flags;
        HRESULT code;
        const char* line;
    };
    const Row kRows[] = {
        {CALG_MD5, 0, 1, NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x00000001"},
        {CALG_MD5, 0, 0, NTE_BAD_ALGID, "CPCreateHash: MD5 blocked (FIPS policy)"},
        {CALG_SHA1, 0, 0, NTE_BAD_ALGID, "CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)"},
        {CALG_HMAC, 0, 0, NTE_BAD_KEY, "CPCreateHash: CALG_HMAC requires a key handle"},
        {CALG_HMAC, 0xDEADBEE0, 0, NTE_BAD_KEY, "CPCreateHash: CALG_HMAC requires a key handle"},
        {CALG_HMAC, noMaterial, 0, NTE_BAD_KEY, "CPCreateHash: HMAC key has no symmetric key material"},
        {CALG_MAC, 0, 0, NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00008005"},
        {CALG_SSL3_SHAMD5, 0, 0, NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00008008"},
        {CALG_MD4, 0, 0, NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00008002"},
        {CALG_AES_256, 0, 0, NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x00006610"},
    };
    for (const Row& row : kRows)
        EXPECT_EQ(create(row.algorithm, row.key, row.flags),
                  refused(static_cast<DWORD>(row.code), {row.line}));
    library.script("veltra_initHash", {.result = 33});
    EXPECT_EQ(create(CALG_SHA_512), refused(NTE_FAIL, {"CPCreateHash: veltra_initHash failed, ret=33"}));
    EXPECT_EQ(out, 0u) << "no refusal hands out a handle";
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
    EXPECT_TRUE(CPCreateHash(verifyOnly, CALG_SHA_256, 0, 0, &out));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=, algorithm=3)"));
    CPDestroyHash(verifyOnly, out);
    CloseHandle(md5);
    CloseHandle(sha1);
}

TEST_F(HashTest, HandlesAreCheckedInEveryEntryPoint) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    BYTE data[256] = {};
    DWORD length = sizeof data;
    const std::string p = std::to_string(provider);
    const std::string h = std::to_string(hash);
    const std::string d = std::to_string(reinterpret_cast<ULONG_PTR>(data));
    const std::string l = std::to_string(reinterpret_cast<ULONG_PTR>(&length));
    const std::string o = std::to_string(reinterpret_cast<ULONG_PTR>(&out));
    struct Row {
        std::function<BOOL()> call;
        DWORD code;
        std::string line;
    };
    const DWORD kInvalid = ERROR_INVALID_PARAMETER;
    const auto uid = static_cast<DWORD>(NTE_BAD_UID);
    const auto bad = static_cast<DWORD>(NTE_BAD_HASH);
    const Row kRows[] = {
        {[&] { return CPHashData(0, 0, data, 1, 0); }, uid, "CPHashData: invalid or uninitialized context"},
        {[&] { return CPHashData(provider, 0, data, 1, 0); }, bad, "CPHashData: pHashHandle is NULL"},
        {[&] { return CPHashData(provider, provider, data, 1, 0); }, bad, "CPHashData: pHashHandle is NULL"},
        {[&] { return CPGetHashParam(0, hash, 3, data, &length, 1); }, kInvalid,
         "CPGetHashParam: invalid parameter - hProv=0 hHash=" + h + " pcbDataLen=" + l},
        {[&] { return CPGetHashParam(provider, 0, 3, data, &length, 1); }, kInvalid,
         "CPGetHashParam: invalid parameter - hProv=" + p + " hHash=0 pcbDataLen=" + l},
        {[&] { return CPGetHashParam(provider, hash, 3, data, nullptr, 1); }, kInvalid,
         "CPGetHashParam: invalid parameter - hProv=" + p + " hHash=" + h + " pcbDataLen=0"},
        {[&] { return CPGetHashParam(provider, hash, 3, data, &length, 0xF1); },
         static_cast<DWORD>(NTE_BAD_FLAGS), "CPGetHashParam: invalid dwFlags=0x000000F1"},
        {[&] { return CPSetHashParam(0, hash, 3, data, 1); }, kInvalid,
         "CPSetHashParam: invalid parameter - hProv=0 hHash=" + h + " pbData=" + d},
        {[&] { return CPSetHashParam(provider, 0, 3, data, 1); }, kInvalid,
         "CPSetHashParam: invalid parameter - hProv=" + p + " hHash=0 pbData=" + d},
        {[&] { return CPSetHashParam(provider, hash, 3, nullptr, 1); }, kInvalid,
         "CPSetHashParam: invalid parameter - hProv=" + p + " hHash=" + h + " pbData=0"},
        {[&] { return CPSetHashParam(provider, hash, 3, data, 1); }, static_cast<DWORD>(NTE_BAD_FLAGS),
         "CPSetHashParam: invalid dwFlags=0x00000001"},
        {[&] { return CPDuplicateHash(provider, hash, nullptr, 1, nullptr); }, kInvalid,
         "CPDuplicateHash: invalid parameter - phHash=0 hProv=" + p + " hHash=" + h},
        {[&] { return CPDuplicateHash(0, hash, nullptr, 1, &out); }, kInvalid,
         "CPDuplicateHash: invalid parameter - phHash=" + o + " hProv=0 hHash=" + h},
        {[&] { return CPDuplicateHash(provider, 0, nullptr, 1, &out); }, kInvalid,
         "CPDuplicateHash: invalid parameter - phHash=" + o + " hProv=" + p + " hHash=0"},
        {[&] { return CPDuplicateHash(provider, hash, nullptr, 1, &out); }, static_cast<DWORD>(NTE_BAD_FLAGS),
         "CPDuplicateHash: invalid dwFlags=0x00000001"},
        {[&] { return CPDestroyHash(0, 0); }, uid, "CPDestroyHash: invalid or uninitialized context"},
        {[&] { return CPDestroyHash(provider, 0); }, bad, "CPDestroyHash: pHashHandle is NULL"},
    };
    for (const Row& row : kRows)
        EXPECT_EQ(run(row.call), refused(row.code, {row.line}));

    const HCRYPTHASH gone = duplicate(hash);
    EXPECT_EQ(run([&] { return CPDestroyHash(provider, gone); }), accepted());
    EXPECT_EQ(run([&] { return CPDestroyHash(provider, gone); }),
              refused(NTE_BAD_HASH, {"CPDestroyHash: pHashHandle is NULL"}));
    EXPECT_EQ(feed(gone, "x"), refused(NTE_BAD_HASH, {"CPHashData: pHashHandle is NULL"}));
}

TEST_F(HashTest, HashDataPassesItsFailuresOnAndIgnoresFlags) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    const BYTE data[] = {1, 2, 3};
    EXPECT_EQ(run([&] { return CPHashData(provider, hash, data, 3, CRYPT_USERDATA); }), accepted());
    EXPECT_EQ(run([&] { return CPHashData(provider, hash, nullptr, 1, 0); }).lastError,
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(run([&] { return CPHashData(provider, hash, nullptr, 0, 0); }), accepted());
    library.script("veltra_updateHash", {.result = 41});
    EXPECT_EQ(feed(hash, "x"), refused(NTE_FAIL, {"CPHashData: veltra_updateHash failed, ret=41"}));
    library.clearScripts();
    EXPECT_EQ(hashValue(provider, hash), ScriptedDeviceLibrary::fakeDigest(3, {1, 2, 3}));
}

TEST_F(HashTest, SizeProtocolOfTheFixedAnswers) {
    const HCRYPTHASH plain = createHash(provider, CALG_SHA_256);
    const HCRYPTHASH hmac = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    struct Row {
        HCRYPTHASH hash;
        DWORD parameter;
        const char* name;
        DWORD size;
    };
    const Row kRows[] = {{plain, HP_ALGID, "HP_ALGID", 4},
                         {plain, HP_HASHSIZE, "HP_HASHSIZE", 4},
                         {hmac, HP_HMAC_INFO, "HP_HMAC_INFO", sizeof(HMAC_INFO)}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        BYTE data[64] = {};
        DWORD length = 0;
        EXPECT_EQ(get(row.hash, row.parameter, nullptr, length), accepted());
        EXPECT_EQ(length, row.size);
        --length;
        EXPECT_EQ(
            get(row.hash, row.parameter, data, length),
            refused(ERROR_MORE_DATA, {std::string("CPGetHashParam: ") + row.name + " buffer too small"}));
        EXPECT_EQ(length, row.size);
        length = sizeof data;
        EXPECT_EQ(get(row.hash, row.parameter, data, length), accepted());
        EXPECT_EQ(length, row.size);
        EXPECT_THAT(debugLines, Contains("Get hash param success"));
    }
    DWORD length = 64;
    BYTE data[64] = {};
    EXPECT_EQ(get(plain, 3, data, length),
              refused(NTE_BAD_TYPE, {"CPGetHashParam: unsupported dwParam=0x00000003"}));
    EXPECT_EQ(get(plain, HP_HMAC_INFO, data, length),
              refused(NTE_BAD_TYPE, {"CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC"}));
}

TEST_F(HashTest, ValueIsFinishedOnceEvenIfTheBufferIsTooSmall) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    const Bytes expected = ScriptedDeviceLibrary::fakeDigest(3, bytesOf("ab"));
    DWORD length = 0;
    EXPECT_TRUE(hashData(provider, hash, "a"));
    EXPECT_EQ(get(hash, HP_HASHVAL, nullptr, length), accepted());
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(feed(hash, "b"), accepted()) << "a size query leaves it open";

    BYTE data[32] = {};
    length = 10;
    EXPECT_EQ(get(hash, HP_HASHVAL, data, length),
              refused(ERROR_MORE_DATA, {"CPGetHashParam: HP_HASHVAL buffer too small for finalized hash"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(feed(hash, "c"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    length = 31;
    EXPECT_EQ(
        get(hash, HP_HASHVAL, data, length),
        refused(ERROR_MORE_DATA, {"CPGetHashParam: HP_HASHVAL buffer too small for cached hash value"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(hashValue(provider, hash), expected);
    EXPECT_EQ(hashValue(provider, hash), expected);
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=32)"));
}

TEST_F(HashTest, FailedFinishLeavesTheHashOpen) {
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    library.script("veltra_finalHash", {.result = 8, .onCall = 1});
    BYTE data[32] = {};
    DWORD length = sizeof data;
    EXPECT_EQ(get(hash, HP_HASHVAL, data, length),
              refused(NTE_FAIL, {"CPGetHashParam: veltra_finalHash failed, ret=8"}));
    EXPECT_EQ(feed(hash, "abc"), accepted());
    EXPECT_EQ(hashValue(provider, hash), ScriptedDeviceLibrary::fakeDigest(3, bytesOf("abc")));
}

TEST_F(HashTest, ImpossibleLengthsFromTheLibraryAreFailures) {
    for (const int length : {-1, 33, 257, 0x7FFFFFFF}) {
        SCOPED_TRACE(length);
        const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
        library.clearScripts();
        library.script("veltra_finalHash", {.length = length});
        BYTE data[256] = {};
        DWORD available = sizeof data;
        const Answer answer = get(hash, HP_HASHVAL, data, available);
        EXPECT_EQ(answer.result, FALSE);
        EXPECT_EQ(answer.lastError, static_cast<DWORD>(NTE_FAIL));
        EXPECT_THAT(answer.errors,
                    ElementsAre(testing::StartsWith("CPGetHashParam: veltra_finalHash failed, ret=")));
        EXPECT_EQ(run([&] { return CPDuplicateHash(provider, hash, nullptr, 0, &out); }).lastError,
                  static_cast<DWORD>(NTE_FAIL));
    }
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
    EXPECT_EQ(set(hash, HP_HASHSIZE, value.data()),
              refused(NTE_BAD_TYPE, {"CPSetHashParam: unsupported dwParam=0x00000004"}));
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256),
              refused(NTE_BAD_TYPE, {"CPSetHashParam: HP_HMAC_INFO on non-HMAC hash"}));

    const HCRYPTHASH hmac = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    EXPECT_EQ(setHmacInfo(hmac, CALG_SHA_384), accepted());
    EXPECT_EQ(set(hmac, HP_HASHVAL, value.data()), accepted());
    EXPECT_EQ(hashValue(provider, hmac), value) << "no outer hash";
}

TEST_F(HashTest, DuplicateFinishesTheSourceAndTakesItsValue) {
    const HCRYPTHASH source = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, source, "abc"));
    EXPECT_EQ(run([&] { return CPDuplicateHash(provider, source, nullptr, 0, &out); }), accepted());
    EXPECT_THAT(debugLines, Contains("CPDuplicateHash: source finalized before duplication, hashLen=32"));
    char line[96];
    snprintf(line, sizeof line, "CPDuplicateHash - source: 0x%llX duplicate: 0x%llX",
             static_cast<unsigned long long>(source), static_cast<unsigned long long>(out));
    EXPECT_THAT(debugLines, Contains(line));
    const Bytes expected = ScriptedDeviceLibrary::fakeDigest(3, bytesOf("abc"));
    for (const HCRYPTHASH hash : {source, out}) {
        EXPECT_EQ(hashValue(provider, hash), expected);
        EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_SHA_256));
        EXPECT_EQ(feed(hash, "x"), refused(NTE_BAD_HASH_STATE, {kFinalised}));
    }
    EXPECT_TRUE(CPDestroyHash(provider, out));
    library.script("veltra_finalHash", {.result = 6});
    EXPECT_EQ(
        run([&] { return CPDuplicateHash(provider, createHash(provider, CALG_SHA_256), nullptr, 0, &out); }),
        refused(NTE_FAIL, {"CPDuplicateHash: veltra_finalHash on source failed, ret=6"}));
}

TEST_F(HashTest, HmacIsBuiltOnTheTokensDigest) {
    for (const Algorithm& row : kAlgorithms) { // SHA-1 too: its rule is for plain hashes only
        SCOPED_TRACE(row.mechanism);
        const std::string key = "0123456789abcdef0123456789ABCDEF";
        const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey(key));
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

TEST_F(HashTest, HmacBeforeItsInfoHasNoMechanism) {
    const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    EXPECT_THAT(library.calls(), IsEmpty());
    DWORD length = 64;
    BYTE data[64] = {};
    EXPECT_EQ(get(hash, HP_HASHVAL, nullptr, length),
              refused(NTE_BAD_ALGID, {"CPGetHashParam: HP_HASHVAL unsupported mechanism=0"}));
    EXPECT_EQ(get(hash, HP_HASHSIZE, data, length),
              refused(NTE_BAD_ALGID, {"CPGetHashParam: HP_HASHSIZE unsupported mechanism=0"}));
    EXPECT_EQ(getNumber(hash, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
    // Data is forwarded with the null device hash; what the library says decides.
    const Answer answer = feed(hash, "x");
    EXPECT_EQ(answer.lastError, static_cast<DWORD>(NTE_FAIL));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_updateHash(hash=0, data=78)"));
    for (const ALG_ID inner : {CALG_MD5, CALG_HMAC})
        EXPECT_EQ(setHmacInfo(hash, inner),
                  refused(NTE_BAD_ALGID,
                          {inner == CALG_MD5 ? "CPSetHashParam: unsupported HMAC inner hash 0x00008003"
                                             : "CPSetHashParam: unsupported HMAC inner hash 0x00008009"}));
}

TEST_F(HashTest, HmacInfoIsHandedBackAndItsStringsAreNeverUsed) {
    const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    BYTE pad[] = {1, 2, 3, 4};
    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA_256;
    info.pbInnerString = info.pbOuterString = pad;
    info.cbInnerString = info.cbOuterString = sizeof pad;
    EXPECT_EQ(set(hash, HP_HMAC_INFO, &info), accepted());
    HMAC_INFO back{};
    DWORD length = sizeof back;
    EXPECT_EQ(get(hash, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&back), length), accepted());
    EXPECT_EQ(std::memcmp(&back, &info, sizeof info), 0);
    EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[1], bytesOf("key"), {}));
}

TEST_F(HashTest, SecondHmacInfoIsKeyedWithTheOuterPadOfTheFirst) {
    const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_512), accepted());
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
    Bytes pad = bytesOf("key");
    pad.resize(128);
    for (unsigned char& byte : pad)
        byte ^= 0x5C;
    // 128 bytes are more than the block of SHA-256: the key is digested on the token first.
    EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[1], pad, {}));
}

TEST_F(HashTest, HmacDuplicatedBeforeItsValueKeepsTheInnerDigest) {
    const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted());
    EXPECT_EQ(feed(hash, "abc"), accepted());
    const HCRYPTHASH copy = duplicate(hash);
    Bytes inner = bytesOf("key");
    inner.resize(64);
    for (unsigned char& byte : inner)
        byte ^= 0x36;
    const Bytes expected = ScriptedDeviceLibrary::fakeDigest(3, concatenated(inner, bytesOf("abc")));
    EXPECT_EQ(hashValue(provider, hash), expected);
    EXPECT_EQ(hashValue(provider, copy), expected);
    EXPECT_EQ(getNumber(copy, HP_ALGID), static_cast<DWORD>(CALG_HMAC));
    HMAC_INFO info{};
    DWORD length = sizeof info;
    EXPECT_EQ(get(copy, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&info), length), accepted());
    EXPECT_EQ(info.HashAlgid, static_cast<ALG_ID>(CALG_SHA_256));
    EXPECT_EQ(liveHash(copy)->hmacKeyLength, 0u) << "the copy takes no key";
    EXPECT_TRUE(CPDestroyHash(provider, copy));
}

TEST_F(HashTest, EveryHmacStepThatFails) {
    struct Row {
        const char* function;
        int onCall;
        const char* setLine; // of the set-up; null when it succeeds
        const char* getLine;
    };
    const Row kRows[] = {
        {"veltra_initHash", 1, "CPSetHashParam: veltra_initHash failed for HMAC inner hash, ret=7", nullptr},
        {"veltra_updateHash", 1, "CPSetHashParam: veltra_updateHash failed for HMAC ipad, ret=7", nullptr},
        {"veltra_finalHash", 1, nullptr, "CPGetHashParam: veltra_finalHash failed, ret=7"},
        {"veltra_initHash", 2, nullptr, "CPGetHashParam: HMAC outer veltra_initHash failed, ret=7"},
        {"veltra_updateHash", 2, nullptr, "CPGetHashParam: HMAC outer opad update failed, ret=7"},
        {"veltra_updateHash", 3, nullptr, "CPGetHashParam: HMAC outer inner-result update failed, ret=7"},
        {"veltra_finalHash", 2, nullptr, "CPGetHashParam: HMAC outer veltra_finalHash failed, ret=7"},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.onCall));
        const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
        library.clearScripts();
        library.script(row.function, {.result = 7, .onCall = row.onCall});
        const Answer setUp = setHmacInfo(hash, CALG_SHA_256);
        if (row.setLine) {
            EXPECT_EQ(setUp, refused(NTE_FAIL, {row.setLine}));
            EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), accepted()) << "the object is as it was";
            EXPECT_EQ(hashValue(provider, hash), expectedHmac(kAlgorithms[1], bytesOf("key"), {}));
            continue;
        }
        EXPECT_EQ(setUp, accepted());
        BYTE data[32] = {};
        DWORD length = sizeof data;
        EXPECT_EQ(get(hash, HP_HASHVAL, data, length), refused(NTE_FAIL, {row.getLine}));
    }
    // Digesting a long key fails without a line.
    const HCRYPTHASH hash = createHash(provider, CALG_HMAC, addSymmetricKey("key"));
    library.clearScripts();
    EXPECT_EQ(setHmacInfo(hash, CALG_SHA_512), accepted());
    for (const char* function : {"veltra_initHash", "veltra_updateHash", "veltra_finalHash"}) {
        library.clearScripts();
        library.script(function, {.result = 7, .onCall = 1});
        EXPECT_EQ(setHmacInfo(hash, CALG_SHA_256), refused(NTE_FAIL, {})) << function;
    }
}

} // namespace
} // namespace veltra::test
