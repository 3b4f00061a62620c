#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "certs/public_key_encoding.h"
#include "foundation/secret.h"
#include "foundation/text.h"
#include "token/aes_keys.h"

#include <algorithm>

namespace veltra::test {
namespace {

using Numbers = std::array<std::uint32_t, 4>;

constexpr DWORD kRsa1 = 0x31415352, kEcs1 = 0x31534345, kKdbm = 0x4D42444B; // magics

/// What begins with these numbers.
Bytes blobOf(std::initializer_list<DWORD> numbers, const Bytes& rest = {}) {
    return joined({dwords(numbers), rest});
}

/// Wrapped by the last AES key of the token.
Bytes wrapped(const Bytes& key) {
    return ScriptedDeviceLibrary::maskOf(joined({{0xC2}, key}));
}

class KspKeyBlobTest : public KspTest {
protected:
    KspKeyBlobTest() {
        storePinOfToken();
        liveKspKey(importKey)->recordFlag = true;
        token.addAesKey(0xC1, kKeyTypeAes128);
        token.addAesKey(0xC2, 9).flag = 1; // of another type than AES keys
    }

    StatusAnswer import(const std::string& type, const Bytes& blob, NCRYPT_KEY_HANDLE key = 0) {
        Bytes exact(blob); // with nothing behind it, so that the sanitizer sees every byte too many
        exact.reserve(1);
        imported = 0;
        library.clearCalls();
        const StatusAnswer answer = call(KSPImportKey, provider, key, wideText(type).data(), nullptr,
                                         &imported, exact.data(), static_cast<DWORD>(blob.size()), 0);
        record = liveKspKey(keep(imported));
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
    /// Type, usage, bits and the identifier's length of what was imported.
    Numbers numbers() const {
        EXPECT_TRUE(record->persisted);
        return {record->keyType, record->keyUsage, record->bitLength, record->credentialIdLength};
    }
    /// Imports a blob, and exports `exportedBlob`.
    void expectPublicKey(const std::string& type, const Bytes& blob, const Numbers& expected,
                         const Bytes& key, const Bytes& exportedBlob) {
        ASSERT_EQ(import(type, joined({blob, {0xEE}})), succeeded()) << "bytes behind the key are ignored";
        EXPECT_EQ(numbers(), expected);
        EXPECT_EQ(toHex(record->publicKeyBytes()), toHex(key));
        EXPECT_EQ(exported(imported, type), toHex(exportedBlob));
    }
    /// Imports an AES key, which goes to the token and stays in the key object.
    void expectAesKey(const std::string& type, const Bytes& blob, const Bytes& key) {
        ASSERT_EQ(import(type, blob, importKey), succeeded());
        const unsigned code = key.size() == 16 ? 8 : 10;
        EXPECT_EQ(library.calls().back(),
                  concat("veltra_importAesKey(serial=", serial, ", pin=1234, key=0102..",
                         toHex(Bytes(key.end() - 2, key.end())), "(", key.size(), "), type=", code, ")"));
        EXPECT_EQ(toHex(record->symmetricKeyBytes()), toHex(key));
        EXPECT_EQ(numbers(), (Numbers{code, 3, static_cast<std::uint32_t>(key.size() * 8), 0}));
    }

    const NCRYPT_KEY_HANDLE importKey = addKey(token.addKeyPair(0x11));
    NCRYPT_KEY_HANDLE imported = 0;  ///< what the last import made
    std::shared_ptr<KSP_KEY> record; ///< behind it
};

// An exported exponent is always 65537, and an imported legacy key claims an identifier.
TEST_F(KspKeyBlobTest, RsaKeysLoseTheirExponent) {
    for (const auto& [bits, type] : {std::pair{1024u, 1u}, {2048u, 2u}, {3072u, 3u}, {4096u, 4u}}) {
        const Bytes modulus = counting(bits / 8, 1), reversed(modulus.rbegin(), modulus.rend());
        const Bytes blob = joined({dwords({kRsa1, bits, 3, bits / 8, 0, 0}), {1, 0, 1}, modulus});
        for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB"}) {
            expectPublicKey(name, blobOf({kRsa1, bits, 3, bits / 8, 7, 7}, joined({{3, 2, 1}, modulus})),
                            {type, 0, bits, 0}, modulus, blob);
            record->setPublicKey(publicKeyToDer(toHex(modulus), "010001"));
            EXPECT_EQ(exported(imported, name), toHex(blob)) << "of a key that is stored as DER";
        }
        expectPublicKey("CAPIPUBLICBLOB", blobOf({0x0206, 0xA400, kRsa1, bits, 0x010203}, modulus),
                        {type, 0, bits, 16}, reversed,
                        blobOf({0x0206, CALG_RSA_KEYX, kRsa1, bits, 65537}, modulus));
    }
    EXPECT_EQ(import("PUBLICBLOB", blobOf({kRsa1, 2048, 0, 1024, 7, 7}, Bytes(1024))), succeeded()) << "fits";
}

TEST_F(KspKeyBlobTest, EcKeysNeedNotFitTheirCurve) {
    const std::string type = "ECCPUBLICBLOB";
    using Row = std::tuple<DWORD, DWORD, Numbers>;
    for (const auto& [magic, keyLength, kind] :
         {Row{0x314B4345, 32, {5, 2, 256}}, Row{kEcs1, 32, {5, 1, 256}}, Row{0x334B4345, 48, {6, 2, 384}},
          Row{0x33534345, 48, {6, 1, 384}}, Row{0x354B4345, 66, {7, 2, 521}},
          Row{0x35534345, 66, {7, 1, 521}}, Row{kEcs1, 48, {5, 1, 256}}, Row{kEcs1, 511, {5, 1, 256}}}) {
        const Bytes point = counting(std::size_t{2} * keyLength, 1), blob = blobOf({magic, keyLength}, point);
        expectPublicKey(type, blob, kind, joined({{4}, point}), blob);
        if (record->keyUsage != kUsageSign) continue;
        record->keyUsage = kUsageBoth;
        EXPECT_EQ(exported(imported, type), toHex(blob));
    }
    record->setPublicKey(Bytes{4, 1, 2, 3}); // half a byte too many
    EXPECT_EQ(exported(imported, type), toHex(blobOf({kEcs1, 1}, {1, 2})));
    record->publicKey[0] = 2;
    EXPECT_EQ(ask(imported, type),
              failed(NTE_BAD_KEY, {"KSPExportKey: ECC public key not available or invalid format"}));
    EXPECT_EQ(ask(importKey, type), failed(NTE_NOT_SUPPORTED, {"KSPExportKey: key is not ECC"}));
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
    std::ranges::fill(token.keyPairs[0].keyId, 0); // as in a key object that has no identifier
    for (const NCRYPT_KEY_HANDLE keyless : {key, addKey(std::make_unique<KSP_KEY>())})
        EXPECT_EQ(ask(keyless, type), failed(NTE_BAD_KEY, {"KSP: No public key data available for export"}));
    for (const char* name : {"PRIVATEBLOB", "CAPIPRIVATEBLOB"})
        EXPECT_EQ(ask(key, name),
                  failed(NTE_NOT_SUPPORTED, {"KSPExportKey: private key export not supported"}));
    for (const char* name : {"", "RSAPRIVATEBLOB", "KeyDataBlob", "publicblob"})
        EXPECT_EQ(ask(key, name), failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported blob type for export"}));
}

TEST_F(KspKeyBlobTest, AesKeysAreStoredAndHeld) {
    for (const std::size_t length : {16u, 24u, 32u, 20u}) {
        const Bytes key = counting(length, 1);
        expectAesKey("OpaqueKeyBlob", wrapped(key), key);
        EXPECT_THAT(library.calls("veltra_decrypt_aes"),
                    ElementsAre(HasSubstr("key=C1C1..C1C1(16), in=985B.."), HasSubstr(", flag=1, iv=null")))
            << "each listed key in order";
        if (length == 20) continue; // only wrapped keys may have any length
        expectAesKey("KeyDataBlob", blobOf({kKdbm, 9, static_cast<DWORD>(length)}, joined({key, {0xEE}})),
                     key);
        for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY", "a type that nobody knows"}) {
            expectAesKey(name, joined({{0}, ScriptedDeviceLibrary::maskOf(key)}), key);
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

TEST_F(KspKeyBlobTest, WhatIsRefused) {
    const auto refusing = [&](SECURITY_STATUS status, const std::string& text, const std::string& type,
                              const Bytes& blob, NCRYPT_KEY_HANDLE key = 0) {
        EXPECT_EQ(import(type, blob, key), failed(status, {text}));
    };
    const auto bad = [&](const char* type, const Bytes& blob, const std::string& reason) {
        refusing(NTE_BAD_DATA, "KSPImportKey: " + reason, type, blob);
    };
    const std::string rsa = "BCRYPT_RSAPUBLIC_BLOB ", ec = "BCRYPT_ECCPUBLIC_BLOB ",
                      legacy = "LEGACY_RSAPUBLIC_BLOB ", keyData = "BCRYPT_KEY_DATA_BLOB ",
                      noMaterial = "data too small for key material";
    bad("PUBLICBLOB", Bytes(23), rsa + "data too small");
    bad("RSAPUBLICBLOB", Bytes(24), rsa + "invalid magic");
    bad("RSAPUBLICBLOB", blobOf({kRsa1, 2048, 3, 256, 7, 7}, Bytes(258)), rsa + noMaterial);
    bad("RSAPUBLICBLOB", blobOf({kRsa1, 2048, 0xFFFFFFE8, 0, 7, 7}), rsa + noMaterial);
    bad("RSAPUBLICBLOB", blobOf({kRsa1, 2048, 3, 1025, 7, 7}, Bytes(1028)), rsa + "modulus too long");
    bad("ECCPUBLICBLOB", Bytes(7), ec + "too small");
    bad("ECCPUBLICBLOB", blobOf({kEcs1, 32}, Bytes(63)), ec + noMaterial);
    bad("ECCPUBLICBLOB", blobOf({kEcs1, 0x80000000}), ec + noMaterial);
    bad("ECCPUBLICBLOB", blobOf({kEcs1, 512}, Bytes(1024)), ec + "point too long");
    bad("ECCPUBLICBLOB", blobOf({0x32534345, 32}, Bytes(64)), "unknown ECC blob magic");
    bad("CAPIPUBLICBLOB", Bytes(19), legacy + "data too small for header");
    bad("CAPIPUBLICBLOB", blobOf({0x0206, 0xA400, 1, 1024, 0}, Bytes(128)), legacy + "invalid magic");
    bad("CAPIPUBLICBLOB", blobOf({0x0206, 0xA400, kRsa1, 1024, 0}, Bytes(127)),
        legacy + "data too small for modulus");
    bad("KeyDataBlob", Bytes(11), keyData + "data too small for header");
    bad("KeyDataBlob", Bytes(12), keyData + "invalid magic");
    bad("KeyDataBlob", blobOf({kKdbm, 9, 17}, Bytes(16)), keyData + noMaterial);
    bad("KeyDataBlob", blobOf({kKdbm, 9, 0xFFFFFFF4}, Bytes(16)), keyData + noMaterial);
    for (const std::size_t length : {0u, 33u})
        bad("OpaqueKeyBlob", wrapped(Bytes(length)), "the key is empty or longer than 32 bytes");
    refusing(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size: 1025", "PUBLICBLOB",
             blobOf({kRsa1, 1025, 3, 1024, 7, 7}, Bytes(1027)));
    refusing(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size", "CAPIPUBLICBLOB",
             blobOf({0x0206, 0xA400, kRsa1, 1025, 0}, Bytes(1024)));
    refusing(NTE_NOT_SUPPORTED, "KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: 20", "KeyDataBlob",
             blobOf({kKdbm, 9, 20}, Bytes(64)));
    for (const std::size_t length : {0u, 20u})
        refusing(NTE_NOT_SUPPORTED, concat("KSP: Unsupported decrypted key length: ", length), "?",
                 joined({{0}, Bytes(length, 1)}), importKey);
    refusing(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for import", "rsapublicblob", {1}, provider);
    for (const char* name : {"OpaqueTransport", "PKCS8_PRIVATEKEY"})
        refusing(NTE_BAD_KEY, "KSP: Encrypted key import requires import key handle", name, {1}, provider);
    refusing(NTE_BAD_DATA, "KSP: Encrypted key decryption failed", "?", {1, 2}, importKey);
    refusing(NTE_BAD_KEY, "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK",
             "OpaqueKeyBlob", Bytes(17));
    EXPECT_THAT(token.aesKeys, SizeIs(2)) << "nothing was stored";
    library.script("veltra_importAesKey", {.result = 3});
    refusing(NTE_BAD_TYPE, "KSP: Import of unwrapped AES key failed", "OpaqueKeyBlob", wrapped(Bytes(16)));
    const std::string notStored = "KSP: BCRYPT_KEY_DATA_BLOB import failed";
    refusing(NTE_BAD_TYPE, notStored, "KeyDataBlob", blobOf({kKdbm, 9, 16}, Bytes(16)));
    refusing(NTE_BAD_TYPE, notStored, "?", joined({{0}, Bytes(16, 1)}), importKey);
}

} // namespace
} // namespace veltra::test
