// What applications do with a key storage provider, habits that are not in its documentation included.

#include "dialog/window_driver.h"
#include "e2e/cng_application.h"

#include <algorithm>
#include <cstring>
#include <future>

namespace veltra::test {
namespace {

constexpr const wchar_t* kSmartCardPin = L"SmartCardPin";

/// The PIN as the provider takes it: narrow text.
Bytes pinBytes(const std::string& pin) {
    Bytes bytes = bytesOf(pin);
    bytes.push_back(0);
    return bytes;
}

/// Nobody has given the PIN to this process, and the token has no session. What a test leaves behind stays
/// for the process, so the script starts each of these in one of its own.
class UnverifiedCngUserTest : public CngApplicationTest {
protected:
    [[nodiscard]] SECURITY_STATUS silentSignature() const {
        Bytes signature;
        return sign(openKey(rsaKey, 0, NCRYPT_SILENT_FLAG), nullptr, digest(CALG_SHA_256, data), signature,
                    256, kPadPkcs1Flag | NCRYPT_SILENT_FLAG);
    }
};

TEST_F(UnverifiedCngUserTest, SizeQueriesNeedNeitherPinNorPaddingInformation) {
    const CngHandle key = openKey(rsaKey, AT_KEYEXCHANGE, NCRYPT_SILENT_FLAG);
    Bytes bytes(256, 1);
    const NCRYPT_KEY_HANDLE handle = key.get();
    auto* const hash = bytes.data();
    const std::pair<const char*, std::function<SECURITY_STATUS(DWORD*)>> kRows[] = {
        {"signature",
         [&](auto size) { return NCryptSignHash(handle, nullptr, hash, 32, nullptr, 0, size, 0); }},
        {"no hash",
         [&](auto size) { return NCryptSignHash(handle, nullptr, nullptr, 0, nullptr, 0, size, 0); }},
        {"ciphertext",
         [&](auto size) { return NCryptEncrypt(handle, hash, 16, nullptr, nullptr, 0, size, 0); }},
        {"plaintext",
         [&](auto size) { return NCryptDecrypt(handle, hash, 256, nullptr, nullptr, 0, size, 0); }},
    };
    for (const auto& [name, ask] : kRows) {
        DWORD size = 0;
        EXPECT_EQ(ask(&size), kSuccess) << name;
        EXPECT_EQ(size, 256u) << name;
    }
    EXPECT_EQ(silentSignature(), NTE_SILENT_CONTEXT); // the PIN was needed, and nobody has it
    DWORD length = 0;
    EXPECT_EQ(NCryptDecrypt(handle, bytes.data(), 256, nullptr, bytes.data(), 256, &length,
                            kPadOaepFlag | NCRYPT_SILENT_FLAG),
              NTE_SILENT_CONTEXT);
}

TEST_F(UnverifiedCngUserTest, PinIsGivenByProviderProperty) {
    EXPECT_EQ(setProperty(provider, kSmartCardPin, pinBytes("000000")), NTE_VALIDATION_FAILED);
    EXPECT_EQ(silentSignature(), NTE_SILENT_CONTEXT);
    EXPECT_EQ(setProperty(provider, kSmartCardPin, pinBytes(pin)), kSuccess);
    EXPECT_EQ(silentSignature(), kSuccess);
    // The process has one state for each token, whichever interface asks.
    EXPECT_EQ(signError(open(CRYPT_SILENT)), ERROR_SUCCESS);
}

TEST_F(UnverifiedCngUserTest, PinIsGivenByKeyProperty) {
    const CngHandle key = openKey(rsaKey);
    EXPECT_EQ(setProperty(key, kSmartCardPin, wideBytes({pin.begin(), pin.end()})), NTE_VALIDATION_FAILED);
    EXPECT_EQ(setProperty(key, kSmartCardPin, pinBytes(pin)), kSuccess);
    EXPECT_EQ(silentSignature(), kSuccess);
}

TEST_F(UnverifiedCngUserTest, PinIsTypedOnceAndThenSilentCallsWork) {
    const HWND owner = GetDesktopWindow();
    Bytes window(sizeof owner);
    std::memcpy(window.data(), &owner, sizeof owner);
    EXPECT_EQ(setProperty(provider, NCRYPT_WINDOW_HANDLE_PROPERTY, window), kSuccess);
    auto typing = std::async(std::launch::async, [this] {
        const HWND dialog = waitForWindow("Verify User Password");
        typeInto(dialog, 1001, pin);
        pressAndWait(dialog, IDOK);
    });
    Bytes signature;
    EXPECT_EQ(sign(openKey(rsaKey), nullptr, digest(CALG_SHA_256, data), signature, 256, kPadPkcs1Flag),
              kSuccess);
    typing.get();
    EXPECT_EQ(silentSignature(), kSuccess);
    EXPECT_EQ(signError(open(CRYPT_SILENT)), ERROR_SUCCESS);
}

class CngClientTest : public CngApplicationTest {};

TEST_F(CngClientTest, SignsIntoAnExactlySizedBufferThatNobodyAskedFor) {
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    BCRYPT_PKCS1_PADDING_INFO noAlgorithm{nullptr};
    BCRYPT_PSS_PADDING_INFO pss{BCRYPT_SHA256_ALGORITHM, 32};
    const Bytes sha256 = digest(CALG_SHA_256, data);
    // What TLS before version 1.2 signs: both digests, and no name of an algorithm.
    Bytes md5AndSha1 = digest(CALG_MD5, data);
    const Bytes sha1 = digest(CALG_SHA1, data);
    md5AndSha1.insert(md5AndSha1.end(), sha1.begin(), sha1.end());
    struct Row {
        const char* name;
        void* padding;
        Bytes hash;
        DWORD flags;
    };
    const Row kRows[] = {
        {"PKCS#1", &pkcs1, sha256, kPadPkcs1Flag},
        {"PKCS#1, silent", &pkcs1, sha256, kPadPkcs1Flag | NCRYPT_SILENT_FLAG},
        {"no padding information", nullptr, sha256, kPadPkcs1Flag},
        {"no flag", nullptr, sha256, 0},
        {"MD5 and SHA-1", &noAlgorithm, md5AndSha1, kPadPkcs1Flag},
        {"PSS", &pss, sha256, kPadPssFlag},
    };
    const CngHandle key = openKey(signKey);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        Bytes signature;
        EXPECT_EQ(sign(key, row.padding, row.hash, signature, 255, row.flags), NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(sign(key, row.padding, row.hash, signature, 256, row.flags), kSuccess);
        EXPECT_EQ(verify(key, row.padding, row.hash, signature, row.flags), kSuccess);
        Bytes other = row.hash;
        other.back() ^= 1;
        EXPECT_EQ(verify(key, row.padding, other, signature, row.flags), NTE_BAD_SIGNATURE);
    }
    Bytes signature;
    EXPECT_EQ(sign(key, &noAlgorithm, md5AndSha1, signature, 256, kPadPkcs1Flag), kSuccess);
    writeFile("md5-sha1.hash", md5AndSha1); // for the script, where OpenSSL judges
    writeFile("md5-sha1.sig", signature);
}

TEST_F(CngClientTest, KeysLiveFromFinalizingToDeleting) {
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(NCryptCreatePersistedKey(provider.get(), &handle, L"ECDSA_P384", nullptr, AT_SIGNATURE, 0),
              kSuccess);
    CngHandle key(handle);
    EXPECT_EQ(NCryptFinalizeKey(handle, 0), kSuccess);
    EXPECT_EQ(NCryptFinalizeKey(handle, 0), kSuccess) << "once more";
    const Bytes hash = digest(CALG_SHA_256, data);
    Bytes signature;
    EXPECT_EQ(sign(key, nullptr, hash, signature, 96, 0), kSuccess);
    const CngHandle publicKey = importKey(BCRYPT_ECCPUBLIC_BLOB, exportKey(key, BCRYPT_ECCPUBLIC_BLOB));
    EXPECT_EQ(verify(publicKey, nullptr, hash, signature, 0), kSuccess);
    const Bytes name = property(key, NCRYPT_NAME_PROPERTY);
    EXPECT_EQ(NCryptDeleteKey(key.release(), 0), kSuccess);
    EXPECT_EQ(NCryptOpenKey(provider.get(), &handle, reinterpret_cast<LPCWSTR>(name.data()), 0, 0),
              NTE_NO_KEY);
}

TEST_F(CngClientTest, OneKeyServesBothInterfacesAtOnce) {
    const CngHandle key = openKey(rsaKey);
    const CryptoContext context = open();
    const CryptoKey cryptoApiKey = userKey(context, AT_KEYEXCHANGE);
    EXPECT_EQ(exportKey(key, LEGACY_RSAPUBLIC_BLOB), publicBlob(cryptoApiKey));

    // A hash object stays open while the other interface signs with the same key, and each accepts the
    // other's.
    const CryptoHash hash = createHash(context, CALG_SHA_256, data);
    const Bytes digestOfData = digest(CALG_SHA_256, data);
    Bytes cngSignature;
    EXPECT_EQ(sign(key, nullptr, digestOfData, cngSignature, 256, kPadPkcs1Flag), kSuccess);
    Bytes signature;
    EXPECT_EQ(signError(hash, AT_KEYEXCHANGE, signature, 256), ERROR_SUCCESS);
    EXPECT_EQ(reversed(signature), cngSignature) << "PKCS#1 v1.5 signatures have no randomness";
    EXPECT_EQ(verify(key, nullptr, digestOfData, reversed(signature), kPadPkcs1Flag), kSuccess);
    EXPECT_TRUE(systemVerifies(publicBlob(cryptoApiKey), CALG_SHA_256, data, reversed(cngSignature)));

    // What one encrypts the other decrypts.
    const Bytes secret = bytesOf("a secret");
    Bytes ciphertext(256);
    DWORD length = 0;
    BCRYPT_OAEP_PADDING_INFO oaep{BCRYPT_SHA1_ALGORITHM, nullptr, 0};
    Bytes input = secret;
    EXPECT_EQ(NCryptEncrypt(key.get(), input.data(), static_cast<DWORD>(input.size()), &oaep,
                            ciphertext.data(), 256, &length, kPadOaepFlag),
              kSuccess);
    EXPECT_EQ(decrypt(cryptoApiKey, reversed(ciphertext), CRYPT_OAEP), secret);
    ciphertext = reversed(encrypt(cryptoApiKey, secret, CRYPT_OAEP));
    Bytes plaintext(256);
    EXPECT_EQ(
        NCryptDecrypt(key.get(), ciphertext.data(), 256, &oaep, plaintext.data(), 256, &length, kPadOaepFlag),
        kSuccess);
    plaintext.resize(length);
    EXPECT_EQ(plaintext, secret);
}

TEST_F(CngClientTest, BothInterfacesSignInSeveralThreads) {
    constexpr int kSignatures = 10;
    const Bytes digestOfData = digest(CALG_SHA_256, data);
    const auto byCng = [&] {
        const CngHandle key = openKey(rsaKey);
        int good = 0;
        for (int i = 0; i < kSignatures; ++i) {
            Bytes signature;
            good += sign(key, nullptr, digestOfData, signature, 256, kPadPkcs1Flag) == kSuccess &&
                    verify(key, nullptr, digestOfData, signature, kPadPkcs1Flag) == kSuccess;
        }
        return good;
    };
    const auto byCryptoApi = [&] {
        const CryptoContext context = open();
        int good = 0;
        for (int i = 0; i < kSignatures; ++i)
            good += signError(context) == ERROR_SUCCESS;
        return good;
    };
    std::future<int> results[] = {
        std::async(std::launch::async, byCng), std::async(std::launch::async, byCryptoApi),
        std::async(std::launch::async, byCng), std::async(std::launch::async, byCryptoApi)};
    for (auto& result : results)
        EXPECT_EQ(result.get(), kSignatures);
}

// The script makes the keys, the IV and OpenSSL's ciphertexts, and judges ours.
TEST_F(CngClientTest, AesKeysEncryptAndDecryptWithTheirModes) {
    const Bytes plaintext = readFile("aes.plain");
    const Bytes iv = readFile("aes.iv");
    const auto crypt = [](auto function, const CngHandle& key, Bytes input) {
        DWORD length = 0;
        const auto inputLength = static_cast<DWORD>(input.size());
        EXPECT_EQ(function(key.get(), input.data(), inputLength, nullptr, nullptr, 0, &length, 0), kSuccess);
        Bytes output(length);
        EXPECT_EQ(function(key.get(), input.data(), inputLength, nullptr, output.data(), length, &length, 0),
                  kSuccess);
        output.resize(length);
        return output;
    };
    for (const int bits : {128, 192, 256}) {
        Bytes blob = {0x4B, 0x44, 0x42, 0x4D, 1, 0, 0, 0, static_cast<unsigned char>(bits / 8), 0, 0, 0};
        std::ranges::copy(readFile("aes-" + std::to_string(bits) + ".key"), std::back_inserter(blob));
        const CngHandle key = importKey(BCRYPT_KEY_DATA_BLOB, blob);
        const CngHandle other =
            importKey(BCRYPT_KEY_DATA_BLOB, {0x4B, 0x44, 0x42, 0x4D, 1, 0, 0, 0,  16, 0,  0,  0,  1,  2,
                                             3,    4,    5,    6,    7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
        EXPECT_EQ(property(key, L"ChainingMode"), wideBytes(L"ChainingModeCBC"));
        for (const char* mode : {"cbc", "ecb"}) {
            const std::string name = "aes-" + std::to_string(bits) + "-" + mode;
            SCOPED_TRACE(name);
            const bool isCbc = name.ends_with("cbc");
            EXPECT_EQ(
                setProperty(key, L"ChainingMode", wideBytes(isCbc ? L"ChainingModeCBC" : L"ChainingModeECB")),
                kSuccess);
            // One IV serves the process, whichever key it is set on; a 192-bit key takes none of 16 bytes
            // itself.
            EXPECT_EQ(setProperty(key, L"IV", iv), bits == 192 ? NTE_INVALID_PARAMETER : kSuccess);
            EXPECT_EQ(setProperty(other, L"IV", isCbc ? iv : Bytes()), kSuccess);
            const Bytes ciphertext = crypt(NCryptEncrypt, key, plaintext);
            EXPECT_EQ(crypt(NCryptDecrypt, key, ciphertext), plaintext);
            EXPECT_EQ(crypt(NCryptDecrypt, key, readFile(name + ".theirs")), plaintext);
            writeFile(name + ".ours", ciphertext);
        }
    }
}

} // namespace
} // namespace veltra::test
