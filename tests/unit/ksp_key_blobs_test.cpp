#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "certs/public_key_encoding.h"
#include "foundation/secret.h"
#include "foundation/text.h"
#include "token/aes_keys.h"

#include <algorithm>

namespace veltra::test {
namespace {

const std::string kRsa = "BCRYPT_RSAPUBLIC_BLOB ", kEcc = "BCRYPT_ECCPUBLIC_BLOB ";
const std::string kLegacy = "LEGACY_RSAPUBLIC_BLOB ", kData = "BCRYPT_KEY_DATA_BLOB ";
const std::string kNoMaterial = "data too small for key material";

Bytes rsaBlob(DWORD bits, DWORD exponentLength, DWORD modulusLength, const Bytes& rest) {
    return joined({dwords({0x31415352, bits, exponentLength, modulusLength, 7, 7}), rest});
}

Bytes legacyBlob(DWORD bits, std::size_t modulusLength, DWORD magic = 0x31415352) {
    return joined({dwords({0x0206, 0xA400, magic, bits, 0x010203}), counting(modulusLength, 1)});
}

Bytes keyDataBlob(DWORD keyLength, const Bytes& key) {
    return joined({dwords({0x4D42444B, 9, keyLength}), key});
}

class KspKeyBlobTest : public KspTest {
protected:
    KspKeyBlobTest() { storePinOfToken(); }
    ~KspKeyBlobTest() override { KSPFreeKey(0, imported); }

    StatusAnswer import(const std::string& type, const Bytes& blob, NCRYPT_KEY_HANDLE key = 0) {
        Bytes exact(blob); // with nothing behind it, so that the sanitizer sees every byte too many
        exact.reserve(1);
        KSPFreeKey(0, std::exchange(imported, 0));
        library.clearCalls();
        const StatusAnswer answer = call(KSPImportKey, provider, key, wideText(type).data(), nullptr,
                                         &imported, exact.data(), static_cast<DWORD>(blob.size()), 0);
        record = liveKspKey(imported);
        EXPECT_EQ(record != nullptr, answer == succeeded()) << "a refused import makes no key";
        return answer;
    }
    StatusAnswer ask(NCRYPT_KEY_HANDLE key, const std::string& type, BYTE* out = nullptr,
                     DWORD capacity = 0) {
        return call(KSPExportKey, provider, key, 0, wideText(type).data(), nullptr, out, capacity, &size, 0);
    }
    /// The blob in hexadecimal.
    std::string exported(NCRYPT_KEY_HANDLE key, const std::string& type) {
        const std::string name = type == "ECCPUBLICBLOB"    ? "BCRYPT_ECCPUBLIC_BLOB"
                                 : type == "CAPIPUBLICBLOB" ? "LEGACY_RSAPUBLIC_BLOB output"
                                                            : "BCRYPT_RSAPUBLIC_BLOB output";
        return toHex(answered([&](BYTE* out, DWORD capacity) { return ask(key, type, out, capacity); },
                              "KSPExportKey: " + name + " buffer too small, required="));
    }
    /// Imports a blob, and exports `exportedBlob`.
    void expectPublicKey(const std::string& type, const Bytes& blob, const std::array<std::uint32_t, 3>& kind,
                         const Bytes& key, const std::string& line, const Bytes& exportedBlob) {
        ASSERT_EQ(import(type, joined({blob, {0xEE}})), succeeded()) << "bytes behind the key are ignored";
        EXPECT_EQ((std::array{record->keyType, record->keyUsage, record->bitLength}), kind);
        EXPECT_EQ(toHex(record->publicKeyBytes()), toHex(key));
        EXPECT_TRUE(record->persisted && !record->isSymmetric());
        EXPECT_EQ(debugLines.back(), line);
        EXPECT_EQ(exported(imported, type), toHex(exportedBlob));
    }
    /// Imports an AES key, which goes to the token and stays in the key object.
    void expectAesKey(const std::string& type, const Bytes& blob, std::size_t length,
                      const std::vector<std::string>& lines) {
        ASSERT_EQ(import(type, blob, importKey), succeeded());
        const unsigned code = length == 16 ? 8 : 10;
        const Bytes last = {static_cast<BYTE>(length - 1), static_cast<BYTE>(length)};
        EXPECT_EQ(library.calls().back(),
                  concat("veltra_importAesKey(serial=", serial, ", pin=1234, key=0102..", toHex(last), "(",
                         length, "), type=", code, ")"));
        EXPECT_EQ(toHex(record->symmetricKeyBytes()), toHex(counting(length, 1)));
        EXPECT_EQ((std::array{record->keyType, record->keyUsage, record->credentialIdLength}),
                  (std::array{code, 3u, 0u}));
        EXPECT_TRUE(record->persisted);
        EXPECT_EQ(record->bitLength, length * 8);
        EXPECT_EQ(std::vector(debugLines.begin() + 1, debugLines.end()), lines);
    }

    const NCRYPT_KEY_HANDLE importKey = addKey(token.addKeyPair(0x11));
    NCRYPT_KEY_HANDLE imported = 0;  ///< what the last import made
    std::shared_ptr<KSP_KEY> record; ///< behind it
};

// An exported exponent is always 65537, and an imported legacy key claims an identifier.
TEST_F(KspKeyBlobTest, RsaKeysLoseTheirExponent) {
    for (const auto& [bits, type] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
        const Bytes modulus = counting(bits / 8, 1), reversed(modulus.rbegin(), modulus.rend());
        const Bytes blob = joined({dwords({0x31415352, bits, 3, bits / 8, 0, 0}), {1, 0, 1}, modulus});
        for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB"}) {
            expectPublicKey(name, rsaBlob(bits, 3, bits / 8, joined({{3, 2, 1}, modulus})), {type, 0, bits},
                            modulus, concat("KSP: RSA public key imported, bits=", bits), blob);
            EXPECT_EQ(debugLines.back(), concat("KSP: Public key exported, bits=", bits));
            EXPECT_EQ(record->credentialIdLength, 0u);
            record->setPublicKey(publicKeyToDer(toHex(modulus), "010001"));
            EXPECT_EQ(exported(imported, name), toHex(blob)) << "of a key that is stored as DER";
        }
        expectPublicKey("CAPIPUBLICBLOB", legacyBlob(bits, bits / 8), {type, 0, bits}, reversed,
                        "KSP: Legacy RSA public key imported successfully",
                        joined({dwords({0x0206, CALG_RSA_KEYX, 0x31415352, bits, 65537}), modulus}));
        EXPECT_EQ(record->credentialIdLength, 16u);
    }
    EXPECT_EQ(import("CAPIPUBLICBLOB", legacyBlob(1024, 128)), succeeded());
    EXPECT_EQ(debugLines[1], "KSP: Public exponent : 010203");
    EXPECT_EQ(import("PUBLICBLOB", rsaBlob(2048, 0, 1024, Bytes(1024))), succeeded()) << "fits";
    record->setPublicKey(Bytes{0x30, 0x05, 0x01}); // begins as DER does, and is none
    EXPECT_EQ(exported(imported, "PUBLICBLOB"),
              toHex(dwords({0x31415352, 2048, 3, 3, 0, 0})) + "010001300501");
    EXPECT_EQ(exported(imported, "CAPIPUBLICBLOB"),
              toHex(dwords({0x0206, 0xA400, 0x31415352, 24, 65537})) + "010530");
}

TEST_F(KspKeyBlobTest, EcKeysNeedNotFitTheirCurve) {
    const std::string name = "ECCPUBLICBLOB";
    struct Row {
        DWORD magic, keyLength;
        std::array<std::uint32_t, 3> kind;
    };
    for (const Row& row : {Row{0x314B4345, 32, {5, 2, 256}},
                           {0x31534345, 32, {5, 1, 256}},
                           {0x334B4345, 48, {6, 2, 384}},
                           {0x33534345, 48, {6, 1, 384}},
                           {0x354B4345, 66, {7, 2, 521}},
                           {0x35534345, 66, {7, 1, 521}},
                           {0x31534345, 48, {5, 1, 256}},
                           {0x31534345, 511, {5, 1, 256}}}) {
        const Bytes point = counting(2 * row.keyLength, 1);
        const Bytes blob = joined({dwords({row.magic, row.keyLength}), point});
        expectPublicKey(name, blob, row.kind, joined({{4}, point}),
                        concat("KSPImportKey: ECC public key imported, cbKey=", row.keyLength), blob);
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPExportKey", "Enter to the BCRYPT_ECCPUBLIC_BLOB",
                                concat("KSPExportKey: ECC public key exported, cbKey=", row.keyLength)));
        EXPECT_EQ(record->credentialIdLength, 0u) << "no key of the token";
        if (record->keyUsage != kUsageSign) continue;
        record->keyUsage = kUsageBoth;
        EXPECT_EQ(exported(imported, name), toHex(blob));
    }
    record->setPublicKey(Bytes{4, 1, 2, 3}); // half a byte too many
    EXPECT_EQ(exported(imported, name), toHex(dwords({0x31534345, 1})) + "0102");
    record->publicKey[0] = 2;
    EXPECT_EQ(ask(imported, name),
              failed(NTE_BAD_KEY, {"KSPExportKey: ECC public key not available or invalid format"}));
    EXPECT_EQ(ask(importKey, name), failed(NTE_NOT_SUPPORTED, {"KSPExportKey: key is not ECC"}));
}

TEST_F(KspKeyBlobTest, MissingPublicKeyComesFromTheToken) {
    const std::string type = "ECCPUBLICBLOB";
    const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x32, kKeyTypeEcP256));
    const std::string expected = exported(key, type);
    EXPECT_THAT(library.calls("veltra_getKeyPairList"), IsEmpty());
    liveKspKey(key)->publicKeyLength = 0;
    EXPECT_EQ(exported(key, type), expected);
    liveKspKey(key)->publicKeyLength = 0;
    token.keyPairs[1].keyId[15] ^= 1;
    const StatusAnswer none = failed(NTE_BAD_KEY, {"KSP: No public key data available for export"});
    for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB", "CAPIPUBLICBLOB", "ECCPUBLICBLOB"})
        EXPECT_EQ(ask(key, name), none);
    std::ranges::fill(token.keyPairs[0].keyId, 0);
    EXPECT_EQ(ask(addKey(std::make_unique<KSP_KEY>()), "PUBLICBLOB"), none) << "no identifier";
    for (const char* name : {"PRIVATEBLOB", "CAPIPRIVATEBLOB"}) {
        EXPECT_EQ(ask(importKey, name),
                  failed(NTE_NOT_SUPPORTED, {"KSPExportKey: private key export not supported"}));
    }
    for (const char* name : {"", "RSAPRIVATEBLOB", "KeyDataBlob", "publicblob"})
        EXPECT_EQ(ask(importKey, name), failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported blob type for export"}));
}

TEST_F(KspKeyBlobTest, AesKeysAreStoredAndHeld) {
    token.addAesKey(0xC1, kKeyTypeAes128);
    token.addAesKey(0xC2, kKeyTypeAes192Or256);
    liveKspKey(importKey)->recordFlag = true;
    for (const std::size_t length : {16u, 24u, 32u, 20u}) {
        const Bytes key = counting(length, 1);
        expectAesKey("OpaqueKeyBlob", ScriptedDeviceLibrary::maskOf(joined({{0xC2}, key})), length,
                     {concat("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = ", length + 1),
                      "KSP: Successfully unwrapped key with KEK: C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2",
                      "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully"});
        if (length == 20) continue; // only wrapped keys may have any length
        expectAesKey("KeyDataBlob", keyDataBlob(static_cast<DWORD>(length), joined({key, {0xEE}})), length,
                     {"KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)"});
        for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY", "a type that nobody knows"}) {
            expectAesKey(name, joined({{0}, ScriptedDeviceLibrary::maskOf(key)}), length,
                         {"KSP: Input key id : 11111111111111111111111111111111",
                          "KSP: Encrypted key imported successfully"});
            EXPECT_THAT(library.calls()[0],
                        testing::MatchesRegex(".*, key=1111..1111, pin=1234, in=005B.*, flag=1.*"));
        }
    }
}

// What an imported key goes to the token in, and a buffer that is used again; the lifecycle tests look for
// secrets in the whole process.
TEST(SecretTypesTest, LeaveOnlyZeros) {
    alignas(SymmetricKeyRecord) static unsigned char memory[sizeof(SymmetricKeyRecord)];
    const volatile unsigned char* const bytes = memory;
    auto* const record = new (memory) SymmetricKeyRecord;
    ASSERT_TRUE(record->setMaterial(Bytes(32, 'S')));
    EXPECT_THAT(Bytes(bytes, bytes + sizeof memory), Contains('S'));
    record->~SymmetricKeyRecord();
    EXPECT_THAT(Bytes(bytes, bytes + sizeof memory), testing::Each(0));
    SecretBuffer buffer;
    buffer.allocate(40);
    std::fill_n(buffer.data(), 40, static_cast<unsigned char>('S'));
    buffer.allocate(10); // in the same memory
    EXPECT_THAT(Bytes(buffer.data(), buffer.data() + 40), testing::Each(0));
}

TEST_F(KspKeyBlobTest, WrappedKeysAreTriedWithEachListedKeyInOrder) {
    token.addAesKey(0xC1, kKeyTypeAes128);
    token.addAesKey(0xC2, 9).flag = 1; // not of an AES key's type
    token.addAesKey(0xC2, kKeyTypeAes128);
    ASSERT_EQ(import("OpaqueKeyBlob", ScriptedDeviceLibrary::maskOf(joined({{0xC2}, counting(16)}))),
              succeeded());
    const std::string attempt = "veltra_decrypt_aes(serial=" + serial + ", key=";
    const std::string input = "(16), in=985A..5455(17), flag=";
    EXPECT_THAT(library.calls("veltra_decrypt_aes"),
                ElementsAre(attempt + "C1C1..C1C1" + input + "0, iv=null(0))",
                            attempt + "C2C2..C2C2" + input + "1, iv=null(0))"));
}

TEST_F(KspKeyBlobTest, BadBlobs) {
    struct Row {
        const char* type;
        Bytes blob;
        std::string reason;
    };
    for (const Row& row : {
             Row{"PUBLICBLOB", Bytes(23), kRsa + "data too small"},
             {"RSAPUBLICBLOB", Bytes(24), kRsa + "invalid magic"},
             {"RSAPUBLICBLOB", rsaBlob(2048, 3, 256, Bytes(258)), kRsa + kNoMaterial},
             {"RSAPUBLICBLOB", rsaBlob(2048, 0xFFFFFFF0, 0x10, {}), kRsa + kNoMaterial},
             {"RSAPUBLICBLOB", rsaBlob(2048, 0xFFFFFFE8, 0, {}), kRsa + kNoMaterial},
             {"RSAPUBLICBLOB", rsaBlob(2048, 3, 1025, Bytes(1028)), kRsa + "modulus too long"},
             {"ECCPUBLICBLOB", Bytes(7), kEcc + "too small"},
             {"ECCPUBLICBLOB", joined({dwords({0x31534345, 32}), Bytes(63)}), kEcc + kNoMaterial},
             {"ECCPUBLICBLOB", dwords({0x31534345, 0x80000000}), kEcc + kNoMaterial},
             {"ECCPUBLICBLOB", joined({dwords({0x31534345, 512}), Bytes(1024)}), kEcc + "point too long"},
             {"ECCPUBLICBLOB", joined({dwords({0x32534345, 32}), Bytes(64)}), "unknown ECC blob magic"},
             {"CAPIPUBLICBLOB", Bytes(19), kLegacy + "data too small for header"},
             {"CAPIPUBLICBLOB", legacyBlob(1024, 128, 1), kLegacy + "invalid magic"},
             {"CAPIPUBLICBLOB", legacyBlob(1024, 127), kLegacy + "data too small for modulus"},
             {"CAPIPUBLICBLOB", legacyBlob(0xFFFFFFFF, 127), kLegacy + "data too small for modulus"},
             {"KeyDataBlob", Bytes(11), kData + "data too small for header"},
             {"KeyDataBlob", Bytes(12), kData + "invalid magic"},
             {"KeyDataBlob", keyDataBlob(17, Bytes(16)), kData + kNoMaterial},
             {"KeyDataBlob", keyDataBlob(0xFFFFFFF4, Bytes(16)), kData + kNoMaterial},
         }) {
        EXPECT_EQ(import(row.type, row.blob), failed(NTE_BAD_DATA, {"KSPImportKey: " + row.reason}));
        EXPECT_THAT(library.calls(), IsEmpty());
    }
}

TEST_F(KspKeyBlobTest, UnsupportedTypesAndSizes) {
    const auto unsupported = [](const std::string& text) { return failed(NTE_NOT_SUPPORTED, {text}); };
    for (const char* name : {"", "rsapublicblob", "RSAPUBLICBLO", "RSAPRIVATEBLOB"})
        EXPECT_EQ(import(name, {1}, provider), unsupported("KSP: Unsupported blob type for import"));
    for (const DWORD bits : {0u, 1025u, 1536u, 16384u}) {
        EXPECT_EQ(import("PUBLICBLOB", rsaBlob(bits, 3, 1024, Bytes(1027))),
                  unsupported(concat("KSP: Unsupported RSA key size: ", bits)));
        EXPECT_EQ(import("CAPIPUBLICBLOB", legacyBlob(bits, 2048)),
                  unsupported("KSP: Unsupported RSA key size"));
    }
    for (const DWORD length : {0u, 20u, 33u, 64u}) {
        EXPECT_EQ(import("KeyDataBlob", keyDataBlob(length, Bytes(64))),
                  unsupported(concat("KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: ", length)));
        EXPECT_EQ(import("?", joined({{0}, Bytes(length, 1)}), importKey),
                  unsupported(concat("KSP: Unsupported decrypted key length: ", length)));
    }
}

TEST_F(KspKeyBlobTest, WhatTheTokenRefuses) {
    token.addAesKey(0xC2, kKeyTypeAes128);
    const auto wrapped = [](std::size_t length) {
        return ScriptedDeviceLibrary::maskOf(joined({{0xC2}, Bytes(length)}));
    };
    for (const std::size_t length : {0u, 33u}) {
        EXPECT_EQ(import("OpaqueKeyBlob", wrapped(length)).status, NTE_BAD_DATA);
        EXPECT_THAT(library.calls("veltra_importAesKey"), IsEmpty());
    }
    EXPECT_EQ(import("OpaqueKeyBlob", Bytes(17)),
              failed(NTE_BAD_KEY, {"KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK"}));
    for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY"}) {
        EXPECT_EQ(import(name, Bytes(17), provider),
                  failed(NTE_BAD_KEY, {"KSP: Encrypted key import requires import key handle"}));
    }
    EXPECT_EQ(import("?", {1, 2}, importKey), failed(NTE_BAD_DATA, {"KSP: Encrypted key decryption failed"}));
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import("OpaqueKeyBlob", wrapped(16)),
              failed(NTE_BAD_TYPE, {"KSP: Import of unwrapped AES key failed"}));
    const StatusAnswer notStored = failed(NTE_BAD_TYPE, {"KSP: BCRYPT_KEY_DATA_BLOB import failed"});
    EXPECT_EQ(import("KeyDataBlob", keyDataBlob(16, Bytes(16))), notStored);
    EXPECT_EQ(import("?", joined({{0}, Bytes(16, 1)}), importKey), notStored);
}

} // namespace
} // namespace veltra::test
