#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "token/key_pairs.h"

#include <climits>

namespace veltra::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr DWORD kRsa1 = 0x31415352;
constexpr DWORD kKdbm = 0x4D42444B;
const Bytes kThreeBytes = {3, 2, 1};

Bytes rsaBlob(DWORD bits, DWORD exponentLength, DWORD modulusLength, const Bytes& rest, DWORD magic = kRsa1) {
    return joined({dwords({magic, bits, exponentLength, modulusLength, 7, 7}), rest});
}

Bytes legacyBlob(DWORD bits, std::size_t modulusLength, DWORD magic = kRsa1) {
    return joined({dwords({0x0206, 0xA400, magic, bits, 0x010203}), counting(modulusLength)});
}

class KspKeyImportTest : public KspTest {
protected:
    KspKeyImportTest() : provider(openProvider()) {
        storePinOfToken();
        importKey = addKey(token.addKeyPair(0x11));
    }

    StatusAnswer import(const std::string& type, const Bytes& blob, NCRYPT_KEY_HANDLE key = 0) {
        Bytes exact(blob); // with nothing behind it, so that the sanitizer sees every byte too many
        exact.reserve(1);
        const auto size = static_cast<DWORD>(blob.size());
        NCRYPT_KEY_HANDLE imported = 0;
        library.clearCalls();
        const StatusAnswer answer = call([&] {
            return KSPImportKey(provider, key, wideText(type).data(), nullptr, &imported, exact.data(), size,
                                0);
        });
        record = LiveRecords<KSP_KEY>::take(imported);
        EXPECT_EQ(record != nullptr, answer == succeeded()) << "a refused import makes no key";
        return answer;
    }
    void expectBadData(const std::string& type, const Bytes& blob, const std::string& reason) {
        EXPECT_EQ(import(type, blob), failed(NTE_BAD_DATA, {"KSPImportKey: " + reason}));
        EXPECT_THAT(library.calls(), IsEmpty());
    }
    void expectPublicKey(std::uint32_t type, std::uint32_t usage, std::uint32_t bits,
                         const Bytes& key) const {
        EXPECT_EQ(std::tuple(record->keyType, record->keyUsage, record->bitLength, record->persisted),
                  std::tuple(type, usage, bits, true));
        EXPECT_EQ(toHex(record->publicKeyBytes()), toHex(key));
        EXPECT_EQ(record->symmetricKeyLength, 0u);
    }
    /// The last import stored these bytes, and the key object holds them too.
    void expectAesKey(const Bytes& key, int type) const {
        const std::string shown = toHex(Bytes(key.begin(), key.begin() + 2)) + ".." +
                                  toHex(Bytes(key.end() - 2, key.end())) + concat("(", key.size(), ")");
        EXPECT_THAT(library.calls("veltra_importAesKey"),
                    ElementsAre(concat("veltra_importAesKey(serial=", serial, ", pin=1234, key=", shown,
                                       ", type=", type, ")")));
        EXPECT_EQ(toHex(record->symmetricKeyBytes()), toHex(key));
        EXPECT_EQ(std::tuple(record->keyType, record->keyUsage, record->bitLength, record->persisted),
                  std::tuple(type, 3u, key.size() * 8, true));
        EXPECT_EQ(record->credentialIdLength, 0u);
    }

    const NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE importKey;
    std::shared_ptr<KSP_KEY> record; ///< what the last import made
};

TEST_F(KspKeyImportTest, ArgumentsInOrder) {
    NCRYPT_KEY_HANDLE key = 0;
    BYTE data = 0;
    const auto type = wideText("RSAPUBLICBLOB");
    const auto ask = [&](NCRYPT_PROV_HANDLE handle, LPCWSTR name, BYTE* bytes, NCRYPT_KEY_HANDLE* out,
                         DWORD length = 1) {
        return call([&] { return KSPImportKey(handle, 0, name, nullptr, out, bytes, length, 0); });
    };
    for (const NCRYPT_PROV_HANDLE bad : {NCRYPT_PROV_HANDLE{0}, NCRYPT_PROV_HANDLE{importKey}}) {
        EXPECT_EQ(ask(bad, nullptr, nullptr, nullptr),
                  failed(NTE_INVALID_HANDLE, {"KSPImportKey: provider handle is null or not initialized"}));
    }
    const StatusAnswer invalid = failed(NTE_INVALID_PARAMETER, {"KSPImportKey: invalid parameters"});
    EXPECT_EQ(ask(provider, nullptr, &data, &key), invalid);
    EXPECT_EQ(ask(provider, type.data(), nullptr, &key), invalid);
    EXPECT_EQ(ask(provider, type.data(), &data, nullptr), invalid);
    EXPECT_EQ(ask(provider, type.data(), &data, &key, INT_MAX + 1u).status, NTE_INVALID_PARAMETER);
    EXPECT_EQ(key, 0u);
    for (const char* name : {"", "rsapublicblob", "RSAPUBLICBLO", "RSAPRIVATEBLOB"}) {
        EXPECT_EQ(import(name, kThreeBytes),
                  failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported blob type for import"}));
    }
}

TEST_F(KspKeyImportTest, RsaPublicKeysLoseTheirExponent) {
    for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB"}) {
        for (const auto& [bits, type] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
            const Bytes modulus = counting(bits / 8, 0xC0);
            ASSERT_EQ(import(name, rsaBlob(bits, 3, bits / 8, joined({kThreeBytes, modulus, {0xEE}}))),
                      succeeded());
            expectPublicKey(type, 0, bits, modulus);
            EXPECT_EQ(record->credentialIdLength, 0u);
            EXPECT_EQ(debugLines.back(), concat("KSP: RSA public key imported, bits=", bits));
        }
        const std::string stem = "BCRYPT_RSAPUBLIC_BLOB ";
        expectBadData(name, Bytes(23), stem + "data too small");
        expectBadData(name, rsaBlob(2048, 3, 256, Bytes(259), 0x1ABC), stem + "invalid magic");
        const std::string noMaterial = stem + "data too small for key material";
        expectBadData(name, rsaBlob(2048, 3, 256, Bytes(258)), noMaterial);
        expectBadData(name, rsaBlob(2048, 0xFFFFFFF0, 0x10, {}), noMaterial);
        expectBadData(name, rsaBlob(2048, 0xFFFFFFE8, 0, {}), noMaterial);
        expectBadData(name, rsaBlob(2048, 3, 1025, Bytes(1028)), stem + "modulus too long");
        for (const DWORD bits : {0u, 1536u, 8192u}) {
            EXPECT_EQ(import(name, rsaBlob(bits, 3, 1024, Bytes(1027))),
                      failed(NTE_NOT_SUPPORTED, {concat("KSP: Unsupported RSA key size: ", bits)}));
        }
    }
    EXPECT_EQ(import("RSAPUBLICBLOB", rsaBlob(2048, 0, 1024, Bytes(1024))), succeeded()) << "fits";
}

TEST_F(KspKeyImportTest, EcPublicKeysNeedNotFitTheirCurve) {
    struct Row {
        DWORD magic, keyLength;
        std::uint32_t type, usage, bits;
    };
    for (const Row& row : {Row{0x314B4345, 32, 5, 2, 256},
                           {0x31534345, 32, 5, 1, 256},
                           {0x334B4345, 48, 6, 2, 384},
                           {0x33534345, 48, 6, 1, 384},
                           {0x354B4345, 66, 7, 2, 521},
                           {0x35534345, 66, 7, 1, 521},
                           {0x31534345, 48, 5, 1, 256},
                           {0x31534345, 511, 5, 1, 256}}) {
        const Bytes point = counting(2 * row.keyLength, 1);
        ASSERT_EQ(import("ECCPUBLICBLOB", joined({dwords({row.magic, row.keyLength}), point, {0xEE}})),
                  succeeded());
        expectPublicKey(row.type, row.usage, row.bits, joined({{4}, point}));
        EXPECT_EQ(record->credentialIdLength, 0u) << "no key of the token";
        EXPECT_EQ(debugLines.back(), concat("KSPImportKey: ECC public key imported, cbKey=", row.keyLength));
    }
    const std::string stem = "BCRYPT_ECCPUBLIC_BLOB ";
    const std::string noMaterial = stem + "data too small for key material";
    expectBadData("ECCPUBLICBLOB", Bytes(7), stem + "too small");
    expectBadData("ECCPUBLICBLOB", joined({dwords({0x31534345, 32}), Bytes(63)}), noMaterial);
    expectBadData("ECCPUBLICBLOB", dwords({0x31534345, 0x80000000}), noMaterial);
    expectBadData("ECCPUBLICBLOB", joined({dwords({0x31534345, 512}), Bytes(1024)}), stem + "point too long");
    expectBadData("ECCPUBLICBLOB", joined({dwords({0x32534345, 32}), Bytes(64)}), "unknown ECC blob magic");
}

TEST_F(KspKeyImportTest, LegacyPublicKeysClaimAnIdentifier) {
    for (const auto& [bits, type] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
        ASSERT_EQ(import("CAPIPUBLICBLOB", legacyBlob(bits, bits / 8 + 1)), succeeded());
        const Bytes modulus = counting(bits / 8);
        expectPublicKey(type, 0, bits, Bytes(modulus.rbegin(), modulus.rend()));
        EXPECT_EQ(record->credentialIdLength, 16u);
        EXPECT_EQ(keyName(record->credentialId), std::string(32, '0'));
        EXPECT_THAT(debugLines, ElementsAre("KSPImportKey", "KSP: Public exponent : 010203",
                                            "KSP: Legacy RSA public key imported successfully"));
    }
    const std::string stem = "LEGACY_RSAPUBLIC_BLOB ";
    expectBadData("CAPIPUBLICBLOB", Bytes(19), stem + "data too small for header");
    expectBadData("CAPIPUBLICBLOB", legacyBlob(1024, 128, 0x1ABC), stem + "invalid magic");
    for (const DWORD bits : {1024u, 0xFFFFFFFFu})
        expectBadData("CAPIPUBLICBLOB", legacyBlob(bits, 127), stem + "data too small for modulus");
    for (const DWORD bits : {0u, 1025u, 1536u, 16384u}) {
        EXPECT_EQ(import("CAPIPUBLICBLOB", legacyBlob(bits, 2048)),
                  failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported RSA key size"}));
    }
}

TEST_F(KspKeyImportTest, PlaintextKeysAreStoredAndHeld) {
    const auto blob = [](DWORD keyLength, const Bytes& key, DWORD magic = kKdbm) {
        return joined({dwords({magic, 9, keyLength}), key});
    };
    for (const auto& [length, type] : {std::pair{16u, 8}, {24u, 10}, {32u, 10}}) {
        ASSERT_EQ(import("KeyDataBlob", blob(length, counting(length + 1))), succeeded());
        expectAesKey(counting(length), type);
        EXPECT_EQ(debugLines.back(), "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)");
    }
    const std::string stem = "BCRYPT_KEY_DATA_BLOB ";
    expectBadData("KeyDataBlob", Bytes(11), stem + "data too small for header");
    expectBadData("KeyDataBlob", blob(16, Bytes(16), 1), stem + "invalid magic");
    for (const DWORD length : {17u, 0xFFFFFFF4u})
        expectBadData("KeyDataBlob", blob(length, Bytes(16)), stem + "data too small for key material");
    for (const DWORD length : {0u, 20u, 33u, 64u}) {
        EXPECT_EQ(import("KeyDataBlob", blob(length, Bytes(64))),
                  failed(NTE_NOT_SUPPORTED,
                         {concat("KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: ", length)}));
    }
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import("KeyDataBlob", blob(16, Bytes(16))),
              failed(NTE_BAD_TYPE, {"KSP: BCRYPT_KEY_DATA_BLOB import failed"}));
}

TEST_F(KspKeyImportTest, WrappedKeysAreTriedWithEveryAesKey) {
    token.addAesKey(0xC1, kKeyTypeAes128);
    token.addAesKey(0xC2, kKeyTypeAes192Or256).flag = 1;
    const auto wrapped = [](std::size_t length, unsigned char wrappingKey = 0xC2) {
        return ScriptedDeviceLibrary::maskOf(joined({{wrappingKey}, counting(length)}));
    };
    for (const auto& [length, type] : {std::pair{16u, 8}, {20u, 10}, {32u, 10}}) {
        ASSERT_EQ(import("OpaqueKeyBlob", wrapped(length)), succeeded());
        EXPECT_THAT(library.calls("veltra_decrypt_aes"), SizeIs(2));
        expectAesKey(counting(length), type);
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPImportKey",
                                concat("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = ", length + 1),
                                "KSP: Successfully unwrapped key with KEK: C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2C2",
                                "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully"));
    }
    for (const std::size_t length : {0u, 33u}) {
        EXPECT_EQ(import("OpaqueKeyBlob", wrapped(length)).status, NTE_BAD_DATA);
        EXPECT_THAT(library.calls("veltra_importAesKey"), IsEmpty());
    }
    EXPECT_EQ(import("OpaqueKeyBlob", wrapped(16, 0xC9)),
              failed(NTE_BAD_KEY, {"KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK"}));
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import("OpaqueKeyBlob", wrapped(16)),
              failed(NTE_BAD_TYPE, {"KSP: Import of unwrapped AES key failed"}));
}

TEST_F(KspKeyImportTest, UnknownTypesWithAnImportKeyAreEncryptedKeys) {
    liveKspKey(importKey)->recordFlag = true;
    const auto encrypted = [](std::size_t length) {
        return joined({Bytes(64 - length), ScriptedDeviceLibrary::maskOf(counting(length, 1))});
    };
    for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY", "whatever"}) {
        for (const auto& [length, type] : {std::pair{16u, 8}, {24u, 10}, {32u, 10}}) {
            ASSERT_EQ(import(name, encrypted(length), importKey), succeeded());
            EXPECT_THAT(library.calls("veltra_decrypt"), SizeIs(1));
            EXPECT_THAT(library.calls("veltra_decrypt")[0],
                        testing::MatchesRegex(".*, key=1111..1111, pin=1234, in=.*, flag=1.*"));
            expectAesKey(counting(length, 1), type);
            EXPECT_THAT(debugLines,
                        ElementsAre("KSPImportKey", "KSP: Input key id : 11111111111111111111111111111111",
                                    "KSP: Encrypted key imported successfully"));
        }
    }
    for (const NCRYPT_KEY_HANDLE bad : {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{provider}}) {
        for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY"}) {
            EXPECT_EQ(import(name, encrypted(16), bad),
                      failed(NTE_BAD_KEY, {"KSP: Encrypted key import requires import key handle"}));
        }
        EXPECT_EQ(import("whatever", encrypted(16), bad).status, NTE_NOT_SUPPORTED);
    }
    for (const unsigned length : {0u, 20u, 33u}) {
        EXPECT_EQ(import("whatever", encrypted(length), importKey),
                  failed(NTE_NOT_SUPPORTED, {concat("KSP: Unsupported decrypted key length: ", length)}));
    }
    EXPECT_EQ(import("whatever", {1, 2}, importKey),
              failed(NTE_BAD_DATA, {"KSP: Encrypted key decryption failed"}));
    library.script("veltra_importAesKey", {.result = 3});
    EXPECT_EQ(import("whatever", encrypted(16), importKey),
              failed(NTE_BAD_TYPE, {"KSP: BCRYPT_KEY_DATA_BLOB import failed"}));
}

} // namespace
} // namespace veltra::test
