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
#include "foundation/secret.h"
#include "foundation/text.h"
#include "ksp/ksp_entry_points.h"
#include "token/device_monitor.h"
#include "token/device_state.h"

#include <algorithm>
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
    using Text = const char*;
    using Input = const unsigned char*;
    using Output = unsigned char*;

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
    }

    std::atomic<bool> connected = true;
    int pinAnswer = kDeviceOk;
    int decryptAnswer = kDeviceOk;
    /// How often what it hands out has the key: many are not all covered by what is allocated afterwards.
    std::size_t repeats = 1;

    int veltra_init(int, void*, int) override { return kDeviceOk; }
    std::vector<std::string> veltra_getConnectedDeviceList(bool, void*) override {
        return connected ? std::vector{kSerial} : std::vector<std::string>();
    }
    int veltra_initDevice(Text, bool, void*) override { return kDeviceOk; }
    TokenInfo veltra_getTokenInfo(Text, void*) override {
        TokenInfo info;
        info.fipsMarker = "FI1"; // PKCS#1 v1.5 is allowed
        info.firmwareVersion = "2.0.0";
        return info;
    }
    int veltra_validatePassword(Text, Text, int, int*, void*) override { return pinAnswer; }
    std::vector<VeltraKeyPair>& veltra_getKeyPairList(Text, void*) override { return pairs_; }
    // The library's own copy is there only while its caller makes one.
    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(Text, void*) override {
        for (VeltraSymmetricKey& key : aesKeys_) {
            key.keyType = kKeyTypeAes192Or256;
            kKey.copyTo(key.key);
        }
        return aesKeys_;
    }
    int veltra_importAesKey(Text, Text, VeltraSymmetricKey*, void*) override { return kDeviceOk; }
    int veltra_decrypt(Text, Input, Text, Input, int, Output* out, int* length, bool, void*) override {
        return decryptAnswer == kDeviceOk ? handOut(out, length) : decryptAnswer;
    }
    int veltra_encrypt_aes(Text, EncryptionType, Input, int, Input, int, Output* out, int* length, bool,
                           Input, int, Input, int, void*) override {
        return handOut(out, length);
    }
    int veltra_decrypt_aes(Text, Input, int, Input, int, Output* out, int* length, bool, Input, int,
                           void*) override {
        for (VeltraSymmetricKey& key : aesKeys_)
            wipe(key.key, kLength);
        return handOut(out, length);
    }
    int veltra_decryptSymetric(Text, Input, int, Output out, int* length, Input, int, Input, int,
                               void*) override {
        const int room = std::exchange(*length, 0);
        for (; *length + static_cast<int>(kLength) <= room; *length += kLength)
            kKey.copyTo(out + *length);
        fences_.emplace_back(kLength);
        return kDeviceOk;
    }
    int veltra_ecdhDerive(Text, Input, Text, Input, int, Output* out, int* length, void*) override {
        return handOut(out, length);
    }
    int veltra_initHash(Text, int, void**, void*) override { return kDeviceOk; }
    int veltra_updateHash(void*, Input, int, void*) override { return kDeviceOk; }
    int veltra_finalHash(void*, Output digest, int* length, void*) override {
        kKey.copyTo(digest);
        *length = kLength;
        return kDeviceOk;
    }

private:
    int handOut(Output* out, int* length) {
        *out = static_cast<Output>(std::malloc(kLength * repeats));
        for (std::size_t i = 0; i < repeats; ++i)
            kKey.copyTo(*out + i * kLength);
        *length = static_cast<int>(kLength * repeats);
        fences_.emplace_back(kLength);
        return kDeviceOk;
    }

    std::list<Bytes> fences_; ///< behind what was handed out: the heap gives its free end back to the system
    std::vector<VeltraKeyPair> pairs_;
    /// So many that what is allocated afterwards does not cover a copy of them all.
    std::vector<VeltraSymmetricKey> aesKeys_ = std::vector<VeltraSymmetricKey>(100);
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

    /// A decryption, which the token answers with `code`. The user is asked for the PIN when it is not known,
    /// and again when the token's session has expired.
    void decrypt(int code) {
        library.decryptAnswer = code;
        SecretBytes<kLength> data;
        DWORD length = kLength;
        CPDecrypt(context, rsaKey, 0, TRUE, CRYPT_OAEP, data.data(), &length);
        library.decryptAnswer = kDeviceOk;
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
        decrypt(kDeviceOk);
        user.get();
        setPinPrompt(&cancels_);
    }

    /// Imports a blob of CryptoAPI: its header, two words, and the key in clear or 256 bytes of anything.
    void importKey(DWORD type, bool clear) {
        SecretBytes<268> blob;
        std::ranges::copy(dwords({type | CUR_BLOB_VERSION << 8, CALG_AES_256, kLength}), blob.data());
        if (clear) kKey.copyTo(blob.data() + 12);
        EXPECT_TRUE(CPImportKey(context, blob.data(), clear ? 12 + kLength : blob.size(), rsaKey, 0, &key));
    }
    /// Imports a blob of CNG: of the type that holds the key in clear, and filled with it for every type.
    void importCngKey(LPCWSTR type) {
        SecretBytes<12 + kLength> blob;
        std::ranges::copy(dwords({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, kLength}), blob.data());
        kKey.copyTo(blob.data() + 12);
        EXPECT_EQ(KSPImportKey(provider, cngRsaKey, type, nullptr, &cngKey, blob.data(), blob.size(), 0), 0);
    }
    /// Hands the PIN, zero-terminated, to `function(pin)`, and the rest of the program has none of it.
    template <class Function>
    static void givePin(Function function) {
        SecretBytes<kLength + 1> pin;
        kPin.copyTo(pin.data());
        function(pin.data());
    }

    /// Releases all that keeps a secret: the handles below, and the PIN when it is one, because the user is
    /// asked again and cancels.
    void release(bool pinToo) {
        EXPECT_TRUE(key == 0 || CPDestroyKey(context, key));
        EXPECT_TRUE(hash == 0 || CPDestroyHash(context, hash));
        EXPECT_TRUE(cngKey == 0 || KSPFreeKey(provider, cngKey) == 0);
        EXPECT_TRUE(secret == 0 || KSPFreeSecret(provider, secret) == 0);
        key = hash = cngKey = secret = 0;
        library.repeats = 1;
        if (!pinToo) return; // nothing else is done, which might cover what was left
        decrypt(kDeviceSessionExpired);
        storePin(kSerial, Pin("1234"));
    }

    StandInLibrary library;
    HCRYPTPROV context = 0;
    HCRYPTKEY rsaKey = 0;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE cngRsaKey = 0;
    NCRYPT_KEY_HANDLE cngEcKey = 0;
    ULONG_PTR key = 0, hash = 0, cngKey = 0, secret = 0;

private:
    ScriptedPinPrompt cancels_;
};

TEST_F(SecretsTest, NothingStaysInMemoryBehindItsReleaseAndNoPinIsInTheLog) {
    const auto setInCryptoApi = [&] {
        givePin([&](BYTE* pin) { CPSetProvParam(context, PP_SIGNATURE_PIN, pin, 0); });
    };
    const auto setInCng = [&] {
        givePin([&](BYTE* pin) { KSPSetProviderProperty(provider, L"SmartCardPin", pin, kLength, 0); });
    };
    // The secret, whether it is kept until release(), and what is done with it.
    const std::tuple<const SecretMarker&, bool, const char*, std::function<void()>> kWays[] = {
        {kKey, true, "SIMPLEBLOB", [&] { importKey(SIMPLEBLOB, false); }},
        {kKey, false, "PLAINTEXTKEYBLOB", [&] { importKey(PLAINTEXTKEYBLOB, true); }},
        {kKey, false, "SYMMETRICWRAPKEYBLOB", [&] { importKey(SYMMETRICWRAPKEYBLOB, false); }},
        {kKey, true, "key of an HMAC, its value, and a copy",
         [&] {
             importKey(SIMPLEBLOB, false);
             const HMAC_INFO info{CALG_SHA_256, nullptr, 0, nullptr, 0};
             SecretBytes<kLength> value;
             DWORD length = kLength;
             HCRYPTHASH copy = 0;
             EXPECT_TRUE(
                 CPCreateHash(context, CALG_HMAC, key, 0, &hash) &&
                 CPSetHashParam(context, hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0) &&
                 CPGetHashParam(context, hash, HP_HASHVAL, value.data(), &length, 0) &&
                 CPDuplicateHash(context, hash, nullptr, 0, &copy) && CPDestroyHash(context, copy));
         }},
        {kKey, true, "CPDeriveKey",
         [&] {
             EXPECT_TRUE(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash) &&
                         CPDeriveKey(context, CALG_AES_256, hash, 0, &key));
         }},
        {kKey, true, "KeyDataBlob", [&] { importCngKey(L"KeyDataBlob"); }},
        {kKey, true, "OpaqueKeyBlob", [&] { importCngKey(L"OpaqueKeyBlob"); }},
        {kKey, true, "OpaqueTransport", [&] { importCngKey(L"OpaqueTransport"); }},
        {kKey, true, "KSPSecretAgreement and KSPDeriveKey",
         [&] {
             SecretBytes<kLength> derived;
             DWORD length = 0;
             EXPECT_EQ(KSPSecretAgreement(provider, cngEcKey, cngEcKey, &secret, 0), 0);
             EXPECT_EQ(KSPDeriveKey(provider, secret, L"HASH", nullptr, derived.data(), kLength, &length, 0),
                       0);
         }},
        {kKey, true, "CPDecrypt, CPEncrypt, and no room for the answer",
         [&] {
             importKey(SIMPLEBLOB, false);
             library.repeats = 50;
             SecretBytes<kRoom> data;
             for (const DWORD room : {kRoom, DWORD{16}}) {
                 DWORD length = room;
                 CPDecrypt(context, rsaKey, 0, TRUE, CRYPT_OAEP, data.data(), &length);
                 length = room;
                 CPDecrypt(context, key, 0, TRUE, 0, data.data(), &length);
                 length = kLength;
                 kKey.copyTo(data.data());
                 CPEncrypt(context, key, 0, TRUE, 0, data.data(), &length, room);
             }
         }},
        {kKey, true, "KSPDecrypt, and no room for the answer",
         [&] {
             importCngKey(L"KeyDataBlob");
             library.repeats = 50;
             SecretBytes<kRoom> data;
             DWORD size = 0;
             for (const DWORD room : {kRoom, DWORD{16}})
                 for (const NCRYPT_KEY_HANDLE one : {cngRsaKey, cngKey})
                     KSPDecrypt(provider, one, data.data(), kRoom, nullptr, data.data(), room, &size,
                                kPadPkcs1Flag);
         }},
        {kPin, true, "CPSetProvParam", setInCryptoApi},
        {kPin, true, "KSPSetProviderProperty", setInCng},
        {kPin, true, "KSPSetKeyProperty",
         [&] {
             givePin([&](BYTE* pin) {
                 KSPSetKeyProperty(provider, cngRsaKey, L"SmartCardPin", pin, kLength, 0);
             });
         }},
        {kPin, true, "dialog, Login", [&] { typePinAndPress(IDOK); }},
        {kPin, false, "dialog, Cancel and closed, and a PIN that the token refuses",
         [&] {
             typePinAndPress(IDCANCEL);
             typePinAndPress(kClose);
             library.pinAnswer = kWrongPin;
             setInCryptoApi();
             setInCng();
             typePinAndPress(IDOK);
             library.pinAnswer = kDeviceOk;
         }},
        {kPin, false, "a token that is pulled, which the monitor sees within a second",
         [&] {
             setInCryptoApi();
             EXPECT_TRUE(kPin.isInMemory());
             library.connected = false;
             for (int i = 0; i < 500 && isPinValidated(kSerial); ++i)
                 Sleep(10);
             library.connected = true;
         }},
    };
    for (const auto& [marker, isKept, name, use] : kWays) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(marker.isInMemory()) << "before";
        use();
        EXPECT_EQ(marker.isInMemory(), isKept);
        release(&marker == &kPin);
        EXPECT_FALSE(marker.isInMemory());
    }
    givePin([](const BYTE* clear) {
        const std::string pin(boundedText(reinterpret_cast<const char*>(clear), kLength));
        const std::string log = readLog();
        const Bytes wide = wideBytes(pin);
        EXPECT_THAT(log, HasSubstr("CPSetProvParam - passwordLength : 32")) << "the most verbose level";
        for (const std::string& form :
             {pin, std::string(wide.begin(), wide.end() - 2), toHex({clear, kLength})})
            EXPECT_THAT(log, Not(HasSubstr(form)));
    });
}

} // namespace
} // namespace veltra::test
