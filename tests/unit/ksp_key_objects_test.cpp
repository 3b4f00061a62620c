#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "ksp/ksp_provider.h"

#include <algorithm>

namespace veltra::test {
namespace {

const std::string kOnes(32, '1'), kTwos(32, '2');

class KspKeyTest : public KspTest {
protected:
    ~KspKeyTest() override { KSPFreeKey(provider, key); }

    StatusAnswer open(const std::string& name, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        return call(KSPOpenKey, provider, &key, wideText(name).data(), keySpec, 0);
    }
    StatusAnswer create(const std::string& algorithm, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        const StatusAnswer answer =
            call(KSPCreatePersistedKey, provider, &key, wideText(algorithm).data(), L"name", keySpec, 0);
        made = liveKspKey(key);
        return answer;
    }
    StatusAnswer finalize() { return call(KSPFinalizeKey, provider, key, 0); }
    StatusAnswer remove(NCRYPT_KEY_HANDLE handle) { return call(KSPDeleteKey, provider, handle, 0); }
    StatusAnswer enumerate() { return call(KSPEnumKeys, provider, nullptr, &item, &state, 0); }
    /// What a key object has of the token's record.
    static void expectPair(const KSP_KEY& object, const VeltraKeyPair& pair) {
        EXPECT_EQ(keyNameOf(object.credentialId.data()), keyNameOf(pair.keyId));
        EXPECT_EQ(object.credentialIdLength, 16u);
        EXPECT_EQ(toHex(object.publicKeyBytes()), toHex({pair.publicKey, pair.publicKeyLength}));
        EXPECT_EQ(object.label, std::string(pair.label, strnlen(pair.label, 128)));
        EXPECT_TRUE(object.persisted);
    }
    std::string list(const std::string& of) const { return "veltra_getKeyPairList(serial=" + of + ")"; }

    NCRYPT_KEY_HANDLE key = 0;
    std::shared_ptr<KSP_KEY> made; ///< what was created
    NCryptKeyName* item = nullptr;
    PVOID state = nullptr;
};

StatusAnswer notFound(const std::string& name) {
    return failed(NTE_NO_KEY, {"KSP: Input key not found on token: " + name});
}

TEST_F(KspKeyTest, OpenedKeyIsTheTokensRecord) {
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa3072, kUsageBoth);
    std::ranges::fill(pair.label, 'L'); // nothing in it ends it
    pair.flag = 0x100;
    EXPECT_EQ(open(kOnes, AT_SIGNATURE), succeeded());
    const auto opened = liveKspKey(key);
    ASSERT_NE(opened, nullptr);
    expectPair(*opened, pair);
    EXPECT_EQ(
        (std::array{opened->keyType, opened->keyUsage, opened->bitLength, opened->publicKeyExtraLength}),
        (std::array{3u, 3u, 3072u, 1u}));
    EXPECT_EQ(opened->publicKeyExtra[0], 0x11);
    EXPECT_TRUE(opened->recordFlag);
    EXPECT_EQ(opened->keyName, kOnes);
}

TEST_F(KspKeyTest, NamesMatchExactlyAndKeySpecificationsByUsage) {
    EXPECT_EQ(open(kOnes), failed(NTE_NO_KEY, {"KSP: No keys found on token"}));
    for (const std::uint32_t usage : {1u, 2u})
        token.addKeyPair(static_cast<unsigned char>(0xA0 + usage), kKeyTypeRsa2048, usage);
    for (const char* wrong : {"a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1", "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A10",
                              "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A"})
        EXPECT_EQ(open(wrong), notFound(wrong));
    library.clearCalls();
    EXPECT_EQ(open(""), notFound(""));
    EXPECT_THAT(library.calls(), ElementsAre(list(serial))) << "nothing is searched for";
    const std::string encrypting = "A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2A2";
    for (const DWORD keySpec : {0u, 1u})
        EXPECT_EQ(open(encrypting, keySpec), succeeded());
    for (const DWORD keySpec : {2u, 3u})
        EXPECT_EQ(open(encrypting, keySpec),
                  failed(NTE_NO_KEY, {concat("KSP: encrypt-only key cannot serve AT_SIGNATURE, ",
                                             "dwLegacyKeySpec=", keySpec, " keyUsage=2"),
                                      "KSP: Key not found: " + encrypting}));
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(open("A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1", AT_SIGNATURE), succeeded());
}

TEST_F(KspKeyTest, KeyOfAnotherTokenRebindsTheProvider) {
    const std::string other = freshName("Token");
    library.addToken(other).addKeyPair(0x22);
    EXPECT_EQ(open(kTwos), succeeded());
    EXPECT_THAT(library.calls("veltra_getKeyPairList"), ElementsAre(list(serial), list(other), list(other)));
    EXPECT_EQ(open("none"), notFound("none"));
    EXPECT_EQ(liveProvider(provider)->serial(), other) << "a name that no token has changes nothing";
    const std::string unread = " cannot be read";
    const std::string first = "KSP: Key list of " + serial + unread,
                      second = "KSP: Key list of " + other + unread;
    library.script("veltra_getKeyPairList", {.throws = true, .onCall = 1});
    EXPECT_EQ(open(kTwos), failed(0, {first})) << "it hides no key of another token";
    library.script("veltra_getKeyPairList", {.throws = true});
    EXPECT_EQ(open(kTwos), failed(NTE_INTERNAL_ERROR, {first, second, "KSPOpenKey: unexpected exception"}));
    library.clearScripts();
    library.setConnected(serial, false);
    library.setConnected(other, false);
    provider = openProvider();
    library.setConnected(other, true);
    EXPECT_EQ(liveProvider(provider)->serial(), "") << "opened without a token";
    EXPECT_EQ(open(kTwos), succeeded());
    EXPECT_EQ(liveProvider(provider)->serial(), other);
}

// An odd size is reported as it was set and becomes 2048 bits on the token: deliberate.
TEST_F(KspKeyTest, KindsOfNewKeysAndWhatTheTokenMakesOfThem) {
    using Kind = std::pair<std::uint32_t, std::uint32_t>; // type and bits
    storePinOfToken();
    using Row = std::tuple<const char*, DWORD, std::uint32_t, std::uint32_t, std::uint32_t, int>;
    for (const auto& [algorithm, keySpec, setLength, type, bits, usage] :
         {Row{"RSA", 0, 0, 2, 2048, 1}, Row{"RSA", AT_KEYEXCHANGE, 3072, 3, 3072, 2},
          Row{"RSA", AT_SIGNATURE, 4096, 4, 4096, 1}, Row{"RSA", 7, 8192, 2, 8192, 1},
          Row{"ECDSA_P256", AT_KEYEXCHANGE, 0, 5, 256, 1}, Row{"ECDSA_P384", 0, 1024, 6, 384, 1},
          Row{"ECDH_P521", AT_SIGNATURE, 0, 7, 521, 2}}) {
        SCOPED_TRACE(algorithm);
        ASSERT_EQ(create(algorithm, keySpec), succeeded());
        const std::uint32_t created = made->keyType;
        EXPECT_EQ(Kind(created, made->bitLength), type < 5 ? Kind() : Kind(type, bits));
        EXPECT_EQ(made->keyName, "name");
        if (setLength != 0) made->bitLength = setLength;
        library.clearCalls();
        library.clearScripts();
        library.script("veltra_generateKeyPair", {.result = 23, .onCall = 1});
        EXPECT_EQ(finalize(), failed(NTE_INTERNAL_ERROR, {"KSP: Key generation failed: 23"}));
        EXPECT_EQ(Kind(made->keyType, made->bitLength), Kind(created, bits)) << "only the size is fixed";
        EXPECT_EQ(finalize(), succeeded());
        EXPECT_EQ(finalize(), succeeded()) << "a third time leaves the token alone";
        const std::string call = concat("veltra_generateKeyPair(serial=", serial, ", pin=1234, type=", type,
                                        ", usage=", usage, ", label='')");
        EXPECT_THAT(library.calls(), ElementsAre(call, call));
        EXPECT_EQ(Kind(made->keyType, made->bitLength), Kind(type, bits));
        expectPair(*made, token.keyPairs.back());
        EXPECT_EQ(made->publicKeyExtraLength, 0u) << "that of the created key, and so is its flag";
        EXPECT_FALSE(made->recordFlag);
    }
    for (const char* unknown : {"AES", "rsa", "ECDSA", ""})
        EXPECT_EQ(create(unknown),
                  failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported algorithm for key generation"}));
}

TEST_F(KspKeyTest, KeysThatAreNotGenerated) {
    storePinOfToken();
    create("RSA");
    made->bitLength = 1024;
    EXPECT_EQ(finalize(), failed(NTE_NOT_SUPPORTED,
                                 {"KSPFinalizeKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size "
                                  "below 112-bit security strength"}));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
    made->keyType = 8;
    EXPECT_EQ(finalize(), failed(NTE_NOT_SUPPORTED, {"KSPFinalizeKey: unsupported ECC algorithm=8"}));
}

TEST_F(KspKeyTest, KeyThatTheApplicationFinalisesFromTheDialogIsGeneratedOnce) {
    create("RSA");
    prompt.willType({"1234"});
    prompt.whileAsked([&] {
        storePinOfToken();
        EXPECT_EQ(KSPFinalizeKey(provider, key, 0), 0);
    });
    EXPECT_EQ(finalize(), succeeded());
    EXPECT_THAT(library.calls("veltra_generateKeyPair"), SizeIs(1));
}

TEST_F(KspKeyTest, DeletionHandsTheRecordsFlagBackAndKeepsTheObject) {
    storePinOfToken();
    VeltraKeyPair& pair = token.addKeyPair(0x11);
    pair.flag = 1;
    const NCRYPT_KEY_HANDLE handle = addKey(pair);
    EXPECT_EQ(remove(handle), succeeded());
    EXPECT_EQ(remove(handle), failed(NTE_INTERNAL_ERROR, {"KSP: Delete key failed: 72"}));
    const std::string call =
        concat("veltra_deleteKeyPair(serial=", serial, ", key=1111..1111, pin=1234, flag=1)");
    EXPECT_THAT(library.calls(), ElementsAre(call, call));
}

TEST_F(KspKeyTest, EnumerationWalksASnapshotOfTheTokensKeys) {
    const StatusAnswer end = failed(NTE_NO_MORE_ITEMS, {"KSP: No more keys to enumerate"});
    EXPECT_EQ(enumerate(), end);
    EXPECT_NE(state, nullptr) << "the caller frees it, as after the last key";
    EXPECT_EQ(enumerate(), end);
    KSPFreeBuffer(std::exchange(state, nullptr));
    token.addKeyPair(0x11);
    token.addKeyPair(0x22, kKeyTypeEcP521, kUsageEncrypt);
    library.clearCalls();
    for (const auto& [id, algorithm] : {std::pair{kOnes, "RSA"}, {kTwos, "ECDH_P521"}}) {
        KSPFreeBuffer(item);
        ASSERT_EQ(enumerate(), succeeded());
        EXPECT_EQ(fromWide(item->pszName), id);
        EXPECT_EQ(fromWide(item->pszAlgid), algorithm);
        EXPECT_EQ(item->dwLegacyKeySpec, DWORD{AT_KEYEXCHANGE}) << "for every key: deliberate";
        EXPECT_EQ(item->dwFlags, 0u);
        token.addKeyPair(0x33);
    }
    EXPECT_EQ(enumerate(), end);
    EXPECT_THAT(library.calls(), ElementsAre(list(serial)));
    KSPFreeBuffer(state);
    for (const PVOID foreign : {state, static_cast<PVOID>(&state), static_cast<PVOID>(item)}) {
        state = foreign;
        EXPECT_EQ(enumerate(),
                  failed(NTE_INVALID_PARAMETER, {"KSPEnumKeys: enum state is not a live cursor"}));
    }
    EXPECT_EQ(KSPFreeBuffer(item), 0);
}

} // namespace
} // namespace veltra::test
