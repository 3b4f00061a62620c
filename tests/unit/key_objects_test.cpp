#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

class GenKeyTest : public CspTest {
protected:
    GenKeyTest() : container(freshName("Container")), provider(acquire(container.c_str())) {
        storePinOfToken();
        library.clearCalls();
    }
    ~GenKeyTest() override { CPDestroyKey(provider, key); }

    /// Generates a key in the place of the last one. Returns its name.
    std::string generate(ALG_ID algorithm, DWORD bits = 0, DWORD lowFlags = 0) {
        CPDestroyKey(provider, key);
        EXPECT_EQ(run(CPGenKey, provider, algorithm, bits << 16 | lowFlags, &key), accepted());
        return keyNameOf(token.keyPairs.back().keyId);
    }

    const std::string container;
    const HCRYPTPROV provider;
    HCRYPTKEY key = 0;
};

TEST_F(GenKeyTest, KindsAndLengths) {
    const auto expectKey = [&](ALG_ID requested, DWORD bits, ALG_ID algId, DWORD keyBits, int type,
                               int usage) {
        library.clearCalls();
        generate(requested, bits, CRYPT_EXPORTABLE);
        EXPECT_EQ(keyParameter(provider, key, KP_ALGID), algId);
        EXPECT_EQ(keyParameter(provider, key, KP_KEYLEN), keyBits);
        EXPECT_EQ(keyParameter(provider, key, KP_MODE), 0u) << "unlike a key that is opened: deliberate";
        EXPECT_EQ(liveKey(key)->tokenFlag, 0) << "the token's flag is not taken: deliberate";
        EXPECT_THAT(library.calls("veltra_generateKeyPair"),
                    ElementsAre(concat("veltra_generateKeyPair(serial=", serial, ", pin=1234, type=", type,
                                       ", usage=", usage, ", label='')")));
    };
    expectKey(CALG_RSA_SIGN, 0, CALG_RSA_SIGN, 2048, 2, 1);
    expectKey(CALG_RSA_KEYX, 0, CALG_RSA_KEYX, 2048, 2, 2);
    expectKey(CALG_RSA_KEYX, 1025, CALG_RSA_KEYX, 1025, 2, 2);
    expectKey(AT_SIGNATURE, 3072, CALG_RSA_SIGN, 3072, 3, 1);
    expectKey(AT_KEYEXCHANGE, 4096, CALG_RSA_KEYX, 4096, 4, 2);
}

TEST_F(GenKeyTest, KeysOfAContainerAreRememberedInOrderAndBecomeTheContextsKey) {
    const auto context = liveContext(provider);
    library.script("veltra_generateKeyPair", {.result = 23, .onCall = 1});
    EXPECT_FALSE(run(CPGenKey, provider, CALG_RSA_SIGN, 0, &key).result);
    EXPECT_EQ(context->keyName, container);
    EXPECT_EQ(readContainerValue(container), "");
    const std::string first = generate(CALG_RSA_SIGN);
    EXPECT_EQ(context->containerName, container);
    EXPECT_EQ(keyNameOf(context->signatureKey.keyId.data()), first);
    EXPECT_EQ(keyNameOf(context->exchangeKey.keyId.data()), first) << "both slots, whatever the usage";
    const std::string second = generate(AT_KEYEXCHANGE, 3072);
    EXPECT_EQ(context->keyName, second);
    EXPECT_EQ(readContainerValue(container), first + "," + second + '\0');
    EXPECT_EQ(liveContext(acquire(container.c_str()))->keyName, first) << "the container's key";
}

TEST_F(GenKeyTest, WhatTheRegistryHoldsOfAContainerIsNeverLost) {
    writeContainerValue(container, "ANOTHER,PROCESS");
    const std::string first = generate(CALG_RSA_SIGN);
    EXPECT_EQ(readContainerValue(container), "ANOTHER,PROCESS," + first + '\0');

    // With one more name the value would be longer than what is ever read back.
    const std::string full = std::string(900, 'F') + "," + first + "," + std::string(60, 'G');
    writeContainerValue(container, full);
    CPDestroyKey(provider, key);
    const Answer answer = run(CPGenKey, provider, CALG_RSA_SIGN, 0, &key);
    EXPECT_EQ(answer.result, TRUE);
    EXPECT_EQ(answer.errors.size(), 1u);
    EXPECT_EQ(readContainerValue(container), full);

    const HCRYPTPROV unnamed = acquire();
    CPDestroyKey(provider, key);
    EXPECT_EQ(run(CPGenKey, unnamed, CALG_RSA_SIGN, 0, &key), accepted());
    EXPECT_EQ(liveContext(unnamed)->keyName, keyNameOf(token.keyPairs.back().keyId));
    EXPECT_EQ(readContainerValue(""), "") << "nothing is remembered without a name";
}

class UserKeyTest : public CspTest {};

TEST_F(UserKeyTest, TypeDecidesWhatTheKeyReports) {
    for (const auto& [type, bits] :
         {std::pair{1u, 1024u}, {2u, 2048u}, {3u, 3072u}, {4u, 4096u}, {5u, 256u}, {6u, 384u}, {7u, 521u}}) {
        SCOPED_TRACE(type);
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type, kUsageEncrypt);
        const HCRYPTPROV provider = acquireKey(static_cast<char>('0' + type));
        // The usage of the key is not compared with the key specification.
        for (const DWORD keySpec : {AT_SIGNATURE, AT_KEYEXCHANGE}) {
            const HCRYPTKEY key = userKey(provider, keySpec);
            const DWORD rsa = keySpec == AT_SIGNATURE ? CALG_RSA_SIGN : CALG_RSA_KEYX;
            EXPECT_EQ(keyParameter(provider, key, KP_ALGID), type <= kKeyTypeRsa4096 ? rsa : 0x2200);
            EXPECT_EQ(keyParameter(provider, key, KP_KEYLEN), bits);
            EXPECT_EQ(keyParameter(provider, key, KP_MODE), 1u);
            EXPECT_EQ(keyParameter(provider, key, KP_PERMISSIONS), 14u);
        }
    }
}

TEST_F(UserKeyTest, RecordIsFilledFromTheTokensPairAsFarAsItsLengthsArePossible) {
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa4096, kUsageBoth);
    std::fill_n(pair.publicKey, 550, static_cast<unsigned char>(0x30)); // DER of a 4096-bit key
    pair.publicKeyLength = 550;
    pair.credentialIdLength = 128;
    std::ranges::fill(pair.label, 'L'); // nothing in it ends it
    pair.flag = 0x100;
    token.addKeyPair(0x22).publicKeyLength = 1025;
    token.addKeyPair(0x33).credentialIdLength = 0xFFFFFFFF;
    const auto record = liveKey(userKey(acquireKey('1'), AT_SIGNATURE));
    ASSERT_TRUE(record);
    EXPECT_EQ(Bytes(record->publicKey, record->publicKey + record->publicKeyLength), Bytes(550, 0x30));
    EXPECT_EQ(record->credentialIdLength, 128u);
    EXPECT_EQ(record->keyIdLength, 16u);
    EXPECT_EQ(std::string(record->label), std::string(128, 'L'));
    EXPECT_EQ(record->tokenFlag, 1);
    EXPECT_EQ(record->keyUsage, 3u);
    EXPECT_EQ(liveKey(userKey(acquireKey('2'), AT_SIGNATURE))->publicKeyLength, 0u);
    EXPECT_EQ(liveKey(userKey(acquireKey('3'), AT_SIGNATURE))->credentialIdLength, 0u);
    EXPECT_THAT(takeLogLines(),
                Contains("ERROR Key pair " + std::string(32, '2') + " has an impossible public key length"));
}

TEST_F(UserKeyTest, WithoutAContainerOnlyTheExchangeKeyIsGivenOutUntilContainersWereEnumerated) {
    token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageSign);
    const HCRYPTPROV provider = acquire();
    EXPECT_EQ(userKey(provider, AT_SIGNATURE), 0u);
    EXPECT_EQ(liveKey(userKey(provider, AT_KEYEXCHANGE))->algId, static_cast<ALG_ID>(CALG_RSA_KEYX));
    liveContext(provider)->containersEnumerated = true;
    EXPECT_EQ(liveKey(userKey(provider, AT_SIGNATURE))->keyId[0], 0x11);
    EXPECT_EQ(userKey(provider, 3), 0u);
}

TEST_F(UserKeyTest, SlotIsFilledOnceByTheKeyThatTheContainerNamesInItsCase) {
    token.addKeyPair(0xAB);
    token.addKeyPair(0x22);
    const std::string mapped = freshName("Container");
    writeContainerValue(mapped, std::string(32, '2'));
    const HCRYPTPROV provider = acquire(mapped.c_str());
    const auto context = liveContext(provider);
    context->signatureKey.fill(token.keyPairs[0].keyId);
    EXPECT_NE(userKey(provider, AT_SIGNATURE), 0u);
    EXPECT_EQ(context->signatureKey.keyId[0], 0xAB);
    EXPECT_FALSE(context->exchangeKey.filled());
    EXPECT_NE(userKey(provider, AT_KEYEXCHANGE), 0u);
    EXPECT_EQ(context->exchangeKey.keyId[0], 0x22);
    EXPECT_EQ(userKey(acquire("abababababababababababababababab"), AT_SIGNATURE), 0u);
}

class KeyParameterTest : public CspTest {
protected:
    HCRYPTKEY addKeyOf(ALG_ID algorithm, std::uint32_t usage = 0) {
        auto record = std::make_unique<KEY_HANDLE>();
        record->algId = algorithm;
        record->keyUsage = usage;
        return addKey(std::move(record));
    }
    Answer set(HCRYPTKEY key, DWORD parameter, const void* data, DWORD flags = 0) {
        return run(CPSetKeyParam, provider, key, parameter, static_cast<const BYTE*>(data), flags);
    }

    const HCRYPTPROV provider = acquire();
};

TEST_F(KeyParameterTest, OnlyTheModeIsStoredAndEverythingElseSucceedsAllTheSame) {
    const HCRYPTKEY key = addKeyOf(CALG_RSA_SIGN);
    const DWORD value = 0xFFFFFFFF;
    for (const DWORD parameter : {KP_PADDING, KP_PERMISSIONS, KP_SALT, 99})
        for (const void* data : {static_cast<const void*>(&value), static_cast<const void*>(nullptr)})
            EXPECT_EQ(set(key, parameter, data, 5), accepted()) << parameter;
    EXPECT_EQ(keyParameter(provider, key, KP_PERMISSIONS), 12u);
    EXPECT_EQ(set(key, KP_MODE, nullptr), accepted());
    EXPECT_EQ(keyParameter(provider, key, KP_MODE), 0u);
    EXPECT_EQ(set(key, KP_MODE, &value), accepted());
    EXPECT_EQ(keyParameter(provider, key, KP_MODE), value);
    for (const DWORD usage : {0u, 1u, 2u, 3u, 4u})
        EXPECT_EQ(keyParameter(provider, addKeyOf(CALG_RSA_SIGN, usage), KP_PERMISSIONS), 12 + usage % 4);
}

TEST_F(KeyParameterTest, IvIsOneForTheProcessAndOnlyTwoTokenCodesSetIt) {
    const Bytes iv = counting(16, 0xA0);
    const auto ivBehind = [&](ALG_ID algorithm) {
        setProcessIv({});
        EXPECT_EQ(set(addKeyOf(algorithm), KP_IV, iv.data()), accepted());
        EXPECT_EQ(set(addKeyOf(algorithm), KP_IV, nullptr), accepted());
        return processIv();
    };
    EXPECT_EQ(ivBehind(10), iv);
    EXPECT_EQ(ivBehind(11), counting(8, 0xA0));
    for (const ALG_ID other : {ALG_ID{8}, ALG_ID{CALG_AES_128}, ALG_ID{CALG_AES_256}, ALG_ID{CALG_RSA_SIGN}})
        EXPECT_THAT(ivBehind(other), IsEmpty()) << other;
}

} // namespace
} // namespace veltra::test
