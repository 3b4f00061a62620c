// Key objects of CryptoAPI, and what they are exported to and imported from.

#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "certs/public_key_encoding.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

const std::string kBadType = "8009000A\n", kBadData = "80090005\n", kBadAlgorithm = "80090008\n";
const std::string kNoObject = "/1/0/0 id=0000..(16) credential= label= secret=";
const std::string kStoredObject =
    concat("/0/1/3/1 id=AEAE..(16) credential=AE label=", kStoredLabel, " secret=");

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

Bytes blobOf(BYTE type, DWORD algorithm, const Bytes& rest, DWORD word = 0xFEFEFEFE) {
    return joined({{type, 9, 7, 7}, dwords({algorithm, word}), rest});
}

Bytes publicKeyBlob(DWORD bits, std::size_t modulusLength, DWORD magic = 0x31415352) {
    return blobOf(PUBLICKEYBLOB, 0, joined({dwords({bits, 0xFF000003}), counting(modulusLength)}), magic);
}

class CspKeysTest : public CspTest {
protected:
    CspKeysTest() { storePinOfToken(); }

    /// Generates a key. Returns its name.
    std::string generate(HCRYPTPROV context, ALG_ID algorithm, DWORD bits = 0) {
        HCRYPTKEY key = 0;
        answer = run(CPGenKey, context, algorithm, bits << 16 | CRYPT_EXPORTABLE, &key);
        record = liveKey(keep(key));
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
    /// What an import makes, or its code, and the error lines.
    std::string imported(const Bytes& blob, HCRYPTKEY decryptionKey = 0) {
        const Bytes exact(blob); // with nothing behind it, so that the sanitizer sees every byte too many
        const auto size = static_cast<DWORD>(exact.size());
        HCRYPTKEY key = 0;
        library.clearCalls();
        answer = run(CPImportKey, provider, exact.data(), size, decryptionKey, 0xF0, &key);
        record = liveKey(key);
        EXPECT_EQ(CPDestroyKey(provider, key), answer.result);
        std::string text = record ? textOf(*record) : toHex8(answer.lastError);
        for (const std::string& error : answer.errors)
            text += "\n" + error;
        return text;
    }
    std::string storing(const std::string& key, int type) const {
        return concat("veltra_importAesKey(serial=", serial, ", pin=1234, key=", key, ", type=", type, ")");
    }

    const std::string container = freshName("Container");
    const HCRYPTPROV provider = acquire(container.c_str());
    Answer answer;                      ///< of the last generation or import
    std::shared_ptr<KEY_HANDLE> record; ///< what it handed out
};

using KeyObjectTest = CspKeysTest;

TEST_F(KeyObjectTest, KindsAndLengthsOfNewKeys) {
    for (const auto& [requested, bits, algId, keyBits, type, usage] :
         {std::tuple{CALG_RSA_SIGN, 0u, CALG_RSA_SIGN, 2048, 2, 1},
          {CALG_RSA_KEYX, 0, CALG_RSA_KEYX, 2048, 2, 2},
          {CALG_RSA_KEYX, 1025, CALG_RSA_KEYX, 1025, 2, 2},
          {AT_SIGNATURE, 3072, CALG_RSA_SIGN, 3072, 3, 1},
          {AT_KEYEXCHANGE, 4096, CALG_RSA_KEYX, 4096, 4, 2}}) {
        generate(provider, requested, bits);
        ASSERT_EQ(answer, accepted());
        // Unlike a key that is opened it has mode 0, and not the token's flag: deliberate.
        EXPECT_THAT(textOf(*record),
                    testing::StartsWith(concat(algId, "/", keyBits, "/0/", usage, "/0 id=E")));
        EXPECT_THAT(library.calls("veltra_generateKeyPair").back(),
                    testing::EndsWith(concat("pin=1234, type=", type, ", usage=", usage, ", label='')")));
    }
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
    writeContainerValue(container, "ANOTHER,PROCESS");
    const std::string first = generate(provider, CALG_RSA_SIGN);
    EXPECT_EQ(readContainerValue(container), "ANOTHER,PROCESS," + first + '\0');
    // With one more name the value would be longer than what is ever read back.
    const std::string full = concat(std::string(900, 'F'), ",", first, ",", std::string(60, 'G'));
    writeContainerValue(container, full);
    const std::string second = generate(provider, CALG_RSA_SIGN);
    EXPECT_THAT(answer.errors, ElementsAre(concat("CPGenKey: container ", container, " is full, key ", second,
                                                  " is not recorded in it")));
    EXPECT_TRUE(answer.result);
    EXPECT_EQ(readContainerValue(container), full);
    const HCRYPTPROV unnamed = acquire();
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
    for (const DWORD usage : {0u, 1u, 2u, 3u, 4u}) {
        DWORD permissions = 0, size = sizeof permissions;
        const auto bytes = reinterpret_cast<BYTE*>(&permissions);
        EXPECT_TRUE(CPGetKeyParam(provider, addKeyOf(CALG_RSA_SIGN, usage), KP_PERMISSIONS, bytes, &size, 0));
        EXPECT_EQ(permissions, 12 + usage % 4);
    }
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

using KeyBlobTest = CspKeysTest;

TEST_F(KeyBlobTest, ExportHasTheTokensModulusReversed) {
    token.addKeyPair(0x11, kKeyTypeRsa3072);
    const HCRYPTKEY key = userKey(acquireKey('1'), AT_SIGNATURE);
    liveKey(key)->publicKey[0] = 0; // the pair on the token counts, not the key object
    const Bytes expected = joined({{PUBLICKEYBLOB, 2, 0, 0},
                                   dwords({CALG_RSA_SIGN, 0x31415352, 3072, 65537}),
                                   reversed(ScriptedDeviceLibrary::publicKeyOf(kKeyTypeRsa3072))});
    Bytes blob(expected.size());
    DWORD length = 0;
    const auto exports = [&](BYTE* data) {
        return run(CPExportKey, provider, key, 0xBAD, PUBLICKEYBLOB, 0xFFFFFFFF, data, &length);
    };
    EXPECT_EQ(exports(nullptr), (Answer{TRUE, ERROR_MORE_DATA, {"Emport public key more data required"}}))
        << "a question succeeds and leaves an error behind: deliberate";
    EXPECT_EQ(length, expected.size());
    length = 5000;
    EXPECT_EQ(exports(blob.data()), accepted(ERROR_SUCCESS));
    EXPECT_EQ(length, expected.size());
    EXPECT_EQ(blob, expected);
}

TEST_F(KeyBlobTest, TypesThatAreNotImported) {
    for (const BYTE type : Bytes{7, 10})
        EXPECT_EQ(imported(blobOf(type, 0x6610, {1, 2})), kBadType + "Key Block Not Implemented yet");
    for (const BYTE type : Bytes{0, 9, 255})
        EXPECT_EQ(imported(blobOf(type, 0x6610, {1, 2})),
                  concat(kBadType, "CPImportKey - Unsupported type : ", type));
}

TEST_F(KeyBlobTest, PublicKeysReportTheTokensCodeAsTheirAlgorithm) {
    for (const auto& [bits, code] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
        ASSERT_EQ(imported(publicKeyBlob(bits, bits / 8 + 3)),
                  concat(code, "/", bits, kNoObject)); // bytes beyond are ignored
        EXPECT_EQ(Bytes(record->publicKey, record->publicKey + record->publicKeyLength),
                  publicKeyToDer(toHex(reversed(counting(bits / 8))), "000003"));
    }
    const std::string start = kBadData + "CPImportKey PUBLICKEYBLOB: ",
                      mismatch = start + "size mismatch, cbDataLen=";
    EXPECT_EQ(imported(publicKeyBlob(2048, 256, 0x1ABC)), start + "magic mismatch, actual=0x00001ABC");
    EXPECT_EQ(imported(publicKeyBlob(2048, 255)), mismatch + "275 required=276");
    EXPECT_EQ(imported(publicKeyBlob(0xFFFFFFFF, 9)), mismatch + "29 required=536870931");
    EXPECT_EQ(imported(blobOf(PUBLICKEYBLOB, 0, Bytes(7))), mismatch + "19 required=20");
    for (const DWORD bits : {0u, 1536u, 2049u})
        EXPECT_EQ(imported(publicKeyBlob(bits, 256)), kBadData + "Unsupported RSA key size");
}

TEST_F(KeyBlobTest, SessionKeysAreDecryptedInEitherByteOrder) {
    token.addKeyPair(0x11).flag = 1;
    const HCRYPTKEY rsaKey = userKey(acquire(), AT_KEYEXCHANGE);
    const auto blobWith = [](std::size_t keyLength, DWORD algorithm) {
        const Bytes key = ScriptedDeviceLibrary::maskOf(Bytes(keyLength, 'S'));
        return blobOf(SIMPLEBLOB, algorithm, reversed(joined({Bytes(64 - keyLength), key})));
    };
    const std::string decryption =
        concat("veltra_decrypt(serial=", serial, ", key=1111..1111, pin=1234, in=0000..0909(64), flag=1)");
    for (const auto& [algorithm, keyLength, start] : {std::tuple{CALG_AES_128, 16, "8/128"},
                                                      {CALG_AES_192, 24, "10/192"},
                                                      {CALG_AES_256, 32, "10/256"}}) {
        Bytes blob = blobWith(keyLength, algorithm);
        const std::string made = start + kNoObject + toHex(Bytes(keyLength, 'S'));
        EXPECT_EQ(imported(blob, rsaKey), made);
        EXPECT_THAT(library.calls(), ElementsAre(decryption));
        std::reverse(blob.begin() + 12, blob.end());
        EXPECT_EQ(imported(blob, rsaKey), made + "\nSIMPLEBLOB decryption failed");
        EXPECT_EQ(library.calls().back(), decryption);
    }
    const Bytes blob = blobWith(24, CALG_3DES);
    for (const HCRYPTKEY bad : {HCRYPTKEY{0}, HCRYPTKEY{provider}})
        EXPECT_EQ(imported(blob, bad), kBadType + "SIMPLEBLOB requires public key handle");
    EXPECT_EQ(imported(blob, rsaKey), kBadAlgorithm + "Unsupported algorithm for SIMPLEBLOB: 26115");
    EXPECT_THAT(library.calls("veltra_decrypt"), SizeIs(1)) << "decrypted first";
    for (const std::size_t length : {0u, 33u})
        EXPECT_EQ(imported(blobWith(length, CALG_AES_256), rsaKey),
                  concat(kBadData, "SIMPLEBLOB session key has an impossible length: ", length));
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(imported(blob, rsaKey),
              "80090020\nSIMPLEBLOB decryption failed\nSIMPLEBLOB decryption failed (both orderings)");
}

TEST_F(KeyBlobTest, PlaintextKeysAreStoredOnTheToken) {
    const auto blobWith = [](std::size_t length, DWORD algorithm) {
        return blobOf(PLAINTEXTKEYBLOB, algorithm, Bytes(length, 'K'));
    };
    for (const auto& [algorithm, type] : {std::pair{0x660Eu, 8}, {0x660Fu, 10}, {0x6610u, 10}}) {
        EXPECT_EQ(imported(blobWith(24, algorithm)), concat(algorithm, kStoredObject));
        EXPECT_THAT(library.calls(), ElementsAre(storing("4B4B..4B4B(24)", type)));
    }
    EXPECT_EQ(imported(blobWith(16, CALG_RC4)),
              kBadAlgorithm + "Unsupported algorithm for PLAINTEXTKEYBLOB: 26625");
    EXPECT_EQ(imported(blobWith(33, CALG_AES_256)),
              kBadData + "PLAINTEXTKEYBLOB key is longer than 32 bytes");
    EXPECT_THAT(library.calls(), IsEmpty());
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(imported(blobWith(32, CALG_AES_256)), kBadType + "PLAINTEXTKEYBLOB import failed");
}

TEST_F(KeyBlobTest, WrappedKeysAreTriedWithEveryAesKeyAndLoseTheirLastFourBytes) {
    token.addAesKey(0xC1, kKeyTypeAes128);
    token.addAesKey(0xC2, 9);
    token.addAesKey(0xC2, kKeyTypeAes192Or256).flag = 1;
    token.addAesKey(0xC2, kKeyTypeAes128);
    const auto wrapped = [](std::size_t keyLength, DWORD algorithm = CALG_AES_256, BYTE wrappingKey = 0xC2) {
        const Bytes key = ScriptedDeviceLibrary::maskOf(joined({{wrappingKey}, Bytes(keyLength, 'W')}));
        return joined({{11, 2, 0, 0}, dwords({algorithm}), key, Bytes(4, 0xFE)});
    };
    for (const auto& [algorithm, type] : {std::pair{0x660Eu, 8}, {0x6610u, 10}, {0x6603u, 10}}) {
        token.aesKeys.resize(4); // without those that an import stored
        EXPECT_EQ(imported(wrapped(32, algorithm)), concat(algorithm, kStoredObject));
        const std::string input = "(16), in=980D..0D0D(33), flag=";
        EXPECT_THAT(library.calls(), ElementsAre("veltra_getAesKeyList(serial=" + serial + ")",
                                                 HasSubstr("key=C1C1..C1C1" + input + "0, iv=null(0))"),
                                                 HasSubstr("key=C2C2..C2C2" + input + "1, iv=null(0))"),
                                                 storing("5757..5757(32)", type)));
    }
    EXPECT_EQ(imported(wrapped(32, CALG_AES_256, 0xC9)),
              "80090003\nFailed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK");
    EXPECT_EQ(imported(wrapped(33)), kBadData + "SYMMETRICWRAPKEYBLOB key is empty or longer than 32 bytes");
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(imported(wrapped(32)), kBadType + "Import of unwrapped AES key failed");
}

} // namespace
} // namespace veltra::test
