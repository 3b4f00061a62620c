#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

const DWORD kSignFailed = 0x8009001D;
const DWORD kVerifyFailed = 0x80090006;
const DWORD kNoKey = 0x8009000D;

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

std::string nameOf(char digit) {
    return std::string(32, digit);
}

class SigningTest : public CspTest {
protected:
    SigningTest() { signature.resize(512); }

    /// A context whose container is the key pair `digit` ("1": 0x11), with the PIN known.
    HCRYPTPROV openKey(char digit) {
        storePinOfToken();
        return acquire(nameOf(digit).c_str());
    }
    Answer sign(HCRYPTPROV provider, HCRYPTHASH hash, DWORD keySpec = AT_SIGNATURE, DWORD capacity = 512) {
        length = capacity;
        std::ranges::fill(signature, BYTE{0});
        return run(
            [&] { return CPSignHash(provider, hash, keySpec, nullptr, 0, signature.data(), &length); });
    }
    Bytes signatureBytes() const {
        return {signature.begin(), signature.begin() + static_cast<long>(length)};
    }
    Answer verify(HCRYPTPROV provider, HCRYPTHASH hash, const Bytes& bytes, HCRYPTKEY key = 0) {
        return run([&] {
            return CPVerifySignature(provider, hash, bytes.data(), static_cast<DWORD>(bytes.size()), key,
                                     nullptr, 0);
        });
    }
    /// The text of the one signature call with these varying parts.
    std::string signCall(const std::string& key, const std::string& pin,
                         const std::string& capacity = "512") const {
        return "veltra_signHash(serial=" + serial + ", key=" + key + ", pin=" + pin +
               ", hash=1122..2222(32), out=" + capacity + ", pss=0)";
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
    for (std::uint32_t type = kKeyTypeRsa2048; type <= kKeyTypeEcP521; ++type)
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type);
    for (std::uint32_t type = kKeyTypeRsa2048; type <= kKeyTypeEcP521; ++type) {
        SCOPED_TRACE(type);
        const HCRYPTPROV provider = openKey(static_cast<char>('0' + type));
        const HCRYPTHASH hash = hashWithValue(provider);
        EXPECT_EQ(sign(provider, hash), accepted());
        const Bytes big = ScriptedDeviceLibrary::fakeSignature(type);
        EXPECT_EQ(signatureBytes(), type <= kKeyTypeRsa4096 ? reversed(big) : big);
        EXPECT_THAT(debugLines,
                    testing::AllOf(Contains("CPSignHash dwFlags : 0"),
                                   Contains("CPSignHash hashAlgorithm : 32780"),
                                   Contains("CPSignHash key mechanism : " + std::to_string(type))));
        EXPECT_EQ(verify(provider, hash, signatureBytes()).result, TRUE);
        EXPECT_EQ(verify(provider, hash, signatureBytes(), userKey(provider, AT_SIGNATURE)), accepted());
    }
}

TEST_F(SigningTest, SizeQueryAsksForNoPin) {
    for (std::uint32_t type = kKeyTypeRsa1024; type <= kKeyTypeEcP521; ++type) {
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type);
        const HCRYPTPROV provider = acquire(nameOf(static_cast<char>('0' + type)).c_str());
        const HCRYPTHASH hash = hashWithValue(provider);
        DWORD size = 1;
        EXPECT_EQ(run([&] { return CPSignHash(provider, hash, AT_SIGNATURE, nullptr, 0, nullptr, &size); }),
                  accepted());
        EXPECT_EQ(size, type == kKeyTypeRsa3072 ? 384u : type == kKeyTypeRsa4096 ? 512u : 256u) << type;
    }
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_THAT(library.calls("veltra_signHash"), IsEmpty());
}

TEST_F(SigningTest, HandlesAndLengthsAreChecked) {
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = hashWithValue(provider);
    const auto signs = [&](HCRYPTPROV context, HCRYPTHASH value) {
        return [=, this] {
            return CPSignHash(context, value, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
        };
    };
    const auto verifies = [&](HCRYPTPROV context, HCRYPTHASH value) {
        return [=, this] { return CPVerifySignature(context, value, signature.data(), 1, 0, nullptr, 0); };
    };
    expectRefused({{signs(0, 0), NTE_BAD_UID, "CPSignHash: context is null or not initialized"},
                   {signs(provider, 0), NTE_BAD_HASH, "CPSignHash: hash handle is null"},
                   {signs(provider, provider), NTE_BAD_HASH, "CPSignHash: hash handle is null"},
                   {signs(provider, hash), kNoKey, "CPSignHash: sign key not found for container="},
                   {verifies(0, 0), NTE_BAD_UID, "CSP Context Not Initialized"},
                   {verifies(provider, 0), NTE_BAD_HASH, "Hash Context is not Initialized"}});
    token.addKeyPair(0x11);
    const auto badLength = static_cast<DWORD>(NTE_BAD_LEN);
    EXPECT_EQ(sign(provider, hash, AT_SIGNATURE, 0x80000000u).lastError, badLength);
    EXPECT_EQ(run([&] {
                  return CPVerifySignature(provider, hash, signature.data(), 0x80000000u, 0, nullptr, 0);
              }).lastError,
              badLength);
}

TEST_F(SigningTest, CallersCapacityIsPassedOnUnchecked) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = openKey('1');
    const HCRYPTHASH hash = hashWithValue(provider);
    EXPECT_EQ(sign(provider, hash, AT_SIGNATURE, 10), refused(kSignFailed, {"Sign hash failed : 74"}));
    EXPECT_EQ(length, 10u);
    EXPECT_THAT(library.calls("veltra_signHash"), ElementsAre(signCall("1111..1111", "1234", "10")));
    library.script("veltra_signHash", {.length = 513});
    EXPECT_EQ(sign(provider, hash).lastError, kSignFailed) << "above what it was given";
}

TEST_F(SigningTest, KeyIsTheFirstOfTheContainerThatCanSignElseTheFirst) {
    struct Row {
        const char* name;
        std::vector<std::uint32_t> usages; // of the pairs 0x11, 0x22, ...
        std::string container;
        int expected; // index, -1: none
    };
    const Row kRows[] = {
        {"first of usage 1 or 3", {2, 3, 1}, "", 1},
        {"only encryption keys", {2, 2}, "", 0},
        {"unknown usage is passed over", {9, 2}, "", 1},
        {"no known usage at all", {9, 0}, "", -1},
        {"named", {1, 2, 1}, nameOf('2'), 1},
        {"unknown name", {1, 2}, "no such key", -1},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        token.keyPairs.clear();
        for (std::size_t i = 0; i < row.usages.size(); ++i)
            token.addKeyPair(static_cast<unsigned char>((i + 1) * 0x11), kKeyTypeRsa2048, row.usages[i]);
        storePinOfToken();
        const HCRYPTPROV provider = acquire(row.container.c_str());
        const Answer answer = sign(provider, hashWithValue(provider));
        if (row.expected < 0) {
            EXPECT_EQ(answer,
                      refused(kNoKey, {"CPSignHash: sign key not found for container=" + row.container}));
            continue;
        }
        EXPECT_EQ(answer, accepted());
        EXPECT_THAT(library.calls("veltra_signHash").back(),
                    HasSubstr("key=" + std::string(4, static_cast<char>('1' + row.expected))));
    }
}

TEST_F(SigningTest, RememberedKeyOfTheSpecificationComesFirst) {
    token.addKeyPair(0x11);
    token.addKeyPair(0x22, kKeyTypeRsa3072, kUsageEncrypt);
    const HCRYPTPROV provider = openKey('1');
    const auto context = liveContext(provider);
    context->exchangeKey.fill(token.keyPairs[1].keyId);

    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_KEYEXCHANGE), accepted());
    EXPECT_THAT(debugLines, testing::AllOf(Contains("CPSignHash: using stored credentialId=" + nameOf('2')),
                                           Contains("CPSignHash key mechanism : 3")));
    EXPECT_EQ(length, 384u);
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_SIGNATURE), accepted()) << "its slot is empty";
    EXPECT_EQ(length, 256u);

    // A slot whose key is gone is used all the same; the token refuses.
    token.keyPairs.pop_back();
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_KEYEXCHANGE),
              refused(kSignFailed, {"Sign hash failed : 72"}));
}

TEST_F(SigningTest, SecondSignatureOfAHashFinishesItNoMoreAndKeepsItsKey) {
    token.addKeyPair(0x11);
    storePinOfToken();
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, hash, "abc"));
    EXPECT_EQ(sign(provider, hash), accepted());
    token.keyPairs.insert(token.keyPairs.begin(), token.keyPairs.front());
    token.keyPairs.front().keyId[0] = 0x99;
    EXPECT_EQ(sign(provider, hash, AT_KEYEXCHANGE), accepted());
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=128)"));
    const auto calls = library.calls("veltra_signHash");
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0], calls[1]);
    EXPECT_FALSE(hashData(provider, hash, "more")) << "a signature finishes the hash";
    HCRYPTHASH copy = 0;
    ASSERT_TRUE(CPDuplicateHash(provider, hash, nullptr, 0, &copy));
    EXPECT_TRUE(liveHash(hash)->signingKey.filled());
    EXPECT_FALSE(liveHash(copy)->signingKey.filled()) << "the copy takes no key";
    EXPECT_TRUE(CPDestroyHash(provider, copy));
    EXPECT_EQ(hashValue(provider, hash), ScriptedDeviceLibrary::fakeDigest(3, {'a', 'b', 'c'}));
}

TEST_F(SigningTest, FinishFailures) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = openKey('1');
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    library.script("veltra_finalHash", {.result = 5, .onCall = 1});
    library.script("veltra_finalHash", {.length = 129, .onCall = 2});
    EXPECT_EQ(sign(provider, hash), refused(NTE_FAIL, {"CPSignHash: veltra_finalHash failed with ret=5"}));
    EXPECT_EQ(sign(provider, hash).lastError, static_cast<DWORD>(NTE_FAIL)) << "above what it was given";
}

TEST_F(SigningTest, UserIsVerifiedBeforeTheWeakKeyIsRefused) {
    token.addKeyPair(0x11, kKeyTypeRsa1024);
    const HCRYPTPROV provider = acquire(nameOf('1').c_str());
    EXPECT_EQ(sign(provider, hashWithValue(provider)),
              refused(NTE_FAIL, {"loginUser: user cancelled password dialog, return FALSE",
                                 "ensurePasswordValidated: password validation failed, return false",
                                 "CPSignHash: ensurePasswordValidated failed"}));
    storePinOfToken();
    library.clearCalls();
    EXPECT_EQ(
        sign(provider, hashWithValue(provider)),
        refused(NTE_BAD_KEY, {"CPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below 112-bit "
                              "security strength"}));
    EXPECT_THAT(library.calls("veltra_getTokenInfo"), SizeIs(1));
    EXPECT_THAT(library.calls("veltra_signHash"), IsEmpty());
    const HCRYPTPROV silent = acquire(nameOf('1').c_str(), CRYPT_SILENT);
    forgetPin(serial);
    EXPECT_EQ(sign(silent, hashWithValue(silent)),
              refused(NTE_SILENT_CONTEXT,
                      {"ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false",
                       "CPSignHash: ensurePasswordValidated failed"}));
}

TEST_F(SigningTest, ExpiredSessionAsksOnceMoreAndSignsOnceMore) {
    token.addKeyPair(0x11);
    struct Row {
        const char* name;
        int firstCode, secondCode;
        std::vector<std::string> typed;
        DWORD lastError;
        std::vector<std::string> errors;
        std::size_t signatures;
    };
    const std::string blocked = "CPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token";
    const std::vector<std::string> cancelled = {
        "loginUser: user cancelled password dialog, return FALSE",
        "ensurePasswordValidated: password validation failed, return false",
        "CPSignHash: ensurePasswordValidated failed after SSO expiry"};
    const auto failed = static_cast<DWORD>(NTE_FAIL), badAlgorithm = static_cast<DWORD>(NTE_BAD_ALGID);
    const Row kRows[] = {
        {"expired, then signed", 49, 0, {"1234"}, kUntouched, {}, 2},
        {"expired twice", 49, 49, {"1234", "1234"}, kSignFailed, {"Sign hash failed : 49"}, 2},
        {"expired, then blocked", 49, 51, {"1234"}, badAlgorithm, {blocked}, 2},
        {"expired, then cancelled", 49, 0, {}, failed, cancelled, 1},
        {"blocked", 51, 0, {}, badAlgorithm, {blocked}, 1},
        {"clock code is no special one here", 48, 0, {}, kSignFailed, {"Sign hash failed : 48"}, 1},
        {"negative code", -3, 0, {}, kSignFailed, {"Sign hash failed : 4294967293"}, 1},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const HCRYPTPROV provider = openKey('1');
        library.clearScripts();
        library.clearCalls();
        library.script("veltra_signHash", {.result = row.firstCode, .onCall = 1});
        if (row.secondCode) library.script("veltra_signHash", {.result = row.secondCode, .onCall = 2});
        prompt.willType(row.typed);
        const Answer answer = sign(provider, hashWithValue(provider), AT_SIGNATURE, 300);
        EXPECT_EQ(answer, (Answer{row.errors.empty(), row.lastError, row.errors}));
        const auto calls = library.calls("veltra_signHash");
        EXPECT_EQ(calls, std::vector<std::string>(row.signatures, signCall("1111..1111", "1234", "300")));
        EXPECT_EQ(library.calls("veltra_validatePassword").size(), row.signatures - 1);
        EXPECT_EQ(length, row.errors.empty() ? 256u : 300u);
        EXPECT_EQ(std::ranges::count(debugLines, "CPSignHash: SSO expired, re-prompting for PIN"),
                  row.firstCode == 49 ? 1 : 0);
    }
}

TEST_F(SigningTest, SingleSignOnSignsWithAnEmptyPinAndTheNewPinIsReadAfterExpiry) {
    token.addKeyPair(0x11);
    token.logIn();
    const HCRYPTPROV provider = acquire(nameOf('1').c_str());
    EXPECT_EQ(sign(provider, hashWithValue(provider)), accepted());
    EXPECT_THAT(library.calls("veltra_signHash"), ElementsAre(signCall("1111..1111", "")));
    library.clearCalls();
    token.info.session.clear();
    storePin(serial, Pin("old"));
    library.script("veltra_signHash", {.result = 49, .onCall = 1});
    prompt.willType({"1234"});
    EXPECT_EQ(sign(provider, hashWithValue(provider)), accepted());
    EXPECT_THAT(library.calls("veltra_signHash"),
                ElementsAre(signCall("1111..1111", "old"), signCall("1111..1111", "1234")));
}

TEST_F(SigningTest, CapacityIsReadOnceAlthoughTheApplicationChangesItWhileTheDialogIsUp) {
    token.addKeyPair(0x11);
    const HCRYPTPROV provider = acquire(nameOf('1').c_str());
    prompt.willType({"1234", "1234"});
    prompt.whileAsked([&] { length = 0xFFFFFFFF; });
    library.script("veltra_signHash", {.result = 49, .onCall = 1});
    EXPECT_EQ(sign(provider, hashWithValue(provider), AT_SIGNATURE, 300), accepted());
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "ask"));
    EXPECT_THAT(library.calls("veltra_signHash"), testing::Each(signCall("1111..1111", "1234", "300")));
    EXPECT_EQ(length, 256u);
}

TEST_F(SigningTest, KeyObjectDecidesTypeAndForm) {
    struct Row {
        const char* name;
        ALG_ID algorithm;
        std::uint32_t bits;
        Bytes key;
        std::string shownKey;
        std::uint32_t type;
        const char* trace;
    };
    const char* converted = "CPVerifySignature: RSA raw modulus, converting to DER";
    const char* der = "CPVerifySignature: RSA public key already DER encoded";
    const char* point = "CPVerifySignature: ECC public key, using raw EC point";
    const Row kRows[] = {
        {"2048", CALG_RSA_SIGN, 2048, Bytes(256, 0xC0), "3082..0001(294)", 2, converted},
        {"1024", CALG_RSA_KEYX, 1024, Bytes(128, 0xC0), "3081..0001(162)", 1, converted},
        {"3072", CALG_RSA_SIGN, 3072, Bytes(384, 0xC0), "3082..0001(422)", 3, converted},
        {"4096", CALG_RSA_SIGN, 4096, Bytes(512, 0xC0), "3082..0001(550)", 4, converted},
        {"other length: as 2048", CALG_RSA_SIGN, 1025, Bytes(256, 0xC0), "3082..0001(294)", 2, converted},
        {"0x30 in front is DER", CALG_RSA_SIGN, 2048, Bytes(256, 0x30), "3030..3030(256)", 2, der},
        {"P-256", 0x2200, 256, Bytes(65, 4), "0404..0404(65)", 5, point},
        {"P-384", 0x2200, 384, Bytes(97, 4), "0404..0404(97)", 6, point},
        {"P-521", 0x2200, 521, Bytes(133, 4), "0404..0404(133)", 7, point},
        {"any other EC length counts as P-256", 0x2200, 0, Bytes(65, 0x30), "3030..3030(65)", 5, point},
    };
    const HCRYPTPROV provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const HCRYPTHASH hash = hashWithValue(provider);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const HCRYPTKEY key = addPublicKey(row.algorithm, row.bits, row.key);
        const Bytes big = ScriptedDeviceLibrary::fakeSignature(row.type);
        library.clearCalls();
        EXPECT_EQ(verify(provider, hash, row.algorithm == 0x2200 ? big : reversed(big), key), accepted());
        EXPECT_THAT(debugLines, Contains(row.trace));
        EXPECT_THAT(library.calls(),
                    ElementsAre(testing::AllOf(
                        testing::StartsWith("veltra_verifySignatureHash(type=" + std::to_string(row.type) +
                                            ", serial=, hash=1122..2222(32), key=" + row.shownKey +
                                            ", signature=0102.."),
                        testing::EndsWith(", pss=0)"))));
        EXPECT_EQ(verify(provider, hash, Bytes(big.size(), 9), key),
                  refused(kVerifyFailed, {"VERIFY SIGNATURE FAILED :: 75"}));
    }
}

TEST_F(SigningTest, WithoutAPublicKeyTheContainersKeyIsTakenAndItsRsaKeyAlwaysConverted) {
    const std::string missing = "Key Handle Not Initialized or Public Key Length is zero";
    const HCRYPTPROV provider = acquire();
    const HCRYPTHASH hash = hashWithValue(provider);
    EXPECT_EQ(verify(provider, hash, {1}),
              refused(NTE_BAD_KEY,
                      {missing, "CPVerifySignature: container not found in key list, containerName="}));
    token.addKeyPair(0x99, kKeyTypeRsa2048, 9); // unknown usage
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageEncrypt);
    pair.publicKey[0] = 0x30; // looks like DER; this path does not look
    token.addKeyPair(0x22, kKeyTypeEcP256);
    const Bytes big = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
    library.clearCalls();
    for (const HCRYPTKEY key : {HCRYPTKEY{0}, addPublicKey(CALG_RSA_SIGN, 2048, {})}) {
        EXPECT_EQ(verify(provider, hash, reversed(big), key), (Answer{TRUE, kUntouched, {missing}}));
        EXPECT_THAT(debugLines, Contains("Container name : "));
    }
    EXPECT_THAT(library.calls("veltra_verifySignatureHash"),
                testing::Each(HasSubstr(", key=3082..0001(293), signature=0102..FF00(256)")));
    const HCRYPTPROV ec = acquire(nameOf('2').c_str());
    EXPECT_EQ(verify(ec, hash, ScriptedDeviceLibrary::fakeSignature(kKeyTypeEcP256)),
              (Answer{TRUE, kUntouched, {missing}}));
    EXPECT_THAT(library.calls("veltra_verifySignatureHash").back(), HasSubstr("type=5"));
}

TEST_F(SigningTest, OpenHashIsFinishedFirst) {
    const HCRYPTPROV provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const HCRYPTKEY key = addPublicKey(0x2200, 256, Bytes(65, 4));
    const Bytes good = ScriptedDeviceLibrary::fakeSignature(kKeyTypeEcP256);
    const HCRYPTHASH hash = createHash(provider, CALG_SHA_256);
    EXPECT_TRUE(hashData(provider, hash, "abc"));
    EXPECT_EQ(verify(provider, hash, good, key), accepted());
    EXPECT_THAT(debugLines, Contains("Hash obtained using CPGetHashParam"));
    EXPECT_EQ(hashValue(provider, hash), ScriptedDeviceLibrary::fakeDigest(3, {'a', 'b', 'c'}));
    EXPECT_EQ(verify(provider, hash, good, key), accepted());
    EXPECT_THAT(debugLines, Not(Contains("Hash obtained using CPGetHashParam")));
    EXPECT_THAT(library.calls("veltra_finalHash"), SizeIs(1));

    library.script("veltra_finalHash", {.result = 4});
    EXPECT_EQ(verify(provider, createHash(provider, CALG_SHA_512), good, key),
              refused(NTE_BAD_HASH, {"CPGetHashParam: veltra_finalHash failed, ret=4",
                                     "CPGetHashParam failed to get hash value"}));
    EXPECT_EQ(verify(provider, createHash(provider, CALG_HMAC, addSymmetricKey("key")), good, key),
              refused(NTE_BAD_HASH, {"CPGetHashParam: HP_HASHVAL unsupported mechanism=0",
                                     "CPGetHashParam failed to get hash size"}));
}

} // namespace
} // namespace veltra::test
