#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "certs/public_key_encoding.h"
#include "foundation/text.h"

#include <algorithm>

namespace veltra::test {
namespace {

class KspKeyExportTest : public KspTest {
protected:
    StatusAnswer ask(NCRYPT_KEY_HANDLE key, const std::string& type, BYTE* out = nullptr,
                     DWORD capacity = 0) {
        return call(KSPExportKey, provider, key, 0, wideText(type).data(), nullptr, out, capacity, &size, 0);
    }
    /// The blob in hexadecimal.
    std::string exported(NCRYPT_KEY_HANDLE key, const std::string& type, const std::string& tooSmall) {
        return toHex(answered([&](BYTE* out, DWORD capacity) { return ask(key, type, out, capacity); },
                              "KSPExportKey: " + tooSmall + " buffer too small, required="));
    }
    std::string exportedRsa(NCRYPT_KEY_HANDLE key, const std::string& type = "RSAPUBLICBLOB") {
        return exported(key, type, "BCRYPT_RSAPUBLIC_BLOB output");
    }
    std::string exportedLegacy(NCRYPT_KEY_HANDLE key) {
        return exported(key, "CAPIPUBLICBLOB", "LEGACY_RSAPUBLIC_BLOB output");
    }
    std::string exportedEc(NCRYPT_KEY_HANDLE key) {
        return exported(key, "ECCPUBLICBLOB", "BCRYPT_ECCPUBLIC_BLOB");
    }
};

TEST_F(KspKeyExportTest, RsaKeys) {
    for (const auto& [type, bits] : {std::pair{1u, 1024u}, {2u, 2048u}, {3u, 3072u}, {4u, 4096u}}) {
        const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(static_cast<unsigned char>(type), type));
        const Bytes modulus = ScriptedDeviceLibrary::publicKeyOf(type);
        const Bytes expected = joined({dwords({0x31415352, bits, 3, bits / 8, 0, 0}), {1, 0, 1}, modulus});
        for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB"}) {
            EXPECT_EQ(exportedRsa(key, name), toHex(expected));
            EXPECT_EQ(debugLines.back(), concat("KSP: Public key exported, bits=", bits));
        }
        EXPECT_EQ(exportedLegacy(key), toHex(joined({dwords({0x0206, CALG_RSA_KEYX, 0x31415352, bits, 65537}),
                                                     Bytes(modulus.rbegin(), modulus.rend())})));
        liveKspKey(key)->setPublicKey(publicKeyToDer(toHex(modulus), "010001"));
        EXPECT_EQ(exportedRsa(key), toHex(expected)) << "of a key that is stored as DER";
    }
    const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x77));
    liveKspKey(key)->setPublicKey(Bytes{0x30, 0x05, 0x01}); // begins as DER does, and is none
    EXPECT_EQ(exportedRsa(key), toHex(dwords({0x31415352, 2048, 3, 3, 0, 0})) + "010001300501");
    EXPECT_EQ(exportedLegacy(key), toHex(dwords({0x0206, 0xA400, 0x31415352, 24, 65537})) + "010530");
}

TEST_F(KspKeyExportTest, EcKeys) {
    struct Row {
        std::uint32_t type, usage;
        DWORD magic, keyLength;
    };
    for (const Row& row : {Row{5, 2, 0x314B4345, 32},
                           {5, 1, 0x31534345, 32},
                           {5, 3, 0x31534345, 32},
                           {6, 2, 0x334B4345, 48},
                           {6, 1, 0x33534345, 48},
                           {7, 2, 0x354B4345, 66},
                           {7, 0, 0x35534345, 66}}) {
        const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x22, row.type, row.usage));
        const Bytes point = ScriptedDeviceLibrary::publicKeyOf(row.type);
        EXPECT_EQ(exportedEc(key),
                  toHex(joined({dwords({row.magic, row.keyLength}), Bytes(point.begin() + 1, point.end())})));
        EXPECT_THAT(debugLines, testing::ElementsAre(
                                    "KSPExportKey", "Enter to the BCRYPT_ECCPUBLIC_BLOB",
                                    concat("KSPExportKey: ECC public key exported, cbKey=", row.keyLength)));
    }
    const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x23, kKeyTypeEcP256));
    liveKspKey(key)->setPublicKey(Bytes{4, 1, 2, 3}); // half a byte too many
    EXPECT_EQ(exportedEc(key), toHex(dwords({0x31534345, 1})) + "0102");
    liveKspKey(key)->publicKey[0] = 2;
    EXPECT_EQ(ask(key, "ECCPUBLICBLOB"),
              failed(NTE_BAD_KEY, {"KSPExportKey: ECC public key not available or invalid format"}));
    EXPECT_EQ(ask(addKey(token.addKeyPair(0x24)), "ECCPUBLICBLOB"),
              failed(NTE_NOT_SUPPORTED, {"KSPExportKey: key is not ECC"}));
}

TEST_F(KspKeyExportTest, MissingPublicKeyComesFromTheToken) {
    token.addKeyPair(0x31);
    const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x32, kKeyTypeEcP256));
    const auto record = liveKspKey(key);
    const std::string expected = exportedEc(key);
    EXPECT_THAT(library.calls("veltra_getKeyPairList"), testing::IsEmpty());
    record->publicKeyLength = 0;
    EXPECT_EQ(exportedEc(key), expected);
    record->publicKeyLength = 0;
    token.keyPairs[1].keyId[15] ^= 1;
    const StatusAnswer none = failed(NTE_BAD_KEY, {"KSP: No public key data available for export"});
    for (const char* name : {"RSAPUBLICBLOB", "PUBLICBLOB", "CAPIPUBLICBLOB", "ECCPUBLICBLOB"})
        EXPECT_EQ(ask(key, name), none);
    std::ranges::fill(token.keyPairs[0].keyId, 0);
    EXPECT_EQ(ask(addKey(std::make_unique<KSP_KEY>()), "PUBLICBLOB"), none) << "no identifier";
}

TEST_F(KspKeyExportTest, Refusals) {
    const NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x41));
    for (const char* name : {"PRIVATEBLOB", "CAPIPRIVATEBLOB"}) {
        EXPECT_EQ(ask(key, name),
                  failed(NTE_NOT_SUPPORTED, {"KSPExportKey: private key export not supported"}));
    }
    for (const char* name : {"", "RSAPRIVATEBLOB", "KeyDataBlob", "publicblob"}) {
        EXPECT_EQ(ask(key, name), failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported blob type for export"}));
    }
    EXPECT_EQ(size, 0u);
}

} // namespace
} // namespace veltra::test
