#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

class KeyObjectTest : public CspTest {
protected:
    KeyObjectTest() { storePinOfToken(); }

    /// Generates a key that the fixture destroys. Returns its name.
    std::string generate(HCRYPTPROV context, ALG_ID algorithm, DWORD bits = 0) {
        HCRYPTKEY key = 0;
        answer = run(CPGenKey, context, algorithm, bits << 16 | CRYPT_EXPORTABLE, &key);
        record = liveKey(key);
        CPDestroyKey(context, key);
        return keyNameOf(token.keyPairs.back().keyId);
    }
    std::shared_ptr<KEY_HANDLE> open(HCRYPTPROV context, DWORD keySpec) {
        return liveKey(userKey(context, keySpec));
    }
    HCRYPTKEY addKeyOf(ALG_ID algorithm, std::uint32_t usage = 0) {
        auto key = std::make_unique<KEY_HANDLE>();
        key->algId = algorithm;
        key->keyUsage = usage;
        return addKey(std::move(key));
    }
    Answer set(HCRYPTKEY key, DWORD parameter, const void* data) {
        return run(CPSetKeyParam, provider, key, parameter, static_cast<const BYTE*>(data), 5);
    }

    const std::string container = freshName("Container");
    const HCRYPTPROV provider = acquire(container.c_str());
    Answer answer;                      ///< of the last generation
    std::shared_ptr<KEY_HANDLE> record; ///< what it handed out
};

TEST_F(KeyObjectTest, KindsAndLengthsOfNewKeys) {
    const auto expectKey = [&](ALG_ID requested, DWORD bits, ALG_ID algId, DWORD keyBits, int type,
                               int usage) {
        generate(provider, requested, bits);
        ASSERT_EQ(answer, accepted());
        // Unlike a key that is opened it has mode 0, and not the token's flag: deliberate.
        EXPECT_THAT(textOf(*record),
                    testing::StartsWith(concat(algId, "/", keyBits, "/0/", usage, "/0 id=E")));
        EXPECT_THAT(library.calls("veltra_generateKeyPair").back(),
                    testing::EndsWith(concat("pin=1234, type=", type, ", usage=", usage, ", label='')")));
    };
    expectKey(CALG_RSA_SIGN, 0, CALG_RSA_SIGN, 2048, 2, 1);
    expectKey(CALG_RSA_KEYX, 1025, CALG_RSA_KEYX, 1025, 2, 2);
    expectKey(AT_SIGNATURE, 3072, CALG_RSA_SIGN, 3072, 3, 1);
    expectKey(AT_KEYEXCHANGE, 4096, CALG_RSA_KEYX, 4096, 4, 2);
}

TEST_F(KeyObjectTest, NewKeysOfAContainerAreRememberedInOrderAndBecomeTheContextsKey) {
    const auto context = liveContext(provider);
    library.script("veltra_generateKeyPair", {.result = 23, .onCall = 1});
    HCRYPTKEY none = 0;
    EXPECT_FALSE(CPGenKey(provider, CALG_RSA_SIGN, 0, &none));
    EXPECT_EQ(context->keyName, container);
    EXPECT_EQ(readContainerValue(container), "");
    const std::string first = generate(provider, CALG_RSA_SIGN);
    EXPECT_EQ(context->containerName, container);
    EXPECT_EQ(keyNameOf(context->signatureKey.keyId.data()), first);
    EXPECT_EQ(keyNameOf(context->exchangeKey.keyId.data()), first) << "both slots, whatever the usage";
    const std::string second = generate(provider, AT_KEYEXCHANGE, 3072);
    EXPECT_EQ(context->keyName, second);
    EXPECT_EQ(readContainerValue(container), first + "," + second + '\0');
    EXPECT_EQ(liveContext(acquire(container.c_str()))->keyName, first) << "the container's key";
}

TEST_F(KeyObjectTest, WhatTheRegistryHoldsOfAContainerIsNeverLost) {
    const HCRYPTPROV unnamed = acquire();
    writeContainerValue(container, "ANOTHER,PROCESS");
    const std::string first = generate(provider, CALG_RSA_SIGN);
    EXPECT_EQ(readContainerValue(container), "ANOTHER,PROCESS," + first + '\0');
    // With one more name the value would be longer than what is ever read back.
    const std::string full = concat(std::string(900, 'F'), ",", first, ",", std::string(60, 'G'));
    writeContainerValue(container, full);
    const std::string second = generate(provider, CALG_RSA_SIGN);
    EXPECT_EQ(answer, (Answer{TRUE,
                              kUntouched,
                              {concat("CPGenKey: container ", container, " is full, key ", second,
                                      " is not recorded in it")}}));
    EXPECT_EQ(readContainerValue(container), full);
    EXPECT_EQ(generate(unnamed, CALG_RSA_SIGN), liveContext(unnamed)->keyName);
    EXPECT_EQ(readContainerValue(""), "") << "nothing is remembered without a name";
}

TEST_F(KeyObjectTest, TypeDecidesWhatAnOpenedKeyReports) {
    for (const auto& [type, bits] :
         {std::pair{1u, 1024u}, {2u, 2048u}, {3u, 3072u}, {4u, 4096u}, {5u, 256u}, {6u, 384u}, {7u, 521u}}) {
        SCOPED_TRACE(type);
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type, kUsageEncrypt);
        // The usage of the key is not compared with the key specification.
        for (const auto& [keySpec, rsa] :
             {std::pair{AT_SIGNATURE, CALG_RSA_SIGN}, {AT_KEYEXCHANGE, CALG_RSA_KEYX}}) {
            const auto key = open(acquireKey(static_cast<char>('0' + type)), keySpec);
            EXPECT_THAT(textOf(*key), testing::StartsWith(concat(type <= kKeyTypeRsa4096 ? rsa : 0x2200, "/",
                                                                 bits, "/1/2/0 id=")));
        }
    }
}

TEST_F(KeyObjectTest, RecordIsFilledFromTheTokensPairAsFarAsItsLengthsArePossible) {
    token.keyPairs.reserve(3);
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa4096, kUsageBoth);
    pair.publicKeyLength = 1024;
    pair.credentialIdLength = 128;
    std::ranges::fill(pair.label, 'L'); // nothing in it ends it
    pair.flag = 0x100;
    token.addKeyPair(0x22).publicKeyLength = 1025;
    token.addKeyPair(0x33).credentialIdLength = 129;
    const auto key = open(acquireKey('1'), AT_SIGNATURE);
    EXPECT_EQ(textOf(*key), concat("9216/4096/1/3/1 id=1111..(16) credential=11", std::string(254, '0'),
                                   " label=", std::string(128, 'L'), " secret="));
    EXPECT_EQ(Bytes(key->publicKey, key->publicKey + key->publicKeyLength),
              Bytes(pair.publicKey, pair.publicKey + 1024));
    EXPECT_EQ(open(acquireKey('2'), AT_SIGNATURE)->publicKeyLength, 0u);
    EXPECT_EQ(open(acquireKey('3'), AT_SIGNATURE)->credentialIdLength, 0u);
    EXPECT_THAT(takeLogLines(),
                Contains("ERROR Key pair " + std::string(32, '2') + " has an impossible public key length"));
}

TEST_F(KeyObjectTest, ContainerNamesTheKeyInItsCaseAndTheSlotIsFilledOnce) {
    token.addKeyPair(0xAB, kKeyTypeRsa2048, kUsageSign);
    token.addKeyPair(0x22);
    const std::string mapped = freshName("Container");
    writeContainerValue(mapped, std::string(32, '2'));
    const HCRYPTPROV named = acquire(mapped.c_str()), unnamed = acquire();
    const auto context = liveContext(named);
    context->signatureKey.fill(token.keyPairs[0].keyId);
    EXPECT_TRUE(open(named, AT_SIGNATURE));
    EXPECT_EQ(context->signatureKey.keyId[0], 0xAB);
    EXPECT_FALSE(context->exchangeKey.filled());
    EXPECT_TRUE(open(named, AT_KEYEXCHANGE));
    EXPECT_EQ(context->exchangeKey.keyId[0], 0x22);
    EXPECT_FALSE(open(acquire("abababababababababababababababab"), AT_SIGNATURE));
    // Without a name only the exchange key is given out, until the containers were enumerated.
    EXPECT_TRUE(!open(unnamed, AT_SIGNATURE) && open(unnamed, AT_KEYEXCHANGE));
    liveContext(unnamed)->containersEnumerated = true;
    EXPECT_TRUE(open(unnamed, AT_SIGNATURE) && !open(unnamed, 3));
}

TEST_F(KeyObjectTest, OnlyTheModeIsStoredAndEverythingElseSucceedsAllTheSame) {
    const HCRYPTKEY key = addKeyOf(CALG_RSA_SIGN);
    const DWORD value = 0xFFFFFFFF;
    for (const DWORD parameter : {KP_PADDING, KP_PERMISSIONS, KP_SALT, 99, KP_MODE})
        for (const DWORD* data : {static_cast<const DWORD*>(nullptr), &value}) {
            EXPECT_EQ(liveKey(key)->mode, 0u);
            EXPECT_EQ(set(key, parameter, data), accepted()) << parameter;
        }
    EXPECT_EQ(liveKey(key)->mode, value);
    for (const DWORD usage : {0u, 1u, 2u, 3u, 4u})
        EXPECT_EQ(keyParameter(provider, addKeyOf(CALG_RSA_SIGN, usage), KP_PERMISSIONS), 12 + usage % 4);
}

TEST_F(KeyObjectTest, IvIsOneForTheProcessAndOnlyTwoTokenCodesSetIt) {
    const Bytes iv = counting(16, 0xA0);
    for (const ALG_ID algorithm : {8, 10, 11, CALG_AES_128, CALG_AES_256, CALG_RSA_SIGN}) {
        setProcessIv({});
        for (const unsigned char* data : {iv.data(), static_cast<const unsigned char*>(nullptr)})
            EXPECT_EQ(set(addKeyOf(algorithm), KP_IV, data), accepted());
        EXPECT_EQ(processIv(), algorithm == 10 ? iv : algorithm == 11 ? counting(8, 0xA0) : Bytes());
    }
}

} // namespace
} // namespace veltra::test
