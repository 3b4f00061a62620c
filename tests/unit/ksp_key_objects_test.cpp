#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

using testing::ElementsAreArray;

const std::string kOnes(32, '1');
const std::string kTwos(32, '2');

class KspKeyTest : public KspTest {
protected:
    ~KspKeyTest() override { KSPFreeKey(provider, key); }

    StatusAnswer open(const std::string& name, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        return call(KSPOpenKey, provider, &key, wideText(name).data(), keySpec, 0);
    }
    StatusAnswer create(const std::string& algorithm, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        return call(KSPCreatePersistedKey, provider, &key, wideText(algorithm).data(), L"name", keySpec, 0);
    }
    StatusAnswer finalize() { return call(KSPFinalizeKey, provider, key, 0); }
    StatusAnswer remove(NCRYPT_KEY_HANDLE handle) { return call(KSPDeleteKey, provider, handle, 0); }
    StatusAnswer enumerate() { return call(KSPEnumKeys, provider, nullptr, &item, &state, 0); }
    std::string list(const std::string& of) const { return "veltra_getKeyPairList(serial=" + of + ")"; }

    NCRYPT_KEY_HANDLE key = 0;
    NCryptKeyName* item = nullptr;
    PVOID state = nullptr;
};

TEST_F(KspKeyTest, FreeingNeverFailsAndFreesOnlyKeys) {
    const NCRYPT_KEY_HANDLE live = addKey(VeltraKeyPair{});
    for (const NCRYPT_KEY_HANDLE any : {NCRYPT_KEY_HANDLE{0}, provider, live, live})
        EXPECT_EQ(call(KSPFreeKey, 0, any), succeeded());
    EXPECT_EQ(liveKspKey(live), nullptr);
    EXPECT_NE(liveProvider(provider), nullptr);
}

TEST_F(KspKeyTest, OpenedKeyIsTheTokensRecord) {
    token.addKeyPair(0x22);
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa3072, kUsageBoth);
    std::ranges::fill(pair.label, 'L'); // nothing in it ends it
    pair.flag = 0x100;
    token.addKeyPair(0x33);
    EXPECT_EQ(open(kOnes, AT_SIGNATURE), succeeded());
    EXPECT_THAT(debugLines,
                ElementsAre("KSPOpenKey", "KSP: Opening key: " + kOnes, "KSP: Available key: " + kTwos,
                            "KSP: Available key: " + kOnes, "KSP: Key match found, proceeding...",
                            "KSP: Key opened, algorithm=3 bits=3072"));
    const auto opened = liveKspKey(key);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(keyNameOf(opened->credentialId.data()), kOnes);
    EXPECT_EQ(opened->credentialIdLength, 16u);
    EXPECT_THAT(opened->publicKeyBytes(),
                ElementsAreArray(ScriptedDeviceLibrary::publicKeyOf(kKeyTypeRsa3072)));
    EXPECT_EQ(opened->keyUsage, kUsageBoth);
    EXPECT_EQ(opened->publicKeyExtraLength, 1u);
    EXPECT_EQ(opened->publicKeyExtra[0], 0x11);
    EXPECT_EQ(opened->label, std::string(128, 'L'));
    EXPECT_TRUE(opened->recordFlag && opened->persisted);
    EXPECT_EQ(opened->keyName, kOnes);
}

TEST_F(KspKeyTest, NamesMatchExactlyAndKeySpecificationsByUsage) {
    EXPECT_EQ(open(kOnes), failed(NTE_NO_KEY, {"KSP: No keys found on token"}));
    for (const std::uint32_t usage : {1u, 2u, 3u})
        token.addKeyPair(static_cast<unsigned char>(0xA0 + usage), kKeyTypeRsa2048, usage);
    library.clearCalls();
    EXPECT_EQ(open(""), failed(NTE_NO_KEY, {"KSP: Input key not found on token: "}));
    EXPECT_THAT(library.calls(), ElementsAre(list(serial))) << "nothing is searched for";
    for (const char* wrong : {"a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1", "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A10",
                              "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A"}) {
        EXPECT_EQ(open(wrong), failed(NTE_NO_KEY, {concat("KSP: Input key not found on token: ", wrong)}));
    }
    for (const VeltraKeyPair& pair : token.keyPairs) {
        for (const DWORD keySpec : {0u, 1u, 2u, 3u, 0xFFFFFFFFu}) {
            const bool serves = keySpec <= 1 || (keySpec == 2 && pair.usage != 2);
            const std::string id = keyNameOf(pair.keyId);
            const std::string line =
                concat("KSP: encrypt-only key cannot serve AT_SIGNATURE, dwLegacyKeySpec=", keySpec,
                       " keyUsage=", pair.usage);
            EXPECT_EQ(open(id, keySpec),
                      serves ? succeeded() : failed(NTE_NO_KEY, {line, "KSP: Key not found: " + id}));
            EXPECT_EQ(key != 0, serves);
        }
    }
}

TEST_F(KspKeyTest, KeyOfAnotherTokenRebindsTheProvider) {
    const std::string other = freshName("Token");
    library.addToken(other).addKeyPair(0x22);
    EXPECT_EQ(open(kTwos), succeeded());
    EXPECT_THAT(debugLines, testing::Contains("KSP: Resolved key to device: " + other));
    EXPECT_THAT(library.calls("veltra_getKeyPairList"), ElementsAre(list(serial), list(other), list(other)));
    EXPECT_EQ(open("none"), failed(NTE_NO_KEY, {"KSP: Input key not found on token: none"}));
    EXPECT_EQ(liveProvider(provider)->serial(), other) << "a name that no token has changes nothing";

    library.setConnected(serial, false);
    library.setConnected(other, false);
    provider = openProvider();
    EXPECT_EQ(open(kTwos), failed(NTE_NO_KEY, {"KSP: No keys found on token"}));
    library.setConnected(serial, true);
    library.setConnected(other, true);
    EXPECT_EQ(open(kTwos), succeeded()) << "once a token is there";

    const std::string unread = "KSP: Key list of " + serial + " cannot be read";
    library.script("veltra_getKeyPairList", {.throws = true, .onCall = 1});
    EXPECT_EQ(open(kTwos), failed(0, {unread})) << "it hides no key of another token";
    library.script("veltra_getKeyPairList", {.throws = true});
    EXPECT_EQ(open(kTwos),
              failed(NTE_INTERNAL_ERROR, {unread, "KSP: Key list of " + other + " cannot be read",
                                          "KSPOpenKey: unexpected exception"}));
}

TEST_F(KspKeyTest, KindsOfNewKeysAndWhatTheTokenMakesOfThem) {
    struct Row {
        const char* algorithm;
        DWORD keySpec, length; // length 0: not set
        std::uint32_t createdType, createdBits, type, usage, bits;
    };
    storePinOfToken();
    for (const Row& row :
         {Row{"RSA", 0, 0, 0, 0, 2, 1, 2048}, Row{"RSA", AT_KEYEXCHANGE, 3072, 0, 0, 3, 2, 3072},
          Row{"RSA", AT_SIGNATURE, 4096, 0, 0, 4, 1, 4096},
          // An odd size is reported as it was set and becomes 2048 bits on the token: deliberate.
          Row{"RSA", 7, 8192, 0, 0, 2, 1, 8192}, Row{"RSA", 0, 512, 0, 0, 2, 1, 512},
          Row{"ECDSA_P256", AT_KEYEXCHANGE, 0, 5, 256, 5, 1, 256},
          Row{"ECDSA_P384", 0, 1024, 6, 384, 6, 1, 384}, Row{"ECDSA_P521", 0, 0, 7, 521, 7, 1, 521},
          Row{"ECDH_P256", 0, 0, 5, 256, 5, 2, 256}, Row{"ECDH_P384", 0, 0, 6, 384, 6, 2, 384},
          Row{"ECDH_P521", AT_SIGNATURE, 0, 7, 521, 7, 2, 521}}) {
        SCOPED_TRACE(row.algorithm);
        EXPECT_EQ(create(row.algorithm, row.keySpec), succeeded());
        EXPECT_EQ(debugLines.back(), "KSP: Key object created, waiting for FinalizeKey");
        const auto made = liveKspKey(key);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(made->keyName, "name");
        EXPECT_EQ(made->keyType, row.createdType);
        EXPECT_EQ(made->bitLength, row.createdBits);
        if (row.length != 0) made->bitLength = row.length;

        library.clearCalls();
        EXPECT_EQ(finalize(), succeeded());
        EXPECT_THAT(debugLines, testing::IsSupersetOf({concat("KSP: FinalizeKey - generating key, algorithm=",
                                                              row.type, " bitSize=", row.bits),
                                                       std::string("KSP: Key finalized successfully")}));
        EXPECT_EQ(finalize(), succeeded()) << "a second time leaves the token alone";
        EXPECT_THAT(library.calls(),
                    ElementsAre(concat("veltra_generateKeyPair(serial=", serial,
                                       ", pin=1234, type=", row.type, ", usage=", row.usage, ", label='')")));
        EXPECT_EQ(keyNameOf(made->credentialId.data()), keyNameOf(token.keyPairs.back().keyId));
        EXPECT_EQ(made->credentialIdLength, 16u);
        EXPECT_THAT(made->publicKeyBytes(), ElementsAreArray(ScriptedDeviceLibrary::publicKeyOf(row.type)));
        EXPECT_STREQ(made->label, kPairLabel);
        EXPECT_EQ(made->publicKeyExtraLength, 0u) << "that of the created key, and so is its flag";
        EXPECT_FALSE(made->recordFlag);
        EXPECT_EQ(made->keyType, row.type);
        EXPECT_EQ(made->bitLength, row.bits);
    }
    for (const char* unknown : {"AES", "rsa", "ECDSA", ""})
        EXPECT_EQ(create(unknown),
                  failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported algorithm for key generation"}));
}

TEST_F(KspKeyTest, RefusedGenerationLeavesTheKeyToBeFinalisedAgain) {
    create("RSA");
    const auto made = liveKspKey(key);
    made->bitLength = 1024;
    EXPECT_EQ(finalize(), failed(NTE_FAIL, {"KSPFinalizeKey: password validation failed"}));
    storePinOfToken();
    library.clearCalls();
    EXPECT_EQ(finalize(), failed(NTE_NOT_SUPPORTED,
                                 {"KSPFinalizeKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size "
                                  "below 112-bit security strength"}));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
    for (const auto& [type, bits, fixedBits] :
         {std::tuple{kKeyTypeRsaUnsized, 0u, 2048u}, {std::uint32_t{kKeyTypeEcP384}, 1024, 384}}) {
        made->persisted = false;
        made->keyType = type;
        made->bitLength = bits;
        library.clearScripts();
        library.script("veltra_generateKeyPair", {.result = 23, .onCall = 1});
        EXPECT_EQ(finalize(), failed(NTE_INTERNAL_ERROR, {"KSP: Key generation failed: 23"}));
        EXPECT_EQ(made->keyType, type);
        EXPECT_EQ(made->bitLength, fixedBits) << "the size is fixed before the token is asked";
        EXPECT_EQ(finalize(), succeeded());
    }
    made->persisted = false;
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
    EXPECT_THAT(library.calls("veltra_generateKeyPair"), testing::SizeIs(1));
}

TEST_F(KspKeyTest, DeletionHandsTheRecordsFlagBackAndKeepsTheObject) {
    const NCRYPT_KEY_HANDLE first = addKey(token.addKeyPair(0x11));
    token.addKeyPair(0x22).flag = 1;
    EXPECT_EQ(remove(first), failed(NTE_FAIL, {"KSPDeleteKey: password validation failed"}));
    storePinOfToken();
    EXPECT_EQ(remove(first), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Key deleted successfully");
    EXPECT_EQ(remove(first), failed(NTE_INTERNAL_ERROR, {"KSP: Delete key failed: 72"}));
    EXPECT_EQ(remove(addKey(token.keyPairs[0])), succeeded());
    const std::string start = "veltra_deleteKeyPair(serial=" + serial + ", key=";
    EXPECT_THAT(library.calls("veltra_deleteKeyPair"),
                ElementsAre(start + "1111..1111, pin=1234, flag=0)", start + "1111..1111, pin=1234, flag=0)",
                            start + "2222..2222, pin=1234, flag=1)"));
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
        EXPECT_EQ(debugLines.back(), "KSP: Enumerated key: " + id);
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
