#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"
#include "token/process_iv.h"

#include <cstring>

namespace veltra::test {
namespace {

const DWORD kBadKey = static_cast<DWORD>(NTE_BAD_KEY);
const DWORD kBadLen = static_cast<DWORD>(NTE_BAD_LEN);
const DWORD kNoKeys = 0x8009000D;
const DWORD kTokenFull = 0x80090023;
const std::string kWeakKey =
    "CPGenKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size below 112-bit "
    "security strength";

class GenKeyTest : public CspTest {
protected:
    GenKeyTest() : container(freshName("Container")), provider(acquire(container.c_str())) {
        storePinOfToken();
        library.clearCalls();
    }
    Answer generate(ALG_ID algorithm, DWORD bits, DWORD lowFlags = 0) {
        return run([&] { return CPGenKey(provider, algorithm, bits << 16 | lowFlags, &key); });
    }
    std::string generation(int type, int usage) const {
        return "veltra_generateKeyPair(serial=" + serial + ", pin=1234, type=" + std::to_string(type) +
               ", usage=" + std::to_string(usage) + ", label='')";
    }

    const std::string container;
    const HCRYPTPROV provider;
    HCRYPTKEY key = 0;
};

class UserKeyTest : public CspTest {
protected:
    Answer open(HCRYPTPROV provider, DWORD keySpec) {
        return run([&] { return CPGetUserKey(provider, keySpec, &key); });
    }
    static std::string notFound(DWORD keySpec, const std::string& container) {
        return "CPGetUserKey: requested key not found, dwKeySpec=" + std::to_string(keySpec) +
               " container=" + container + ", return FALSE";
    }

    HCRYPTKEY key = 0;
};

class KeyParameterTest : public CspTest {
protected:
    KeyParameterTest() : provider(acquire()) {}

    HCRYPTKEY addKeyOf(ALG_ID algorithm, std::uint32_t usage = 0) {
        auto record = std::make_unique<KEY_HANDLE>();
        record->algId = algorithm;
        record->keyUsage = usage;
        record->keyBits = 3072;
        record->mode = CRYPT_MODE_ECB;
        return addKey(std::move(record));
    }
    Answer get(HCRYPTKEY key, DWORD parameter, BYTE* data, DWORD& length) {
        return run([&] { return CPGetKeyParam(provider, key, parameter, data, &length, 0); });
    }
    Answer set(HCRYPTKEY key, DWORD parameter, const void* data, DWORD flags = 0) {
        return run(
            [&] { return CPSetKeyParam(provider, key, parameter, static_cast<const BYTE*>(data), flags); });
    }

    const HCRYPTPROV provider;
};

TEST_F(GenKeyTest, KindsAndLengths) {
    struct Row {
        ALG_ID requested;
        DWORD bits;
        ALG_ID algId;
        DWORD keyBits;
        int type, usage;
    };
    const Row kRows[] = {
        {CALG_RSA_SIGN, 0, CALG_RSA_SIGN, 2048, 2, 1},    {CALG_RSA_KEYX, 0, CALG_RSA_KEYX, 2048, 2, 2},
        {AT_SIGNATURE, 3072, CALG_RSA_SIGN, 3072, 3, 1},  {AT_KEYEXCHANGE, 4096, CALG_RSA_KEYX, 4096, 4, 2},
        {CALG_RSA_SIGN, 1025, CALG_RSA_SIGN, 1025, 2, 1},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.requested);
        library.clearCalls();
        EXPECT_EQ(generate(row.requested, row.bits, CRYPT_EXPORTABLE), accepted());
        EXPECT_THAT(library.calls("veltra_generateKeyPair"), ElementsAre(generation(row.type, row.usage)));
        EXPECT_THAT(debugLines, Contains(row.usage == 1 ? "rsa sign" : "key exhange"));
        EXPECT_THAT(debugLines, Contains("Key generated successfully, Algid=" + std::to_string(row.algId) +
                                         " bits=" + std::to_string(row.keyBits)));
        EXPECT_EQ(keyParameter(provider, key, KP_ALGID), row.algId);
        EXPECT_EQ(keyParameter(provider, key, KP_KEYLEN), row.keyBits);
        EXPECT_EQ(keyParameter(provider, key, KP_MODE), 0u) << "unlike a key that is opened: deliberate";
        EXPECT_TRUE(CPDestroyKey(provider, key));
    }
}

TEST_F(GenKeyTest, Refusals) {
    const auto generates = [&](ALG_ID algorithm, DWORD bits, DWORD lowFlags = 0) {
        return [=, this] { return CPGenKey(provider, algorithm, bits << 16 | lowFlags, &key); };
    };
    // Only an algorithm has a default length; a key specification has none: deliberate.
    expectRefused({{[&] { return CPGenKey(0, CALG_AES_256, 0, nullptr); }, ERROR_INVALID_PARAMETER,
                    "CPGenKey: phKey is NULL"},
                   {[&] { return CPGenKey(0, CALG_AES_256, 0, &key); }, NTE_BAD_UID, "Invalid CSP context"},
                   {generates(CALG_AES_256, 256), NTE_BAD_ALGID, "Unsupported algorithm26128"},
                   {generates(3, 0), NTE_BAD_ALGID, "Unsupported algorithm3"},
                   {generates(AT_SIGNATURE, 0), NTE_BAD_LEN, "Unsupported Length2"},
                   {generates(AT_KEYEXCHANGE, 0, 0xFFFF), NTE_BAD_LEN, "Unsupported Length1"}});
    EXPECT_THAT(library.calls(), IsEmpty());
    for (const DWORD bits : {1u, 512u, 1024u})
        expectRefused({{generates(CALG_RSA_SIGN, bits), NTE_BAD_LEN, kWeakKey}});
    EXPECT_EQ(library.calls(), std::vector(3, "veltra_getTokenInfo(serial=" + serial + ")"));
    library.script("veltra_generateKeyPair", {.result = 23});
    expectRefused({{generates(CALG_RSA_SIGN, 0), kTokenFull, "RSA Keypair Generation Failed, code=23"}});
    EXPECT_EQ(liveContext(provider)->keyName, container);
    EXPECT_FALSE(liveContext(provider)->signatureKey.filled());
    EXPECT_EQ(readContainerValue(container), "");

    forgetPin(serial);
    const HCRYPTPROV silent = acquire(nullptr, CRYPT_SILENT);
    EXPECT_EQ(run([&] { return CPGenKey(silent, AT_SIGNATURE, 1024u << 16, &key); }),
              refused(NTE_SILENT_CONTEXT,
                      {"ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false",
                       "CPGenKey: ensurePasswordValidated failed"}))
        << "the user is verified before the length is looked at";
    EXPECT_EQ(key, 0u);
}

TEST_F(GenKeyTest, KeysOfAContainerAreRememberedInOrderAndBecomeTheContextsKey) {
    EXPECT_EQ(generate(CALG_RSA_SIGN, 0), accepted());
    const std::string first(keyNameOf(token.keyPairs.at(0).keyId));
    const auto context = liveContext(provider);
    EXPECT_EQ(context->keyName, first);
    EXPECT_EQ(context->containerName, container);
    EXPECT_EQ(0, std::memcmp(context->signatureKey.keyId.data(), token.keyPairs[0].keyId, 16));
    EXPECT_EQ(0, std::memcmp(context->exchangeKey.keyId.data(), token.keyPairs[0].keyId, 16))
        << "both slots, whatever the usage";
    EXPECT_EQ(readContainerValue(container), first + std::string(1, '\0'));
    EXPECT_TRUE(CPDestroyKey(provider, key));

    EXPECT_EQ(generate(AT_KEYEXCHANGE, 3072), accepted());
    const std::string second(keyNameOf(token.keyPairs.at(1).keyId));
    EXPECT_EQ(context->keyName, second);
    EXPECT_EQ(readContainerValue(container), first + "," + second + std::string(1, '\0'));
    EXPECT_TRUE(CPDestroyKey(provider, key));
    EXPECT_EQ(liveContext(acquire(container.c_str()))->keyName, first)
        << "the first one is the container's key";
}

TEST_F(GenKeyTest, WhatTheRegistryHoldsOfAContainerIsNeverLost) {
    writeContainerValue(container, "ANOTHER,PROCESS");
    EXPECT_EQ(generate(CALG_RSA_SIGN, 0), accepted());
    const std::string first(keyNameOf(token.keyPairs.at(0).keyId));
    EXPECT_EQ(readContainerValue(container), "ANOTHER,PROCESS," + first + std::string(1, '\0'));
    EXPECT_TRUE(CPDestroyKey(provider, key));

    // With one more name the value would be longer than what is ever read back.
    const std::string full = std::string(900, 'F') + "," + first + "," + std::string(60, 'G');
    writeContainerValue(container, full);
    const Answer answer = generate(CALG_RSA_SIGN, 0);
    EXPECT_EQ(answer.result, TRUE);
    EXPECT_EQ(answer.errors.size(), 1u);
    EXPECT_EQ(readContainerValue(container), full);
    EXPECT_TRUE(CPDestroyKey(provider, key));

    const HCRYPTPROV unnamed = acquire();
    EXPECT_EQ(run([&] { return CPGenKey(unnamed, CALG_RSA_SIGN, 0, &key); }), accepted());
    EXPECT_EQ(liveContext(unnamed)->keyName, keyNameOf(token.keyPairs.back().keyId));
    EXPECT_EQ(readContainerValue(""), "") << "nothing is remembered without a name";
    EXPECT_TRUE(CPDestroyKey(unnamed, key));
}

TEST_F(UserKeyTest, Refusals) {
    const HCRYPTPROV provider = acquire("0");
    const auto opens = [&](HCRYPTPROV context, DWORD keySpec, HCRYPTKEY* out) {
        return [=] { return CPGetUserKey(context, keySpec, out); };
    };
    const std::string null = "CPGetUserKey: phUserKey or hProv is null";
    const std::string noKey = "CPDestroyKey: pKeyHandle is NULL";
    expectRefused(
        {{opens(provider, AT_SIGNATURE, nullptr), NTE_BAD_KEY, null},
         {opens(0, AT_SIGNATURE, &key), NTE_BAD_KEY, null},
         {opens(provider, AT_SIGNATURE, &key), kNoKeys, "CPGetUserKey: key list is empty"},
         {[&] { return CPDestroyKey(0, 0); }, NTE_BAD_UID, "CPDestroyKey: invalid or uninitialized context"},
         {[&] { return CPDestroyKey(provider, 0); }, NTE_BAD_KEY, noKey},
         {[&] { return CPDestroyKey(provider, provider); }, NTE_BAD_KEY, noKey}});
    token.addKeyPair(0x11);
    for (const DWORD keySpec : {AT_SIGNATURE, AT_KEYEXCHANGE}) // no fallback with a container
        expectRefused({{opens(provider, keySpec, &key), NTE_BAD_KEY, notFound(keySpec, "0")}});
    EXPECT_THAT(debugLines, Contains("CPGetUserKey -> dwKeySpec : 1"));
}

TEST_F(UserKeyTest, TypeDecidesWhatTheKeyReports) {
    struct Row {
        std::uint32_t type;
        DWORD bits;
        ALG_ID signature, exchange;
    };
    const Row kRows[] = {{1, 1024, CALG_RSA_SIGN, CALG_RSA_KEYX},
                         {2, 2048, CALG_RSA_SIGN, CALG_RSA_KEYX},
                         {3, 3072, CALG_RSA_SIGN, CALG_RSA_KEYX},
                         {4, 4096, CALG_RSA_SIGN, CALG_RSA_KEYX},
                         {5, 256, 0x2200, 0x2200},
                         {6, 384, 0x2200, 0x2200},
                         {7, 521, 0x2200, 0x2200}};
    for (const Row& row : kRows)
        token.addKeyPair(static_cast<unsigned char>(0x10 + row.type), row.type, 2);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.type);
        const HCRYPTPROV provider = acquire(keyNameOf(token.keyPairs.at(row.type - 1).keyId).c_str());
        // The usage of the key, here encryption, is not compared with the key specification.
        for (const auto& [keySpec, algId] :
             {std::pair{AT_SIGNATURE, row.signature}, {AT_KEYEXCHANGE, row.exchange}}) {
            const HCRYPTKEY opened = userKey(provider, static_cast<DWORD>(keySpec));
            EXPECT_EQ(keyParameter(provider, opened, KP_ALGID), algId);
            EXPECT_EQ(keyParameter(provider, opened, KP_KEYLEN), row.bits);
            EXPECT_EQ(keyParameter(provider, opened, KP_BLOCKLEN), row.bits);
            EXPECT_EQ(keyParameter(provider, opened, KP_MODE), 1u);
            EXPECT_EQ(keyParameter(provider, opened, KP_PERMISSIONS), 14u);
        }
    }
}

TEST_F(UserKeyTest, RecordIsFilledFromTheTokensPairAsFarAsItsLengthsArePossible) {
    VeltraKeyPair& pair = token.addKeyPair(0x11, kKeyTypeRsa4096, kUsageBoth);
    std::memset(pair.publicKey, 0x30, 550); // DER of a 4096-bit key
    pair.publicKeyLength = 550;
    pair.credentialIdLength = 128;
    std::memset(pair.label, 'L', sizeof pair.label); // nothing in it ends it
    pair.flag = 0x100;
    const Bytes publicKey(pair.publicKey, pair.publicKey + 550);
    token.addKeyPair(0x22).publicKeyLength = 1025;
    token.addKeyPair(0x33).credentialIdLength = 0xFFFFFFFF;
    const HCRYPTPROV provider = acquire(std::string(32, '1').c_str());
    const auto record = liveKey(userKey(provider, AT_SIGNATURE));
    const auto noPublicKey = liveKey(userKey(acquire(std::string(32, '2').c_str()), AT_SIGNATURE));
    const auto noCredential = liveKey(userKey(acquire(std::string(32, '3').c_str()), AT_SIGNATURE));
    ASSERT_TRUE(record && noPublicKey && noCredential);
    EXPECT_EQ(Bytes(record->publicKey, record->publicKey + record->publicKeyLength), publicKey);
    EXPECT_EQ(record->credentialIdLength, 128u);
    EXPECT_EQ(record->keyIdLength, 16u);
    EXPECT_EQ(std::string(record->label), std::string(128, 'L'));
    EXPECT_EQ(record->tokenFlag, 1);
    EXPECT_EQ(record->keyUsage, 3u);
    EXPECT_TRUE(liveContext(provider)->signatureKey.filled());
    EXPECT_FALSE(liveContext(provider)->exchangeKey.filled());
    EXPECT_EQ(noPublicKey->publicKeyLength, 0u);
    EXPECT_EQ(noPublicKey->credentialIdLength, 1u);
    EXPECT_EQ(noCredential->publicKeyLength, 256u);
    EXPECT_EQ(noCredential->credentialIdLength, 0u);
    EXPECT_THAT(takeLogLines(),
                Contains("ERROR Key pair " + std::string(32, '2') + " has an impossible public key length"));
}

TEST_F(UserKeyTest, WithoutAContainerOnlyTheExchangeKeyIsGivenOutUntilContainersWereEnumerated) {
    token.addKeyPair(0x11, kKeyTypeRsa2048, kUsageSign);
    token.addKeyPair(0x22, kKeyTypeRsa2048, kUsageEncrypt);
    const HCRYPTPROV provider = acquire();
    EXPECT_EQ(open(provider, AT_SIGNATURE), refused(kBadKey, {notFound(2, "")}));
    EXPECT_EQ(open(provider, 3), refused(kBadKey, {notFound(3, "")}));
    EXPECT_EQ(open(provider, AT_KEYEXCHANGE), accepted());
    EXPECT_THAT(debugLines, Contains("Key found (AT_KEYEXCHANGE, usage=1)"));
    EXPECT_EQ(keyParameter(provider, key, KP_ALGID), static_cast<DWORD>(CALG_RSA_KEYX));
    EXPECT_TRUE(CPDestroyKey(provider, key));

    const auto context = liveContext(provider);
    context->containersEnumerated = true;
    EXPECT_EQ(open(provider, AT_SIGNATURE), accepted());
    EXPECT_EQ(liveKey(key)->keyId[0], 0x11);
    EXPECT_TRUE(CPDestroyKey(provider, key));
    EXPECT_EQ(open(provider, 3), refused(kBadKey, {notFound(3, "")}));
}

TEST_F(UserKeyTest, FilledSlotKeepsItsKey) {
    token.addKeyPair(0x11);
    token.addKeyPair(0x22);
    const HCRYPTPROV provider = acquire(std::string(32, '2').c_str());
    const auto context = liveContext(provider);
    context->signatureKey.fill(token.keyPairs[0].keyId);
    EXPECT_NE(userKey(provider, AT_SIGNATURE), 0u);
    EXPECT_EQ(context->signatureKey.keyId[0], 0x11);
    EXPECT_NE(userKey(provider, AT_KEYEXCHANGE), 0u);
    EXPECT_EQ(context->exchangeKey.keyId[0], 0x22);
}

TEST_F(UserKeyTest, ContainerIsComparedAsTheNameItIsMappedToWithItsCase) {
    token.addKeyPair(0xAB);
    const HCRYPTPROV lower = acquire("abababababababababababababababab");
    EXPECT_EQ(open(lower, AT_SIGNATURE).lastError, kBadKey);
    const std::string mapped = freshName("Container");
    writeContainerValue(mapped, "ABABABABABABABABABABABABABABABAB");
    EXPECT_NE(userKey(acquire(mapped.c_str()), AT_SIGNATURE), 0u);
}

TEST_F(KeyParameterTest, HandlesAndParametersAreChecked) {
    BYTE data[4] = {};
    DWORD length = sizeof data;
    const auto gets = [&](HCRYPTPROV context, HCRYPTKEY key, DWORD parameter = KP_MODE) {
        return [=, &data, &length] { return CPGetKeyParam(context, key, parameter, data, &length, 0); };
    };
    const auto sets = [&](HCRYPTPROV context) {
        return [=, &data] { return CPSetKeyParam(context, 0, KP_MODE, data, 0); };
    };
    expectRefused({{gets(0, 0), NTE_BAD_UID, "CPGetKeyParam: context is null or not initialized"},
                   {gets(provider, 0), NTE_BAD_KEY, "CPGetKeyParam: key handle is null"},
                   {sets(0), NTE_BAD_UID, "CPSetKeyParam: context is null or not initialized"},
                   {sets(provider), NTE_BAD_KEY, "CPSetKeyParam: key handle is null"}});
    const HCRYPTKEY key = addKeyOf(CALG_RSA_SIGN);
    for (const DWORD parameter : {KP_IV, KP_SALT, KP_PADDING, 99})
        expectRefused({{gets(provider, key, parameter), NTE_BAD_TYPE,
                        concat("CPGetKeyParam: unsupported dwParam=", parameter, ", return FALSE")}});
}

TEST_F(KeyParameterTest, SizeProtocolInWhichOnlyTheModeTakesAZeroLengthForTooSmall) {
    const HCRYPTKEY key = addKeyOf(CALG_RSA_SIGN, kUsageSign);
    struct Row {
        DWORD parameter;
        std::string name;
        DWORD value;
    };
    const Row kRows[] = {{KP_MODE, "KP_MODE", CRYPT_MODE_ECB},
                         {KP_PERMISSIONS, "KP_PERMISSIONS", 13},
                         {KP_ALGID, "KP_ALGID", CALG_RSA_SIGN},
                         {KP_BLOCKLEN, "KP_BLOCKLEN/KP_KEYLEN", 3072},
                         {KP_KEYLEN, "KP_BLOCKLEN/KP_KEYLEN", 3072}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        BYTE data[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
        const std::string query = "CPGetKeyParam: " + row.name + " size query, return TRUE";
        const Answer tooSmall =
            refused(ERROR_MORE_DATA, {"CPGetKeyParam: " + row.name + " buffer too small, return FALSE"});
        DWORD length = 77;
        EXPECT_EQ(get(key, row.parameter, nullptr, length), accepted());
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(debugLines.back(), query);
        length = 0;
        const Answer zero = get(key, row.parameter, data, length);
        EXPECT_EQ(length, 4u);
        if (row.parameter == KP_MODE) {
            EXPECT_EQ(zero, tooSmall);
        } else {
            EXPECT_EQ(zero, accepted());
            EXPECT_EQ(debugLines.back(), query);
        }
        length = 3;
        EXPECT_EQ(get(key, row.parameter, data, length), tooSmall);
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(data[0], 0xEE);
        length = sizeof data;
        EXPECT_EQ(get(key, row.parameter, data, length), accepted());
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(data[4], 0xEE);
        EXPECT_EQ(debugLines.back(), "CPGetKeyParam: return TRUE");
        EXPECT_EQ(keyParameter(provider, key, row.parameter), row.value);
    }
}

TEST_F(KeyParameterTest, TraceOfTheKeyIdentifierHasItsLength) {
    DWORD length = 4;
    get(addKeyOf(CALG_RSA_SIGN), KP_ALGID, nullptr, length);
    EXPECT_THAT(debugLines, ElementsAre("CPGetKeyParam", "CPGetKeyParam - dwparam : 7",
                                        "CPGetKeyParam - key id : ", testing::_));
    token.addKeyPair(0xAB);
    const HCRYPTKEY key = userKey(acquire(), AT_KEYEXCHANGE);
    DWORD value = 0;
    length = sizeof value;
    get(key, KP_ALGID, reinterpret_cast<BYTE*>(&value), length);
    EXPECT_THAT(debugLines,
                ElementsAre("CPGetKeyParam", "CPGetKeyParam - dwparam : 7",
                            "CPGetKeyParam - key id : ABABABABABABABABABABABABABABABAB",
                            "CPGetKeyParam - copying alg id : 41984", "CPGetKeyParam: return TRUE"));
}

TEST_F(KeyParameterTest, OnlyTheModeIsStoredAndEverythingElseSucceedsAllTheSame) {
    const HCRYPTKEY key = addKeyOf(CALG_RSA_SIGN);
    const DWORD value = 0xFFFFFFFF;
    struct Row {
        DWORD parameter;
        const void* data;
        std::string line; // empty: none of its own
    };
    const Row kRows[] = {{KP_MODE, nullptr, ""},
                         {KP_MODE, &value, "CPSetKeyParam: KP_MODE = 4294967295"},
                         {KP_PADDING, &value, "CPSetKeyParam: KP_PADDING = 4294967295"},
                         {KP_PERMISSIONS, &value, "CPSetKeyParam: KP_PERMISSIONS = 4294967295"},
                         {KP_SALT, &value, "CPSetKeyParam: unhandled dwParam=2"},
                         {99, nullptr, "CPSetKeyParam: unhandled dwParam=99"}};
    for (const Row& row : kRows) {
        EXPECT_EQ(set(key, row.parameter, row.data, 5), accepted());
        std::vector<std::string> expected = {"CPSetKeyParam",
                                             "Set key param key id : 00000000000000000000000000000000",
                                             "Set key param  dwParam : " + std::to_string(row.parameter),
                                             "Set key param  dwFlags : 5", "Set key param key algo : 9216"};
        if (!row.line.empty()) expected.push_back(row.line);
        expected.emplace_back("CPSetKeyParam: return TRUE");
        EXPECT_EQ(debugLines, expected);
        EXPECT_EQ(keyParameter(provider, key, KP_PERMISSIONS), 12u);
    }
    EXPECT_EQ(keyParameter(provider, key, KP_MODE), value);
}

TEST_F(KeyParameterTest, IvIsOneForTheProcessAndOnlyTwoTokenCodesSetIt) {
    BYTE iv[16];
    for (BYTE i = 0; i < 16; ++i)
        iv[i] = static_cast<BYTE>(0xA0 + i);
    const auto setWith = [&](ALG_ID algorithm) {
        setProcessIv({});
        EXPECT_EQ(set(addKeyOf(algorithm), KP_IV, iv), accepted());
        return processIv();
    };
    EXPECT_EQ(setWith(10), Bytes(iv, iv + 16));
    EXPECT_EQ(setWith(11), Bytes(iv, iv + 8));
    for (const ALG_ID other : {ALG_ID{8}, ALG_ID{CALG_AES_128}, ALG_ID{CALG_AES_256}, ALG_ID{CALG_RSA_SIGN}})
        EXPECT_THAT(setWith(other), IsEmpty()) << other;
    EXPECT_EQ(set(addKeyOf(10), KP_IV, nullptr), accepted());

    for (const auto& [usage, permissions] : {std::pair{0u, 12u}, {1u, 13u}, {2u, 14u}, {3u, 15u}, {4u, 12u}})
        EXPECT_EQ(keyParameter(provider, addKeyOf(CALG_RSA_SIGN, usage), KP_PERMISSIONS), permissions);
}

} // namespace
} // namespace veltra::test
