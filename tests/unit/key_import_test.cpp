#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "certs/public_key_encoding.h"
#include "foundation/text.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

const DWORD kBadType = static_cast<DWORD>(NTE_BAD_TYPE);
const DWORD kBadData = static_cast<DWORD>(NTE_BAD_DATA);
const std::string kPublicKey = "CPImportKey PUBLICKEYBLOB: ";

Bytes blobOf(BYTE type, DWORD algorithm, const Bytes& rest, DWORD word = 0xFEFEFEFE) {
    return joined({{type, 9, 7, 7}, littleEndian(algorithm), littleEndian(word), rest});
}

Bytes publicKeyBlob(DWORD bits, std::size_t modulusLength, DWORD magic = 0x31415352, DWORD exponent = 65537) {
    return blobOf(PUBLICKEYBLOB, 0, joined({dwords({bits, exponent}), counting(modulusLength)}), magic);
}

class KeyImportTest : public CspTest {
protected:
    KeyImportTest() : provider(acquire()) { storePinOfToken(); }

    Answer import(const Bytes& blob, HCRYPTKEY decryptionKey = 0) {
        // A copy with nothing behind it, so that the sanitizer sees every byte too many.
        const Bytes exact(blob);
        const auto size = static_cast<DWORD>(exact.size());
        HCRYPTKEY key = 0;
        library.clearCalls();
        const Answer answer =
            run([&] { return CPImportKey(provider, exact.data(), size, decryptionKey, 0xF0, &key); });
        record = liveKey(key);
        EXPECT_EQ(CPDestroyKey(provider, key), answer.result);
        return answer;
    }
    std::string storing(const std::string& key, int type) const {
        return concat("veltra_importAesKey(serial=", serial, ", pin=1234, key=", key, ", type=", type, ")");
    }
    /// The parts of the last key object that every kind of import fills.
    void expectKey(ALG_ID algId, std::size_t bits, const std::string& id) const {
        EXPECT_EQ(record->algId, algId);
        EXPECT_EQ(record->keyBits, bits);
        EXPECT_EQ(keyNameOf(record->keyId), id);
        EXPECT_EQ(record->keyIdLength, 16u);
        EXPECT_EQ(record->mode, 1u);
    }
    void expectStoredKey(DWORD algId) const {
        expectKey(algId, 0, "AEAEAEAEAEAEAEAEAEAEAEAEAEAEAEAE");
        EXPECT_EQ(Bytes(record->credentialId, record->credentialId + record->credentialIdLength),
                  Bytes{0xAE});
        EXPECT_STREQ(record->label, kStoredLabel);
        EXPECT_EQ(record->keyUsage, 3u);
        EXPECT_EQ(record->tokenFlag, 1);
        EXPECT_EQ(record->symmetricKeyLength, 0u) << "its bytes stay on the token";
    }

    const HCRYPTPROV provider;
    const std::string noId = std::string(32, '0');
    std::shared_ptr<KEY_HANDLE> record; ///< what the last import made
};

TEST_F(KeyImportTest, ArgumentsLengthsAndTypes) {
    HCRYPTKEY key = 0;
    const BYTE byte = 0;
    expectRefused({{[&] { return CPImportKey(0, nullptr, 0, 0, 0, &key); }, ERROR_INVALID_PARAMETER,
                    "CPImportKey - Input data is null"},
                   {[&] { return CPImportKey(0, &byte, 12, 0, 0, &key); }, NTE_BAD_UID,
                    "CPImportKey - Contest null or not initialised"}});
    EXPECT_FALSE(run([&] { return CPImportKey(provider, &byte, INT_MAX + 1u, 0, 0, &key); }).result);
    const Answer empty = refused(0x80090027, {"CPImportKey - Input data to import is empty"});
    for (std::size_t length = 1; length < 12; ++length)
        EXPECT_EQ(import(Bytes(length)), empty);
    for (const unsigned number : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 255u}) {
        const auto type = static_cast<BYTE>(number);
        EXPECT_EQ(import(blobOf(type, 0x6610, {})), empty) << "whatever its type";
        if (type == 1 || type == 6 || type == 8 || type == 11) continue;
        EXPECT_EQ(
            import(blobOf(type, 0x6610, {1, 2})),
            refused(kBadType, {type == 7 || type == 10 ? "Key Block Not Implemented yet"
                                                       : concat("CPImportKey - Unsupported type : ", type)}));
    }
    EXPECT_THAT(debugLines,
                ElementsAre("CPImportKey", "Input length : 14", "Input flag : 240",
                            "CPImportKey - input type : 255", "CPImportKey - input version : 9",
                            "CPImportKey - input alg : 26128", "CPImportKey - input data length : 2"));
}

TEST_F(KeyImportTest, PublicKeysReportTheTokensCodeAsTheirAlgorithm) {
    for (const auto& [bits, code] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
        const Bytes blob = publicKeyBlob(bits, bits / 8 + 3); // bytes beyond are ignored
        ASSERT_EQ(import(blob), accepted());
        EXPECT_THAT(debugLines, Contains("Public exponent : 010001"));
        EXPECT_THAT(debugLines, Contains("PUBLICKEYBLOB imported successfully"));
        expectKey(code, bits, noId);
        const Bytes modulus(std::reverse_iterator(blob.end() - 3), std::reverse_iterator(blob.begin() + 20));
        EXPECT_EQ(Bytes(record->publicKey, record->publicKey + record->publicKeyLength),
                  publicKeyToDer(toHex(modulus), "010001"));
    }
    ASSERT_EQ(import(publicKeyBlob(1024, 128, 0x31415352, 0xFF000003)), accepted());
    EXPECT_EQ(toHex({record->publicKey + record->publicKeyLength - 5, 5}), "0203000003");

    const Bytes good = publicKeyBlob(2048, 256);
    struct Row {
        Bytes blob;
        std::string error;
    };
    for (const Row& row :
         {Row{publicKeyBlob(2048, 256, 0x1ABC), kPublicKey + "magic mismatch, actual=0x00001ABC"},
          {Bytes(good.begin(), good.end() - 1), kPublicKey + "size mismatch, cbDataLen=275 required=276"},
          {publicKeyBlob(0xFFFFFFFF, 9), kPublicKey + "size mismatch, cbDataLen=29 required=536870931"},
          {publicKeyBlob(1536, 256), "Unsupported RSA key size"},
          {publicKeyBlob(2049, 256), "Unsupported RSA key size"},
          {publicKeyBlob(0, 0), "Unsupported RSA key size"}})
        EXPECT_EQ(import(row.blob), refused(kBadData, {row.error}));
    for (long length = 13; length < 20; ++length)
        EXPECT_EQ(import(Bytes(good.begin(), good.begin() + length)).lastError, kBadData);
}

TEST_F(KeyImportTest, SessionKeysAreDecryptedInEitherByteOrder) {
    token.addKeyPair(0x11).flag = 1;
    const HCRYPTKEY decryptionKey = userKey(provider, AT_KEYEXCHANGE);
    const auto blobWith = [](std::size_t keyLength, int algorithm, bool bigEndian = false) {
        Bytes encrypted =
            joined({Bytes(64 - keyLength), ScriptedDeviceLibrary::maskOf(Bytes(keyLength, 'S'))});
        if (!bigEndian) std::ranges::reverse(encrypted);
        return blobOf(SIMPLEBLOB, static_cast<DWORD>(algorithm), encrypted);
    };
    struct Row {
        int algorithm;
        std::size_t keyLength;
        bool bigEndian;
        ALG_ID code;
    };
    for (const Row& row : {Row{CALG_AES_128, 16, false, 8},
                           {CALG_AES_192, 24, false, 10},
                           {CALG_AES_256, 32, false, 10},
                           {CALG_AES_256, 32, true, 10}}) {
        Answer expected = accepted();
        if (row.bigEndian) expected.errors = {"SIMPLEBLOB decryption failed"};
        ASSERT_EQ(import(blobWith(row.keyLength, row.algorithm, row.bigEndian), decryptionKey), expected);
        EXPECT_THAT(library.calls(), SizeIs(row.bigEndian ? 2u : 1u));
        EXPECT_EQ(library.calls().back(), "veltra_decrypt(serial=" + serial +
                                              ", key=1111..1111, pin=1234, in=0000..0909(64), flag=1)");
        expectKey(row.code, row.keyLength * 8, noId);
        EXPECT_EQ(record->symmetricKeyLength, row.keyLength);
        EXPECT_EQ(toHex({record->symmetricKey.data(), row.keyLength}), toHex(Bytes(row.keyLength, 'S')));
        EXPECT_EQ(record->keyUsage, 0u);
        EXPECT_THAT(debugLines, Contains("Input key id : 11111111111111111111111111111111"));
        EXPECT_THAT(debugLines, Contains("Output key id : " + noId));
        EXPECT_THAT(debugLines, Contains("SIMPLEBLOB imported successfully (AES)"));
    }
    const Bytes blob = blobWith(24, CALG_3DES);
    for (const HCRYPTKEY bad : {HCRYPTKEY{0}, HCRYPTKEY{provider}})
        EXPECT_EQ(import(blob, bad), refused(kBadType, {"SIMPLEBLOB requires public key handle"}));
    EXPECT_EQ(import(blob, decryptionKey),
              refused(NTE_BAD_ALGID, {"Unsupported algorithm for SIMPLEBLOB: 26115"}));
    EXPECT_THAT(library.calls("veltra_decrypt"), SizeIs(1)) << "decrypted first";
    for (const std::size_t length : {0u, 33u})
        EXPECT_EQ(import(blobWith(length, CALG_AES_256), decryptionKey).lastError, kBadData);
    library.script("veltra_decrypt", {.result = kDeviceSessionExpired});
    EXPECT_EQ(
        import(blob, decryptionKey),
        refused(NTE_FAIL, {"SIMPLEBLOB decryption failed", "SIMPLEBLOB decryption failed (both orderings)"}));
}

TEST_F(KeyImportTest, PlaintextKeysAreStoredOnTheToken) {
    for (const auto& [algorithm, type] : {std::pair{0x660Eu, 8}, {0x660Fu, 10}, {0x6610u, 10}}) {
        ASSERT_EQ(import(blobOf(PLAINTEXTKEYBLOB, algorithm, Bytes(24, 0x4B))), accepted());
        EXPECT_EQ(library.calls(), std::vector{storing("4B4B..4B4B(24)", type)});
        EXPECT_THAT(debugLines, Contains("PLAINTEXTKEYBLOB imported successfully (AES)"));
        expectStoredKey(algorithm);
    }
    EXPECT_EQ(import(blobOf(PLAINTEXTKEYBLOB, CALG_RC4, Bytes(16))),
              refused(NTE_BAD_ALGID, {"Unsupported algorithm for PLAINTEXTKEYBLOB: 26625"}));
    EXPECT_EQ(import(blobOf(PLAINTEXTKEYBLOB, CALG_AES_256, Bytes(33))).lastError, kBadData);
    EXPECT_THAT(library.calls(), SizeIs(0));
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import(blobOf(PLAINTEXTKEYBLOB, CALG_AES_256, Bytes(32))),
              refused(kBadType, {"PLAINTEXTKEYBLOB import failed"}));
}

TEST_F(KeyImportTest, WrappedKeysAreTriedWithEveryAesKeyAndLoseTheirLastFourBytes) {
    token.addAesKey(0xC1, kKeyTypeAes128);
    token.addAesKey(0xC2, 9);
    token.addAesKey(0xC2, kKeyTypeAes192Or256).flag = 1;
    token.addAesKey(0xC2, kKeyTypeAes128);
    const auto wrapped = [](std::size_t keyLength, DWORD algorithm, BYTE wrappingKey = 0xC2) {
        const Bytes key = ScriptedDeviceLibrary::maskOf(joined({{wrappingKey}, Bytes(keyLength, 'W')}));
        return joined({{11, 2, 0, 0}, littleEndian(algorithm), key, {0xFE, 0xFE, 0xFE, 0xFE}});
    };
    for (const auto& [algorithm, type] : {std::pair{0x660Eu, 8}, {0x6610u, 10}, {0x6603u, 10}}) {
        token.aesKeys.resize(4); // without those that an import stored
        ASSERT_EQ(import(wrapped(32, algorithm)), accepted());
        const std::string attempt = "veltra_decrypt_aes(serial=" + serial + ", key=";
        const std::string input = "(16), in=980D..0D0D(33), flag=";
        EXPECT_THAT(library.calls(), ElementsAre("veltra_getAesKeyList(serial=" + serial + ")",
                                                 attempt + "C1C1..C1C1" + input + "0, iv=null(0))",
                                                 attempt + "C2C2..C2C2" + input + "1, iv=null(0))",
                                                 storing("5757..5757(32)", type)));
        EXPECT_THAT(debugLines, Contains("SYMMETRICWRAPKEYBLOB: wrapped key length = 33"));
        EXPECT_THAT(debugLines,
                    Contains("Successfully unwrapped key with KEK: C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2"));
        EXPECT_THAT(debugLines, Contains("SYMMETRICWRAPKEYBLOB imported successfully"));
        expectStoredKey(algorithm);
    }
    const Answer noKey =
        refused(NTE_BAD_KEY, {"Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK"});
    EXPECT_EQ(import(wrapped(32, CALG_AES_256, 0xC9)), noKey);
    EXPECT_EQ(import(wrapped(33, CALG_AES_256)).lastError, kBadData);
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import(wrapped(32, CALG_AES_256)), refused(kBadType, {"Import of unwrapped AES key failed"}));
    token.aesKeys.clear();
    EXPECT_EQ(import(wrapped(32, CALG_AES_256)), noKey);
}

} // namespace
} // namespace veltra::test
