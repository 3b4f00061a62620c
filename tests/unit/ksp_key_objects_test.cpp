#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

const SECURITY_STATUS kNoKey = static_cast<SECURITY_STATUS>(0x8009000D);
const SECURITY_STATUS kNoMoreItems = static_cast<SECURITY_STATUS>(0x8009002A);
const std::string kOnes(32, '1');
const std::string kTwos(32, '2');

/// A name as applications pass it.
class Wide {
public:
    explicit Wide(const std::string& ascii) : text_(ascii.size() + 1) { writeWide(ascii, text_.data()); }
    operator LPCWSTR() const { return text_.data(); }

private:
    std::vector<WCHAR> text_;
};

class KspKeyTest : public KspTest {
protected:
    KspKeyTest() : provider(openProvider()) { library.clearCalls(); }
    ~KspKeyTest() override { KSPFreeKey(provider, key); }

    StatusAnswer open(const std::string& name, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        return call([&] { return KSPOpenKey(provider, &key, Wide(name), keySpec, 0); });
    }
    StatusAnswer create(const std::string& algorithm, DWORD keySpec = 0) {
        KSPFreeKey(provider, std::exchange(key, 0));
        return call(
            [&] { return KSPCreatePersistedKey(provider, &key, Wide(algorithm), Wide("name"), keySpec, 0); });
    }
    StatusAnswer finalize() {
        return call([&] { return KSPFinalizeKey(provider, key, 0); });
    }
    StatusAnswer remove(NCRYPT_KEY_HANDLE handle) {
        return call([&] { return KSPDeleteKey(provider, handle, 0); });
    }
    StatusAnswer enumerate(PVOID& state, NCryptKeyName*& name) {
        return call([&] { return KSPEnumKeys(provider, nullptr, &name, &state, 0); });
    }
    std::string list(const std::string& of) const { return "veltra_getKeyPairList(serial=" + of + ")"; }

    const NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE key = 0;
};

TEST_F(KspKeyTest, ArgumentsAreCheckedInOrderAndDeadHandlesAreNull) {
    token.addKeyPair(0x11);
    const NCRYPT_KEY_HANDLE live = addKey(token.keyPairs[0]);
    PVOID state = nullptr;
    NCryptKeyName* name = nullptr;
    const auto handle = [](const char* entryPoint, const char* reason) {
        return failed(NTE_INVALID_HANDLE, {std::string(entryPoint) + reason});
    };
    const char* const kProvider = ": provider handle is null or not initialized";
    for (const NCRYPT_PROV_HANDLE dead : {NCRYPT_PROV_HANDLE{0}, NCRYPT_PROV_HANDLE{16}, live}) {
        EXPECT_EQ(call([&] { return KSPOpenKey(dead, nullptr, nullptr, 9, 0); }),
                  handle("KSPOpenKey", kProvider));
        EXPECT_EQ(call([&] { return KSPCreatePersistedKey(dead, nullptr, nullptr, nullptr, 0, 0); }),
                  handle("KSPCreatePersistedKey", kProvider));
        EXPECT_EQ(call([&] { return KSPFinalizeKey(dead, 0, 0); }), handle("KSPFinalizeKey", kProvider));
        EXPECT_EQ(call([&] { return KSPDeleteKey(dead, 0, 0); }), handle("KSPDeleteKey", kProvider));
        EXPECT_EQ(call([&] { return KSPEnumKeys(dead, nullptr, nullptr, nullptr, 0); }),
                  handle("KSPEnumKeys", kProvider));
    }
    for (const NCRYPT_KEY_HANDLE dead : {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{16}, provider}) {
        EXPECT_EQ(call([&] { return KSPFinalizeKey(provider, dead, 0); }),
                  handle("KSPFinalizeKey", ": key handle is null"));
        EXPECT_EQ(remove(dead), handle("KSPDeleteKey", ": key handle is null"));
        EXPECT_EQ(call([&] { return KSPFreeKey(0, dead); }), succeeded());
    }
    EXPECT_EQ(call([&] { return KSPOpenKey(provider, nullptr, nullptr, 9, 0); }),
              failed(NTE_INVALID_PARAMETER, {"KSPOpenKey: phKey is null"}));
    const StatusAnswer noArgument =
        failed(NTE_INVALID_PARAMETER, {"KSPCreatePersistedKey: phKey or pszAlgId is null"});
    EXPECT_EQ(call([&] { return KSPCreatePersistedKey(provider, nullptr, L"RSA", nullptr, 0, 0); }),
              noArgument);
    EXPECT_EQ(call([&] { return KSPCreatePersistedKey(provider, &key, nullptr, nullptr, 0, 0); }),
              noArgument);
    const StatusAnswer noOutput =
        failed(NTE_INVALID_PARAMETER, {"KSPEnumKeys: ppKeyName or ppEnumState is null"});
    EXPECT_EQ(call([&] { return KSPEnumKeys(provider, nullptr, nullptr, &state, 0); }), noOutput);
    EXPECT_EQ(call([&] { return KSPEnumKeys(provider, nullptr, &name, nullptr, 0); }), noOutput);
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_NE(liveKspKey(live), nullptr);
    EXPECT_EQ(call([&] { return KSPFreeKey(0, live); }), succeeded());
    EXPECT_EQ(liveKspKey(live), nullptr);
}

TEST_F(KspKeyTest, OpenedKeyIsTheTokensRecord) {
    token.addKeyPair(0x22, kKeyTypeEcP384);
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa3072, kUsageBoth);
    std::ranges::fill(pair.label, 'L'); // nothing in it ends it
    pair.flag = 0x100;
    token.addKeyPair(0x33);
    EXPECT_EQ(open(kOnes, AT_SIGNATURE), succeeded());
    EXPECT_THAT(debugLines,
                ElementsAre("KSPOpenKey", "KSP: Opening key: " + kOnes, "KSP: Available key: " + kTwos,
                            "KSP: Available key: " + kOnes, "KSP: Key match found, proceeding...",
                            "KSP: Key opened, algorithm=3 bits=3072"));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_getConnectedDeviceList(refresh=0)", list(serial), list(serial)));
    const auto opened = liveKspKey(key);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(keyNameOf(opened->credentialId.data()), kOnes);
    EXPECT_EQ(opened->credentialIdLength, 16u);
    EXPECT_EQ(opened->keyUsage, 3u);
    EXPECT_EQ(Bytes(opened->publicKeyBytes().begin(), opened->publicKeyBytes().end()),
              ScriptedDeviceLibrary::publicKeyOf(kKeyTypeRsa3072));
    EXPECT_EQ(opened->publicKeyExtraLength, 1u);
    EXPECT_EQ(opened->publicKeyExtra[0], 0x11);
    EXPECT_EQ(opened->label, std::string(128, 'L'));
    EXPECT_TRUE(opened->recordFlag);
    EXPECT_TRUE(opened->persisted);
    EXPECT_EQ(opened->keyName, kOnes);
}

TEST_F(KspKeyTest, NamesMatchExactlyAndKeySpecificationsByUsage) {
    EXPECT_EQ(open(kOnes), failed(kNoKey, {"KSP: No keys found on token"}));
    for (const std::uint32_t usage : {1u, 2u, 3u})
        token.addKeyPair(static_cast<unsigned char>(0xA0 + usage), kKeyTypeRsa2048, usage);
    const auto nameOf = [&](std::uint32_t usage) { return keyNameOf(token.keyPairs[usage - 1].keyId); };
    std::string lowerCase = nameOf(1);
    std::ranges::replace(lowerCase, 'A', 'a');
    for (const std::string& name : {lowerCase, nameOf(1) + "0", nameOf(1).substr(1), std::string()})
        EXPECT_EQ(open(name), failed(kNoKey, {"KSP: Input key not found on token: " + name}));
    library.clearCalls();
    EXPECT_EQ(call([&] { return KSPOpenKey(provider, &key, nullptr, 0, 0); }),
              failed(kNoKey, {"KSP: Input key not found on token: "}));
    EXPECT_THAT(library.calls(), ElementsAre(list(serial))) << "no token is searched for a key without name";
    for (const std::uint32_t usage : {1u, 2u, 3u}) {
        for (const DWORD keySpec : {0u, 1u, 2u, 3u, 0xFFFFFFFFu}) {
            const bool serves = keySpec <= 1 || (keySpec == 2 && usage != 2);
            EXPECT_EQ(open(nameOf(usage), keySpec),
                      serves ? succeeded()
                             : failed(kNoKey, {concat("KSP: encrypt-only key cannot serve AT_SIGNATURE, "
                                                      "dwLegacyKeySpec=",
                                                      keySpec, " keyUsage=", usage),
                                               "KSP: Key not found: " + nameOf(usage)}));
            EXPECT_EQ(key != 0, serves);
        }
    }
}

TEST_F(KspKeyTest, KeyOfAnotherTokenRebindsTheProvider) {
    token.addKeyPair(0x11);
    const std::string other = freshName("Token");
    library.addToken(other).addKeyPair(0x22);
    EXPECT_EQ(open(kTwos), succeeded());
    EXPECT_THAT(debugLines, testing::Contains("KSP: Resolved key to device: " + other));
    EXPECT_THAT(library.calls("veltra_getKeyPairList"), ElementsAre(list(serial), list(other), list(other)));
    EXPECT_EQ(liveProvider(provider)->serial(), other);
    EXPECT_EQ(open("none"), failed(kNoKey, {"KSP: Input key not found on token: none"}));
    EXPECT_EQ(liveProvider(provider)->serial(), other) << "a name that no token has changes nothing";

    // Once the first token cannot be read, its list fails but hides no key of the other.
    library.clearScripts();
    library.script("veltra_getKeyPairList", {.throws = true, .onCall = 1});
    EXPECT_EQ(open(kTwos), failed(0, {"KSP: Key list of " + serial + " cannot be read"}));
    library.clearScripts();
    library.script("veltra_getKeyPairList", {.throws = true});
    EXPECT_EQ(open(kTwos), failed(NTE_INTERNAL_ERROR, {"KSP: Key list of " + serial + " cannot be read",
                                                       "KSP: Key list of " + other + " cannot be read",
                                                       "KSPOpenKey: unexpected exception"}));
    EXPECT_EQ(key, 0u);
}

TEST_F(KspKeyTest, ProviderWithoutATokenFindsNoKeyUntilOneIsConnected) {
    library.setConnected(serial, false);
    token.addKeyPair(0x11);
    const NCRYPT_PROV_HANDLE unbound = openProvider();
    const auto openUnbound = [&] {
        return call([&] { return KSPOpenKey(unbound, &key, Wide(kOnes), 0, 0); });
    };
    EXPECT_EQ(openUnbound(), failed(kNoKey, {"KSP: No keys found on token"}));
    library.setConnected(serial, true);
    EXPECT_EQ(openUnbound(), succeeded());
    EXPECT_EQ(liveProvider(unbound)->serial(), serial);
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
        library.clearCalls();
        EXPECT_EQ(create(row.algorithm, row.keySpec), succeeded());
        EXPECT_EQ(debugLines.back(), "KSP: Key object created, waiting for FinalizeKey");
        EXPECT_THAT(library.calls(), IsEmpty());
        const auto made = liveKspKey(key);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(made->keyName, "name");
        EXPECT_FALSE(made->persisted);
        EXPECT_EQ(made->credentialIdLength, 0u);
        EXPECT_EQ(made->keyType, row.createdType);
        EXPECT_EQ(made->bitLength, row.createdBits);
        if (row.length != 0) made->bitLength = row.length;

        EXPECT_EQ(finalize(), succeeded());
        EXPECT_THAT(debugLines, IsSupersetOf({concat("KSP: FinalizeKey - generating key, algorithm=",
                                                     row.type, " bitSize=", row.bits),
                                              std::string("KSP: Key finalized successfully")}));
        EXPECT_THAT(library.calls(),
                    ElementsAre(concat("veltra_generateKeyPair(serial=", serial,
                                       ", pin=1234, type=", row.type, ", usage=", row.usage, ", label='')")));
        EXPECT_EQ(keyNameOf(made->credentialId.data()), keyNameOf(token.keyPairs.back().keyId));
        EXPECT_EQ(made->credentialIdLength, 16u);
        EXPECT_EQ(made->publicKeyLength, token.keyPairs.back().publicKeyLength);
        EXPECT_EQ(made->label, "label");
        EXPECT_EQ(made->keyType, row.type);
        EXPECT_EQ(made->keyUsage, row.usage);
        EXPECT_EQ(made->bitLength, row.bits);
        library.clearCalls();
        EXPECT_EQ(finalize(), succeeded()) << "a second time";
        EXPECT_THAT(library.calls(), IsEmpty());
    }
    for (const char* unknown : {"AES", "rsa", "ECDSA", ""})
        EXPECT_EQ(create(unknown),
                  failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported algorithm for key generation"}));
    EXPECT_EQ(key, 0u);
}

TEST_F(KspKeyTest, RefusedGenerationLeavesTheKeyToBeFinalisedAgain) {
    create("RSA");
    const auto made = liveKspKey(key);
    made->bitLength = 1024;
    EXPECT_EQ(finalize(), failed(NTE_FAIL, {"KSPFinalizeKey: password validation failed"}));
    prompt.willType({"1234"});
    library.clearCalls();
    EXPECT_EQ(finalize(), failed(NTE_NOT_SUPPORTED,
                                 {"KSPFinalizeKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size "
                                  "below 112-bit security strength"}));
    EXPECT_EQ(library.calls().back(), "veltra_getTokenInfo(serial=" + serial + ")");
    made->bitLength = 0;
    library.script("veltra_generateKeyPair", {.result = 23});
    EXPECT_EQ(finalize(), failed(NTE_INTERNAL_ERROR, {"KSP: Key generation failed: 23"}));
    EXPECT_EQ(made->keyType, 0u);
    EXPECT_EQ(made->bitLength, 0u);
    EXPECT_FALSE(made->persisted);
    library.clearScripts();
    EXPECT_EQ(finalize(), succeeded());
    EXPECT_EQ(made->bitLength, 2048u);

    auto odd = std::make_unique<KSP_KEY>();
    odd->keyType = 8;
    KSPFreeKey(0, std::exchange(key, addKey(std::move(odd))));
    EXPECT_EQ(finalize(), failed(NTE_NOT_SUPPORTED, {"KSPFinalizeKey: unsupported ECC algorithm=8"}));
}

TEST_F(KspKeyTest, DeletionHandsTheRecordsFlagBackAndKeepsTheObject) {
    token.addKeyPair(0x11);
    token.addKeyPair(0x22).flag = 1;
    const NCRYPT_KEY_HANDLE first = addKey(token.keyPairs[0]);
    const NCRYPT_KEY_HANDLE second = addKey(token.keyPairs[1]);
    EXPECT_EQ(remove(first), failed(NTE_FAIL, {"KSPDeleteKey: password validation failed"}));
    storePinOfToken();
    library.clearCalls();
    EXPECT_EQ(remove(first), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Key deleted successfully");
    EXPECT_EQ(remove(first), failed(NTE_INTERNAL_ERROR, {"KSP: Delete key failed: 72"}));
    EXPECT_EQ(remove(second), succeeded());
    const std::string start = "veltra_deleteKeyPair(serial=" + serial + ", key=";
    EXPECT_THAT(library.calls(),
                ElementsAre(start + "1111..1111, pin=1234, flag=0)", start + "1111..1111, pin=1234, flag=0)",
                            start + "2222..2222, pin=1234, flag=1)"));
    EXPECT_NE(liveKspKey(first), nullptr);
}

TEST_F(KspKeyTest, EnumerationWalksASnapshotOfTheTokensKeys) {
    PVOID state = nullptr;
    NCryptKeyName* name = nullptr;
    const StatusAnswer end = failed(kNoMoreItems, {"KSP: No more keys to enumerate"});
    EXPECT_EQ(enumerate(state, name), end);
    EXPECT_EQ(state, nullptr) << "there is nothing to free";

    token.addKeyPair(0x11);
    token.addKeyPair(0x22, kKeyTypeEcP521, kUsageEncrypt);
    library.clearCalls();
    for (const auto& [keyName, algorithm] : {std::pair{kOnes, "RSA"}, {kTwos, "ECDH_P521"}}) {
        ASSERT_EQ(enumerate(state, name), succeeded());
        EXPECT_EQ(debugLines.back(), "KSP: Enumerated key: " + keyName);
        EXPECT_EQ(fromWide(name->pszName), keyName);
        EXPECT_EQ(fromWide(name->pszAlgid), algorithm);
        EXPECT_EQ(name->dwLegacyKeySpec, DWORD{AT_KEYEXCHANGE}) << "for every key: deliberate";
        EXPECT_EQ(name->dwFlags, 0u);
        EXPECT_EQ(KSPFreeBuffer(name), 0);
        token.addKeyPair(0x33);
    }
    EXPECT_EQ(enumerate(state, name), end);
    EXPECT_THAT(library.calls(), ElementsAre(list(serial)));

    EXPECT_EQ(KSPFreeBuffer(state), 0);
    const StatusAnswer foreign =
        failed(NTE_INVALID_PARAMETER, {"KSPEnumKeys: enum state is not one of this provider"});
    EXPECT_EQ(enumerate(state, name), foreign) << "freed";
    state = &state;
    EXPECT_EQ(enumerate(state, name), foreign);
    state = nullptr;
    library.script("veltra_getKeyPairList", {.throws = true});
    EXPECT_EQ(enumerate(state, name), failed(NTE_INTERNAL_ERROR, {"KSPEnumKeys: unexpected exception"}));
    EXPECT_EQ(state, nullptr);
}

} // namespace
} // namespace veltra::test
