// PINs, keys and plaintexts are gone from the memory of the process when they are released, and no PIN is
// ever in the log.

#include "dialog/window_driver.h"
#include "lifecycle/secret_marker.h"
#include "support/blob_bytes.h"
#include "support/googletest.h"
#include "support/log_file.h"
#include "support/scripted_pin_prompt.h"

#include "csp/csp_entry_points.h"
#include "foundation/missing_device_library.h"
#include "foundation/text.h"
#include "ksp/ksp_entry_points.h"
#include "token/device_monitor.h"
#include "token/device_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <list>

namespace veltra::test {
namespace {

constexpr SecretMarker kPin("Pin#7f3kQx91Zv82pLs04wTnBe6-uHdY");
constexpr SecretMarker kKey("Key+Gm5tRz08Wc93jXa17oVqKs2_yNfE");
constexpr std::size_t kLength = SecretMarker::kLength;
const std::string kSerial = "T1";
constexpr int kWrongPin = 1;
constexpr DWORD kRoom = 2048; ///< bytes for a plaintext

/// A token whose every secret is the key marker. Keeps no copy of anything.
class StandInLibrary final : public MissingDeviceLibrary {
public:
    StandInLibrary() {
        for (const auto& [type, id] : {std::pair{kKeyTypeRsa2048, 0x11}, {kKeyTypeEcP256, 0x22}}) {
            VeltraKeyPair& pair = pairs_.emplace_back();
            std::ranges::fill(pair.keyId, static_cast<unsigned char>(id));
            pair.publicKey[0] = 0x04;
            pair.publicKeyLength = 65;
            pair.usage = kUsageBoth;
            pair.keyType = type;
        }
        aesKeys_.resize(kAesKeys);
        for (VeltraSymmetricKey& key : aesKeys_)
            key.keyType = kKeyTypeAes192Or256;
    }

    std::atomic<bool> connected = true;
    int pinAnswer = kDeviceOk;
    int signAnswer = kDeviceOk;
    /// How often what it hands out has the key: many are not all covered by what is allocated afterwards.
    std::size_t repeats = 1;

    int veltra_init(int, void*, int) override { return kDeviceOk; }
    std::vector<std::string> veltra_getConnectedDeviceList(bool, void*) override {
        return connected ? std::vector{kSerial} : std::vector<std::string>();
    }
    int veltra_initDevice(const char*, bool, void*) override { return kDeviceOk; }
    TokenInfo veltra_getTokenInfo(const char*, void*) override {
        TokenInfo info;
        info.fipsMarker = "FI1";
        info.firmwareVersion = "2.0.0";
        return info;
    }
    int veltra_validatePassword(const char*, const char*, int, int*, void*) override { return pinAnswer; }
    std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char*, void*) override { return pairs_; }
    // The library's own copy is there only while its caller makes one.
    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char*, void*) override {
        for (VeltraSymmetricKey& key : aesKeys_)
            kKey.copyTo(key.key);
        return aesKeys_;
    }
    int veltra_importAesKey(const char*, const char*, VeltraSymmetricKey*, void*) override {
        return kDeviceOk;
    }
    int veltra_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int,
                        unsigned char*, int*, bool, void*, bool) override {
        return signAnswer;
    }
    int veltra_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int,
                       unsigned char** out, int* outLength, bool, void*) override {
        return handOut(out, outLength);
    }
    int veltra_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*, int,
                           unsigned char** out, int* outLength, bool, const unsigned char*, int,
                           const unsigned char*, int, void*) override {
        return handOut(out, outLength);
    }
    int veltra_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int,
                           unsigned char** out, int* outLength, bool, const unsigned char*, int,
                           void*) override {
        for (VeltraSymmetricKey& key : aesKeys_)
            wipe(key.key, kLength);
        return handOut(out, outLength);
    }
    int veltra_decryptSymetric(const char*, const unsigned char*, int, unsigned char* out, int* outLength,
                               const unsigned char*, int, const unsigned char*, int, void*) override {
        int length = 0;
        for (; length + static_cast<int>(kLength) <= *outLength; length += kLength)
            kKey.copyTo(out + length);
        *outLength = length;
        return kDeviceOk;
    }
    int veltra_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int,
                          unsigned char** out, int* outLength, void*) override {
        return handOut(out, outLength);
    }
    int veltra_initHash(const char*, int, void**, void*) override { return kDeviceOk; }
    int veltra_updateHash(void*, const unsigned char*, int, void*) override { return kDeviceOk; }
    int veltra_finalHash(void*, unsigned char* digest, int* length, void*) override {
        kKey.copyTo(digest);
        *length = kLength;
        return kDeviceOk;
    }

private:
    // So many that what is allocated afterwards does not cover a copy of them all.
    static constexpr std::size_t kAesKeys = 100;

    int handOut(unsigned char** out, int* outLength) {
        *out = static_cast<unsigned char*>(std::malloc(kLength * repeats));
        for (std::size_t i = 0; i < repeats; ++i)
            kKey.copyTo(*out + i * kLength);
        *outLength = static_cast<int>(kLength * repeats);
        fences_.emplace_back(kLength);
        return kDeviceOk;
    }

    std::list<Bytes> fences_; ///< behind what was handed out: the heap gives its free end back to the system
    std::vector<VeltraKeyPair> pairs_;
    std::vector<VeltraSymmetricKey> aesKeys_;
};

/// What an application has of both front ends.
class SecretsTest : public testing::Test {
protected:
    SecretsTest() {
        setDeviceLibrary(&library);
        setPinPrompt(&cancels_);
        useOwnLogFolder();
        setLogLevel(3);
        removeLog();
        std::uintptr_t table = 0;
        EXPECT_TRUE(CPAcquireContext(&context, nullptr, 0, reinterpret_cast<VTableProvStruc*>(&table)) &&
                    CPGetUserKey(context, AT_KEYEXCHANGE, &rsaKey));
        EXPECT_EQ(0, KSPOpenProvider(&provider, nullptr, 0) |
                         KSPOpenKey(provider, &cngRsaKey, L"11111111111111111111111111111111", 0, 0) |
                         KSPOpenKey(provider, &cngEcKey, L"22222222222222222222222222222222", 0, 0));
        storePin(kSerial, Pin("1234"));
    }
    ~SecretsTest() override {
        KSPFreeKey(provider, cngRsaKey);
        KSPFreeKey(provider, cngEcKey);
        KSPFreeProvider(provider);
        CPDestroyKey(context, rsaKey);
        CPReleaseContext(context, 0);
        stopDeviceMonitor();
        setPinPrompt(nullptr);
        setDeviceLibrary(nullptr);
    }

    /// A signature, which the token answers with `code`. When its session has expired, the user is asked
    /// again.
    void sign(int code) {
        library.signAnswer = code;
        HCRYPTHASH hash = 0;
        const Bytes value(kLength);
        EXPECT_TRUE(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash) &&
                    CPSetHashParam(context, hash, HP_HASHVAL, value.data(), 0));
        Bytes signature(256);
        auto length = static_cast<DWORD>(signature.size());
        CPSignHash(context, hash, AT_KEYEXCHANGE, nullptr, 0, signature.data(), &length);
        EXPECT_TRUE(CPDestroyHash(context, hash));
    }

    /// The dialog, in which the user types the PIN, and which he leaves with this button.
    void typePinAndPress(int button) {
        setPinPrompt(nullptr);
        auto user = std::async(std::launch::async, [this, button] {
            const HWND dialog = waitForWindow(kPasswordDialog);
            const HWND field = GetDlgItem(dialog, kPinControl);
            // One at a time, so that no message holds the whole PIN; taken back once and typed again.
            givePin([field](const BYTE* pin) {
                for (std::size_t i = 0; i < 3 * kLength; ++i)
                    SendMessageA(field, WM_CHAR, i / kLength == 1 ? VK_BACK : pin[i % kLength], 0);
            });
            EXPECT_EQ(GetWindowTextLengthA(field), static_cast<int>(kLength));
            pressAndWait(dialog, button);
            if (library.pinAnswer != kDeviceOk) pressAndWait(waitForWindow("Veltra"), IDOK);
        });
        forgetPin(kSerial);
        sign(kDeviceOk);
        user.get();
        setPinPrompt(&cancels_);
    }

    /// A blob of CryptoAPI: its header, two words, and the key in clear or 256 bytes of anything.
    HCRYPTKEY importKey(DWORD type, bool clear) {
        SecretBytes<268> blob;
        std::ranges::copy(dwords({type | CUR_BLOB_VERSION << 8, CALG_AES_256, kLength}), blob.data());
        if (clear) kKey.copyTo(blob.data() + 12);
        HCRYPTKEY key = 0;
        EXPECT_TRUE(CPImportKey(context, blob.data(), clear ? 12 + kLength : blob.size(), rsaKey, 0, &key));
        return key;
    }
    /// A blob of CNG: of the type that holds the key in clear, and filled with it for every type.
    NCRYPT_KEY_HANDLE importCngKey(LPCWSTR type) {
        SecretBytes<12 + kLength> blob;
        std::ranges::copy(dwords({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, kLength}), blob.data());
        kKey.copyTo(blob.data() + 12);
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(KSPImportKey(provider, cngRsaKey, type, nullptr, &key, blob.data(), blob.size(), 0), 0);
        return key;
    }
    HCRYPTHASH createHash(ALG_ID algorithm, HCRYPTKEY key) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CPCreateHash(context, algorithm, key, 0, &hash));
        return hash;
    }
    /// Hands the PIN to `function(pin)`, and the rest of the program has none of it.
    template <class Function>
    static void givePin(Function function) {
        ClearMarker pin(kPin);
        function(pin.data());
    }

    static void expectNoPinInLog() {
        givePin([](const BYTE* clear) {
            const std::string pin(boundedText(reinterpret_cast<const char*>(clear), kLength));
            const std::string log = readLog();
            std::string wide(pin.size() * 2, '\0');
            for (std::size_t i = 0; i < pin.size(); ++i)
                wide[i * 2] = pin[i];
            EXPECT_THAT(log, HasSubstr("CPSetProvParam - passwordLength : 32")) << "the most verbose level";
            for (const std::string& form : {pin, wide, toHex({clear, kLength})})
                EXPECT_THAT(log, Not(HasSubstr(form)));
        });
    }

    StandInLibrary library;
    HCRYPTPROV context = 0;
    HCRYPTKEY rsaKey = 0;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE cngRsaKey = 0;
    NCRYPT_KEY_HANDLE cngEcKey = 0;

private:
    ScriptedPinPrompt cancels_;
};

TEST_F(SecretsTest, NothingStaysInMemoryBehindItsReleaseAndNoPinIsInTheLog) {
    using Release = std::function<void()>;
    struct Way {
        const SecretMarker& secret;
        const char* name;
        std::function<Release()> use; ///< what releases what it keeps; null: it keeps nothing
    };
    // The user is asked again and cancels.
    const Release forget = [&] { sign(kDeviceSessionExpired); };
    const auto destroyKey = [&](HCRYPTKEY key) -> Release {
        return [this, key] { EXPECT_TRUE(CPDestroyKey(context, key)); };
    };
    const auto destroyHash = [&](HCRYPTHASH hash) -> Release {
        return [this, hash] { EXPECT_TRUE(CPDestroyHash(context, hash)); };
    };
    const auto freeCngKey = [&](NCRYPT_KEY_HANDLE key) -> Release {
        return [this, key] { EXPECT_EQ(KSPFreeKey(provider, key), 0); };
    };
    const auto setInCryptoApi = [&] {
        givePin([&](BYTE* pin) { CPSetProvParam(context, PP_SIGNATURE_PIN, pin, 0); });
        return forget;
    };
    const auto setInCng = [&] {
        givePin([&](BYTE* pin) { KSPSetProviderProperty(provider, L"SmartCardPin", pin, kLength, 0); });
        return forget;
    };
    const Way kWays[] = {
        {kKey, "SIMPLEBLOB", [&] { return destroyKey(importKey(SIMPLEBLOB, false)); }},
        {kKey, "PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB: on the token only",
         [&] {
             destroyKey(importKey(PLAINTEXTKEYBLOB, true))();
             destroyKey(importKey(SYMMETRICWRAPKEYBLOB, false))();
             return nullptr;
         }},
        {kKey, "key of an HMAC, its value, and a copy",
         [&] {
             const HCRYPTKEY key = importKey(SIMPLEBLOB, false);
             const HCRYPTHASH hash = createHash(CALG_HMAC, key);
             destroyKey(key)();
             const HMAC_INFO info{CALG_SHA_256, nullptr, 0, nullptr, 0};
             SecretBytes<kLength> value;
             DWORD length = kLength;
             HCRYPTHASH copy = 0;
             EXPECT_TRUE(
                 CPSetHashParam(context, hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0) &&
                 CPGetHashParam(context, hash, HP_HASHVAL, value.data(), &length, 0) &&
                 CPDuplicateHash(context, hash, nullptr, 0, &copy));
             destroyHash(hash)();
             return destroyHash(copy);
         }},
        {kKey, "CPDeriveKey",
         [&] {
             const HCRYPTHASH hash = createHash(CALG_SHA_256, 0);
             HCRYPTKEY key = 0;
             EXPECT_TRUE(CPDeriveKey(context, CALG_AES_256, hash, 0, &key));
             destroyHash(hash)();
             return destroyKey(key);
         }},
        {kKey, "KeyDataBlob", [&] { return freeCngKey(importCngKey(L"KeyDataBlob")); }},
        {kKey, "OpaqueKeyBlob", [&] { return freeCngKey(importCngKey(L"OpaqueKeyBlob")); }},
        {kKey, "OpaqueTransport", [&] { return freeCngKey(importCngKey(L"OpaqueTransport")); }},
        {kKey, "KSPSecretAgreement and KSPDeriveKey",
         [&]() -> Release {
             NCRYPT_SECRET_HANDLE secret = 0;
             EXPECT_EQ(KSPSecretAgreement(provider, cngEcKey, cngEcKey, &secret, 0), 0);
             SecretBytes<kLength> key;
             DWORD length = 0;
             EXPECT_EQ(KSPDeriveKey(provider, secret, L"HASH", nullptr, key.data(), kLength, &length, 0), 0);
             return [this, secret] { EXPECT_EQ(KSPFreeSecret(provider, secret), 0); };
         }},
        {kKey, "CPDecrypt, KSPDecrypt, CPEncrypt, and no room for the answer",
         [&] {
             const HCRYPTKEY key = importKey(SIMPLEBLOB, false);
             const NCRYPT_KEY_HANDLE cngKey = importCngKey(L"KeyDataBlob");
             library.repeats = 50;
             SecretBytes<kRoom> data;
             for (const DWORD room : {kRoom, DWORD{16}}) {
                 for (const HCRYPTKEY one : {rsaKey, key}) {
                     DWORD length = room;
                     CPDecrypt(context, one, 0, TRUE, CRYPT_OAEP, data.data(), &length);
                 }
                 DWORD length = kLength;
                 for (const NCRYPT_KEY_HANDLE one : {cngRsaKey, cngKey})
                     KSPDecrypt(provider, one, data.data(), kRoom, nullptr, data.data(), room, &length,
                                kPadPkcs1Flag);
                 length = kLength;
                 kKey.copyTo(data.data());
                 CPEncrypt(context, key, 0, TRUE, 0, data.data(), &length, room);
             }
             library.repeats = 1;
             destroyKey(key)();
             freeCngKey(cngKey)();
             return nullptr;
         }},
        {kPin, "CPSetProvParam", setInCryptoApi},
        {kPin, "KSPSetProviderProperty", setInCng},
        {kPin, "KSPSetKeyProperty",
         [&] {
             givePin([&](BYTE* pin) {
                 KSPSetKeyProperty(provider, cngRsaKey, L"SmartCardPin", pin, kLength, 0);
             });
             return forget;
         }},
        {kPin, "dialog, Login",
         [&] {
             typePinAndPress(IDOK);
             return forget;
         }},
        {kPin, "dialog, Cancel and closed, and a PIN that the token refuses",
         [&] {
             typePinAndPress(IDCANCEL);
             typePinAndPress(kClose);
             library.pinAnswer = kWrongPin;
             setInCryptoApi();
             setInCng();
             typePinAndPress(IDOK);
             library.pinAnswer = kDeviceOk;
             return nullptr;
         }},
    };
    for (const Way& way : kWays) {
        SCOPED_TRACE(way.name);
        EXPECT_FALSE(way.secret.isInMemory()) << "before";
        if (const Release release = way.use()) {
            EXPECT_TRUE(way.secret.isInMemory()) << "nothing to be released";
            release();
        }
        EXPECT_FALSE(way.secret.isInMemory());
    }
    expectNoPinInLog();
}

TEST_F(SecretsTest, APulledTokensPinIsGone) {
    givePin([&](BYTE* pin) { CPSetProvParam(context, PP_SIGNATURE_PIN, pin, 0); });
    EXPECT_TRUE(kPin.isInMemory());
    library.connected = false; // which the monitor sees within a second
    for (int i = 0; i < 500 && isPinValidated(kSerial); ++i)
        Sleep(10);
    EXPECT_FALSE(kPin.isInMemory());

    expectNoPinInLog();
}

} // namespace
} // namespace veltra::test
