#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "ksp/ksp_secret.h"

namespace veltra::test {
namespace {

class KspEntryGuardTest : public KspTest {};

TEST_F(KspEntryGuardTest, LibraryThatThrowsEndsOnlyTheCall) {
    storePinOfToken();
    token.addAesKey(0xC1, kKeyTypeAes128);
    const NCRYPT_PROV_HANDLE provider = openProvider();
    const NCRYPT_KEY_HANDLE rsaKey = addKey(token.addKeyPair(0x11));
    const NCRYPT_KEY_HANDLE ecKey = addKey(token.addKeyPair(0x22, kKeyTypeEcP256, kUsageEncrypt));
    const NCRYPT_KEY_HANDLE aesKey = addSymmetricKey(std::string(16, 'K'));
    NCRYPT_SECRET_HANDLE secret = 0;
    ASSERT_EQ(KSPSecretAgreement(provider, ecKey, ecKey, &secret, 0), 0);
    Bytes input = ScriptedDeviceLibrary::maskOf(joined({{0xC1}, counting(16, 1)}));
    Bytes ciphertext = joined({{0}, input}), keyData = joined({dwords({0x4D42444B, 1, 16}), Bytes(16)});
    Bytes output;
    DWORD length = 0;
    NCRYPT_HANDLE handle = 0;
    const auto crypt = [&](decltype(&KSPEncrypt) function, NCRYPT_KEY_HANDLE key, Bytes& data) {
        return [&, function, key] {
            return function(provider, key, data.data(), static_cast<DWORD>(data.size()), nullptr,
                            output.data(), 256, &length, 0);
        };
    };
    const auto import = [&](std::string_view type, Bytes& blob) {
        return [&, name = wideText(type)] {
            return KSPImportKey(provider, rsaKey, name.data(), nullptr, &handle, blob.data(),
                                static_cast<DWORD>(blob.size()), 0);
        };
    };
    const auto sign = [&] {
        return KSPSignHash(provider, rsaKey, nullptr, input.data(), 17, output.data(), 256, &length, 0);
    };
    const auto agree = [&] { return KSPSecretAgreement(provider, ecKey, ecKey, &handle, 0); };
    const auto derive = [&] {
        return KSPDeriveKey(provider, secret, nullptr, nullptr, output.data(), 32, &length, 0);
    };
    struct Row {
        const char* function;
        const char* entryPoint;
        std::function<SECURITY_STATUS()> run;
    };
    for (const Row& row : {Row{"veltra_signHash", "KSPSignHash", sign},
                           {"veltra_encrypt", "KSPEncrypt", crypt(KSPEncrypt, rsaKey, input)},
                           {"veltra_encrypt_aes", "KSPEncrypt", crypt(KSPEncrypt, aesKey, input)},
                           {"veltra_decrypt", "KSPDecrypt", crypt(KSPDecrypt, rsaKey, ciphertext)},
                           {"veltra_decryptSymetric", "KSPDecrypt", crypt(KSPDecrypt, aesKey, input)},
                           {"veltra_ecdhDerive", "KSPSecretAgreement", agree},
                           {"veltra_initHash", "KSPDeriveKey", derive},
                           {"veltra_updateHash", "KSPDeriveKey", derive},
                           {"veltra_finalHash", "KSPDeriveKey", derive},
                           {"veltra_getAesKeyList", "KSPImportKey", import("OpaqueKeyBlob", input)},
                           {"veltra_decrypt_aes", "KSPImportKey", import("OpaqueKeyBlob", input)},
                           {"veltra_importAesKey", "KSPImportKey", import("KeyDataBlob", keyData)}}) {
        SCOPED_TRACE(row.function);
        const Bytes untouched(256, 0xEE);
        output = untouched;
        length = 7;
        handle = 0;
        library.script(row.function, {.throws = true});
        EXPECT_EQ(call(row.run),
                  failed(NTE_INTERNAL_ERROR, {std::string(row.entryPoint) + ": unexpected exception"}));
        EXPECT_TRUE(output == untouched && length == 7 && handle == 0);
        library.clearScripts();
        EXPECT_EQ(call(row.run), succeeded());
        EXPECT_TRUE((output != untouched && length != 7) || handle != 0);
        LiveRecords<KSP_KEY>::take(handle).reset();
        LiveRecords<KSP_SECRET>::take(handle).reset();
    }
    KSPFreeSecret(0, secret);
}

} // namespace
} // namespace veltra::test
