// Hashes, signatures and encryption through CryptoAPI.

#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "foundation/win_handle.h"
#include "token/crypto_policy.h"
#include "token/device_state.h"
#include "token/key_operations.h"
#include "token/process_iv.h"

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

class CspCryptoTest : public CspTest {
protected:
    CspCryptoTest() {
        ciphertext.resize(256);
        token.addKeyPair(0x11);
        provider = acquireKey('1');
        storePinOfToken();
        library.clearCalls();
    }

    HCRYPTHASH createHash(ALG_ID algorithm, HCRYPTKEY key = 0) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CPCreateHash(provider, algorithm, key, 0, &hash));
        return keep(hash);
    }
    /// With a value that is set, so that no device hash is in play.
    HCRYPTHASH hashWithValue() {
        const HCRYPTHASH hash = createHash(CALG_SHA_256);
        EXPECT_TRUE(CPSetHashParam(provider, hash, HP_HASHVAL, value.data(), 0));
        return hash;
    }
    /// With its HMAC_INFO set, unless the algorithm is 0.
    HCRYPTHASH createHmac(ALG_ID inner) {
        const HCRYPTHASH hash = createHash(CALG_HMAC, addKey(keyWith<KEY_HANDLE>(bytesOf("key"))));
        EXPECT_TRUE(inner == 0 || setHmacInfo(hash, inner) == accepted());
        return hash;
    }
    Answer setHmacInfo(HCRYPTHASH hash, ALG_ID inner) {
        const HMAC_INFO info{inner, data.data(), 256, data.data(), 256}; // the texts are never used
        return run(CPSetHashParam, provider, hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0);
    }
    Answer feed(HCRYPTHASH hash, const std::string& text) {
        const Bytes bytes = bytesOf(text);
        return run(CPHashData, provider, hash, bytes.data(), static_cast<DWORD>(bytes.size()), 0);
    }
    /// Nothing when it is refused.
    Bytes valueOf(HCRYPTHASH hash) {
        Bytes bytes(256);
        DWORD size = 256;
        if (!CPGetHashParam(provider, hash, HP_HASHVAL, bytes.data(), &size, 0)) return {};
        bytes.resize(size);
        return bytes;
    }
    void expectFinished(HCRYPTHASH hash) {
        EXPECT_EQ(feed(hash, "x"),
                  refused(NTE_BAD_HASH_STATE,
                          {"CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data"}));
    }

    Answer sign(HCRYPTHASH hash, DWORD keySpec = AT_SIGNATURE) {
        data.assign(512, 0);
        length = 512;
        return cut(run(CPSignHash, provider, hash, keySpec, nullptr, 0, data.data(), &length));
    }
    Answer verify(HCRYPTHASH hash, const Bytes& signature, HCRYPTKEY key = 0) {
        const auto size = static_cast<DWORD>(signature.size());
        return run(CPVerifySignature, provider, hash, signature.data(), size, key, nullptr, 0);
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

    HCRYPTKEY rsaKey() { return userKey(provider, AT_KEYEXCHANGE); }
    HCRYPTKEY aesKey(std::size_t keyLength, DWORD mode = CRYPT_MODE_CBC) {
        auto key = keyWith<KEY_HANDLE>(Bytes(keyLength, 'K'));
        key->keyBits = static_cast<std::uint32_t>(keyLength * 8);
        key->mode = mode;
        return addKey(std::move(key));
    }
    Answer encrypt(HCRYPTKEY key, DWORD flags = 0, BOOL final = TRUE) {
        data = abc;
        data.resize(256, 0xEE);
        length = static_cast<DWORD>(abc.size());
        return cut(run(CPEncrypt, provider, key, 0xBAD, final, flags, data.data(), &length, 256));
    }
    Answer decrypt(HCRYPTKEY key, DWORD flags = CRYPT_OAEP) {
        data = ciphertext;
        length = static_cast<DWORD>(ciphertext.size());
        return cut(run(CPDecrypt, provider, key, 0xBAD, FALSE, flags, data.data(), &length));
    }

    /// Whether the event is raised meanwhile.
    static bool raises(const char* event, const std::function<void()>& action) {
        const UniqueHandle handle(CreateEventA(nullptr, FALSE, FALSE, event));
        action();
        return WaitForSingleObject(handle.get(), 0) == WAIT_OBJECT_0;
    }

    HCRYPTPROV provider = 0;
    ULONG_PTR out = 0;
    Bytes data = Bytes(256); ///< the application's buffer, cut to what a call wrote
    DWORD length = 0;
    const Bytes abc = bytesOf("abc");
    const Bytes value = joined({{0x11}, Bytes(31, 0x22)});            ///< of a hash, set
    Bytes ciphertext = ScriptedDeviceLibrary::maskOf(bytesOf("cba")); ///< of `abc`, little-endian

private:
    Answer cut(const Answer& answer) {
        if (answer.result) data.resize(length);
        return answer;
    }
};

using HashTest = CspCryptoTest;

TEST_F(HashTest, WeakDigestsAreRefusedWithAnEventOnlyWhereOneExists) {
    const auto refuses = [&](ALG_ID algorithm) {
        return [=, this] { EXPECT_FALSE(CPCreateHash(provider, algorithm, 0, 0, &out)); };
    };
    EXPECT_TRUE(raises(kSha1BlockedEvent, refuses(CALG_SHA1)));
    EXPECT_FALSE(raises(kMd5BlockedEvent, refuses(CALG_SHA1)));
    token.info.fipsMarker = "3.1.0";
    EXPECT_TRUE(raises(kMd5BlockedEvent, refuses(CALG_MD5)));
    provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    library.clearCalls();
    // Without a token no record is read: the stricter rule holds.
    EXPECT_TRUE(raises(kSha1BlockedEvent, refuses(CALG_SHA1)));
    createHash(CALG_SHA_256);
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=, algorithm=3)"));
}

TEST_F(HashTest, ValueIsFinishedOnceEvenIfTheBufferIsTooSmall) {
    const HCRYPTHASH hash = createHash(CALG_SHA_256, 0xBAD); // the key is ignored
    EXPECT_EQ(feed(hash, "a"), accepted());
    EXPECT_EQ(run(CPGetHashParam, provider, hash, HP_HASHVAL, nullptr, &length, 0), accepted());
    EXPECT_EQ(feed(hash, "b"), accepted()) << "a size query leaves it open";
    EXPECT_EQ(run(CPHashData, provider, hash, nullptr, 0, CRYPT_USERDATA), accepted());
    length = 31;
    EXPECT_EQ(run(CPGetHashParam, provider, hash, HP_HASHVAL, data.data(), &length, 0),
              refused(ERROR_MORE_DATA, {"CPGetHashParam: HP_HASHVAL buffer too small for finalized hash"}));
    EXPECT_EQ(length, 32u);
    expectFinished(hash);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(valueOf(hash), sha256(bytesOf("ab")));
    EXPECT_EQ(library.calls().front(), "veltra_initHash(serial=" + serial + ", algorithm=3)");
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre("veltra_finalHash(hash=1, capacity=32)"));
    library.script("veltra_finalHash", {.length = 33});
    EXPECT_THAT(valueOf(createHash(CALG_SHA_256)), IsEmpty()) << "above what it was given";
}

TEST_F(HashTest, DuplicateFinishesTheSourceAndTakesItsValue) {
    for (const bool isHmac : {false, true}) {
        const HCRYPTHASH source = isHmac ? createHmac(CALG_SHA_256) : createHash(CALG_SHA_256);
        EXPECT_EQ(feed(source, "abc"), accepted());
        ASSERT_EQ(run(CPDuplicateHash, provider, source, nullptr, 0, &out), accepted());
        for (const HCRYPTHASH hash : {source, keep(out)}) {
            EXPECT_EQ(valueOf(hash), isHmac ? innerSha256("abc") : sha256(bytesOf("abc")));
            EXPECT_EQ(liveHash(hash)->isHmac != 0, isHmac);
            expectFinished(hash);
        }
        EXPECT_EQ(liveHash(out)->hmacInfo.HashAlgid, isHmac ? ALG_ID{CALG_SHA_256} : 0);
        EXPECT_EQ(liveHash(out)->hmacKeyLength, 0u) << "the copy takes no key";
    }
}

// That the value is right is for client.sh to say, with OpenSSL.
TEST_F(HashTest, HmacWipesItsKeyAndTakesNoDataBeforeItsAlgorithm) {
    const HCRYPTHASH hash = createHmac(CALG_SHA1); // whose rule is for plain hashes only
    EXPECT_EQ(feed(hash, "abc"), accepted());
    const Bytes outer = valueOf(hash);
    EXPECT_EQ(valueOf(hash), outer) << "the outer step is made once";
    EXPECT_EQ(std::ranges::count(liveHash(hash)->hmacKey.data(), liveHash(hash)->hmacKey.data() + 128, 0),
              128);
    EXPECT_EQ(liveHash(hash)->hmacKeyLength, 0u);
    expectFinished(hash);
    const Bytes fixed(20, 7);
    EXPECT_TRUE(CPSetHashParam(provider, hash, HP_HASHVAL, fixed.data(), 0));
    EXPECT_EQ(valueOf(hash), fixed) << "no outer hash";
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
        EXPECT_EQ(valueOf(hash),
                  ScriptedDeviceLibrary::fakeDigest(mechanism, joined({paddedKey(key, block, 0x5C), inner})));
    }
}

// CPDeriveKey

TEST_F(HashTest, DerivedKeyIsTheLeadingBytesOfTheHashValueFilledUpWithZeros) {
    const auto expectKey = [&](HCRYPTHASH hash, ALG_ID algorithm, std::size_t keyLength, Bytes expected) {
        ASSERT_EQ(run(CPDeriveKey, provider, algorithm, hash, 0xFFFFFFFF, &out), accepted());
        expected.resize(keyLength);
        EXPECT_EQ(textOf(*liveKey(keep(out))),
                  concat(algorithm, "/", keyLength * 8,
                         "/0/3/0 id=0000..(0) credential= label= secret=", toHex(expected)));
    };
    const HCRYPTHASH hash = createHash(CALG_SHA_512);
    const Bytes digest = ScriptedDeviceLibrary::fakeDigest(5, {});
    expectKey(hash, CALG_AES_192, 24, digest);
    EXPECT_EQ(liveHash(hash)->finalized, 0) << "the hash is not marked finished: deliberate";
    EXPECT_EQ(library.calls().back(), "veltra_finalHash(hash=1, capacity=128)");
    EXPECT_EQ(feed(hash, "more"), accepted());
    library.script("veltra_finalHash", {.length = 65});
    EXPECT_THAT(valueOf(hash), IsEmpty());
    expectKey(hash, CALG_AES_192, 24, digest);           // what failed has not touched the value
    expectKey(hashWithValue(), CALG_AES_256, 32, value); // a value that was set
    library.clearScripts();
    expectKey(createHmac(CALG_SHA_256), CALG_AES_128, 16, innerSha256(""));
    token.info.fipsMarker = "3.1";
    expectKey(createHash(CALG_SHA1), CALG_AES_256, 32, ScriptedDeviceLibrary::fakeDigest(2, {}));
}

using SigningTest = CspCryptoTest;

TEST_F(SigningTest, RsaSignaturesAreReversedAndEcSignaturesAreNot) {
    for (const auto& [type, askedSize] :
         {std::pair{2u, 256u}, {3u, 384u}, {4u, 512u}, {5u, 256u}, {6u, 256u}, {7u, 256u}}) {
        token.keyPairs.clear();
        token.addKeyPair(0x11, type);
        const HCRYPTHASH hash = hashWithValue();
        EXPECT_EQ(run(CPSignHash, provider, hash, AT_SIGNATURE, nullptr, 0, nullptr, &length), accepted());
        EXPECT_EQ(length, askedSize);
        EXPECT_EQ(sign(hash), accepted());
        EXPECT_EQ(data, signatureOf(type));
    }
}

TEST_F(SigningTest, KeyIsTheFirstOfTheContainerThatCanSignElseTheFirst) {
    // The key that signs, or the reason why none does. The pairs are 0x11, 0x22, ...
    const auto signer = [&](const std::vector<std::uint32_t>& usages, const std::string& container) {
        token.keyPairs.clear();
        for (unsigned char id = 0; const std::uint32_t usage : usages)
            token.addKeyPair(id += 0x11, kKeyTypeRsa2048, usage);
        provider = acquire(container.c_str());
        const Answer answer = sign(hashWithValue());
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
    token.addKeyPair(0x22, kKeyTypeRsa3072, kUsageEncrypt);
    liveContext(provider)->exchangeKey.fill(token.keyPairs[1].keyId);
    EXPECT_EQ(sign(hashWithValue(), AT_KEYEXCHANGE), accepted());
    EXPECT_EQ(length, 384u);
    EXPECT_EQ(sign(hashWithValue(), AT_SIGNATURE), accepted()) << "its slot is empty";
    EXPECT_EQ(length, 256u);
    token.keyPairs.pop_back(); // the slot is used all the same; the token refuses
    EXPECT_EQ(sign(hashWithValue(), AT_KEYEXCHANGE).errors.at(0), "Sign hash failed : 72");
}

TEST_F(SigningTest, SignatureFinishesAHashOnceWhichKeepsItsKey) {
    provider = acquire();
    const HCRYPTHASH hash = createHash(CALG_SHA_256);
    EXPECT_EQ(feed(hash, "abc"), accepted());
    library.script("veltra_finalHash", {.length = 129, .onCall = 1});
    EXPECT_EQ(sign(hash).lastError, static_cast<DWORD>(NTE_FAIL)) << "above what it was given";
    EXPECT_EQ(sign(hash), accepted());
    token.addKeyPair(0x99);
    std::swap(token.keyPairs[0], token.keyPairs[1]);
    EXPECT_EQ(sign(hash, AT_KEYEXCHANGE), accepted());
    const std::string finish = "veltra_finalHash(hash=1, capacity=128)";
    EXPECT_THAT(library.calls("veltra_finalHash"), ElementsAre(finish, finish));
    EXPECT_THAT(library.calls("veltra_signHash"),
                testing::Each(HasSubstr("key=1111..1111, pin=1234, hash=")));
    expectFinished(hash);
    EXPECT_EQ(valueOf(hash), sha256(abc));
    ASSERT_TRUE(CPDuplicateHash(provider, hash, nullptr, 0, &out));
    EXPECT_FALSE(liveHash(keep(out))->signingKey.filled()) << "the copy takes no key";
}

TEST_F(SigningTest, ExpiredSessionAsksOnceMoreAndSignsOnceMore) {
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
        EXPECT_EQ(sign(hashWithValue()), answer);
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
    provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const HCRYPTHASH hash = hashWithValue();
    const auto expectVerified = [&](HCRYPTKEY key, std::uint32_t type, const std::string& shownKey) {
        library.clearCalls();
        EXPECT_EQ(verify(hash, signatureOf(type), key), accepted());
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
    token.keyPairs.clear();
    provider = acquire();
    const HCRYPTHASH hash = createHash(CALG_SHA_256);
    EXPECT_EQ(verify(hash, {1}),
              refused(NTE_BAD_KEY,
                      {missing, "CPVerifySignature: container not found in key list, containerName="}));
    token.addKeyPair(0x99, kKeyTypeRsa2048, 9);                                 // unknown usage
    token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageEncrypt).publicKey[0] = 0x30; // as DER begins: nobody looks
    token.addKeyPair(0x22, kKeyTypeEcP256);
    for (const HCRYPTKEY key : {HCRYPTKEY{0}, addPublicKey(CALG_RSA_SIGN, 2048, {})}) {
        EXPECT_EQ(verify(hash, signatureOf(kKeyTypeRsa2048), key), verified);
        EXPECT_THAT(library.calls().back(), HasSubstr(", key=3082..0001(293), signature=0102..FF00(256)"));
    }
    provider = acquireKey('2');
    EXPECT_EQ(verify(hash, signatureOf(kKeyTypeEcP256)), verified);
    EXPECT_EQ(liveHash(hash)->hashValueLength, 32u) << "verification finishes the hash as well";
}

using EncryptionTest = CspCryptoTest;

TEST_F(EncryptionTest, AesTypesVectorsAndFinalPieces) {
    const auto expectCalls = [&](std::size_t keyLength, DWORD mode, const Bytes& iv, BOOL final, int type,
                                 const char* shownIv) {
        setProcessIv(iv);
        const HCRYPTKEY key = aesKey(keyLength, mode);
        library.clearCalls();
        EXPECT_EQ(encrypt(key, CRYPT_OAEP, final), accepted());
        EXPECT_EQ(length, final ? 16u : 3u);
        EXPECT_EQ(decrypt(key, 0), accepted());
        const std::string end = concat("iv=", shownIv);
        const std::string shown = concat("key=4B4B..4B4B(", keyLength, "), in=");
        EXPECT_THAT(library.calls(),
                    ElementsAre(HasSubstr(concat("type=", type, ", ", shown, "616263, final=", final ? 1 : 0,
                                                 ", ", end, ", extra=null(0)")),
                                HasSubstr(concat(shown, "3938..0000(256), flag=0, ", end))));
    };
    const Bytes iv(16, 0xAB);
    expectCalls(24, CRYPT_MODE_CBC, iv, 7, 2, "ABAB..ABAB(16)");
    expectCalls(32, CRYPT_MODE_CBC, {}, FALSE, 2, "0000..0000(16)");
    expectCalls(16, 0, Bytes(8, 0xAB), TRUE, 1, "ABAB..ABAB(8)");
    expectCalls(16, CRYPT_MODE_ECB, iv, TRUE, 5, "null(0)");
    expectCalls(20, CRYPT_MODE_ECB, {}, TRUE, 6, "null(0)");
    EXPECT_EQ(encrypt(aesKey(20)), refused(NTE_BAD_KEY, {"CPEncrypt: unsupported symmetric key length: 20"}));
    EXPECT_THAT(library.calls("veltra_encrypt_aes"), SizeIs(1));
}

TEST_F(EncryptionTest, SizesAndPlaintextsLongerThanTheCiphertext) {
    for (const char* function : {"veltra_decrypt_aes", "veltra_decrypt"})
        library.script(function, {.length = 257});
    for (const HCRYPTKEY any : {rsaKey(), aesKey(16), aesKey(32)}) {
        EXPECT_EQ(run(CPEncrypt, provider, any, 0, TRUE, 0, nullptr, &length, 0), accepted());
        EXPECT_EQ(length, liveKey(any)->keyBits / 8) << "not a padded size";
        EXPECT_EQ(decrypt(any),
                  refused(ERROR_MORE_DATA, {"CPDecrypt: output buffer too small, required=257"}));
        EXPECT_EQ(length, 257u);
        EXPECT_EQ(data, ciphertext);
    }
}

TEST_F(EncryptionTest, RsaCiphertextIsLittleEndianAndComesBack) {
    const HCRYPTKEY key = rsaKey();
    // The type comes from the count of public key bytes, taken for bits: deliberate.
    const auto expectCall = [&](int type, int padding, const char* shown, DWORD flags = 0) {
        EXPECT_EQ(encrypt(key, flags), accepted());
        EXPECT_EQ(library.calls().back(), concat("veltra_encrypt(type=", type, ", padding=", padding,
                                                 ", in=616263, out=256, key=", shown, ")"));
        EXPECT_EQ(data, ciphertext);
    };
    expectCall(8, 1, "3082..0001(294)");
    expectCall(8, 4, "3082..0001(294)", CRYPT_OAEP);
    expectCall(8, 4, "3082..0001(294)", CRYPT_OAEP | 1);
    const auto record = liveKey(key);
    std::ranges::fill(record->publicKey, static_cast<unsigned char>(0x30)); // passed on as DER
    for (const auto& [count, type] : {std::pair{512u, 8}, {550u, 8}, {1024u, 7}}) {
        record->publicKeyLength = count;
        expectCall(type, 1, concat("3030..3030(", count, ")").c_str());
    }
    EXPECT_EQ(rsaEncryptionType(4096), EncryptionType::Rsa4096) << "more bytes than there can be";
    record->algId = kEcAlgId;
    record->publicKey[0] = 0x04;
    record->publicKeyLength = 65;
    expectCall(8, 1, "0430..3030(65)"); // a point is no modulus
    record->tokenFlag = 1;
    library.clearCalls();
    EXPECT_EQ(decrypt(key), accepted());
    EXPECT_EQ(data, abc) << "the plaintext is not reversed";
    EXPECT_THAT(library.calls(), ElementsAre("veltra_decrypt(serial=" + serial +
                                             ", key=1111..1111, pin=1234, in=0000..3839(256), flag=1)"))
        << "OAEP never asks which token it is";
}

TEST_F(EncryptionTest, Pkcs1DecryptionIsForFips1402TokensAndRefusedBeforeThePinIsAsked) {
    EXPECT_TRUE(raises(kPkcs1DecryptBlockedEvent, [&] {
        EXPECT_EQ(decrypt(rsaKey(), 0).lastError, static_cast<DWORD>(NTE_BAD_FLAGS));
    }));
    EXPECT_THAT(library.calls("veltra_decrypt"), IsEmpty());
    token.info.fipsMarker = "3.1";
    EXPECT_EQ(decrypt(rsaKey(), 0), accepted());
    // Without a token there is nothing to ask, and the rule is not applied.
    const HCRYPTKEY key = rsaKey();
    provider = acquire(nullptr, CRYPT_VERIFYCONTEXT | CRYPT_SILENT);
    EXPECT_EQ(decrypt(key, 0).lastError, static_cast<DWORD>(NTE_SILENT_CONTEXT));
}

TEST_F(EncryptionTest, LengthIsReadOnceWhateverTheApplicationDoesWhileTheDialogIsUp) {
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired, .onCall = 1});
    prompt.willType({"1234"});
    prompt.whileAsked([&] { length = 1; });
    EXPECT_EQ(decrypt(rsaKey()), accepted());
    EXPECT_EQ(data, abc);
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(decrypt(rsaKey()).errors.back(), "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
}

} // namespace
} // namespace veltra::test
