#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"
#include "token/process_iv.h"

#include <algorithm>

namespace veltra::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kCertificate = "SmartCardKeyCertificate";

/// `ascii` as wide text, with a terminating zero unless told otherwise.
Bytes wide(const std::string& ascii, bool terminated = true) {
    Bytes bytes(wideSize(ascii));
    writeWide(ascii, bytes.data());
    if (!terminated) bytes.resize(bytes.size() - sizeof(WCHAR));
    return bytes;
}

template <class Value>
Bytes bytesOf(const Value& value) {
    const auto* first = reinterpret_cast<const unsigned char*>(&value);
    return {first, first + sizeof value};
}

Bytes dword(DWORD value) {
    return bytesOf(value);
}

class KspKeyPropertyTest : public KspTest {
protected:
    KspKeyPropertyTest() : provider(openProvider()), key(addKey(token.addKeyPair(0x11))) {
        SetEnvironmentVariableA("VELTRA_HOME", "X:/none");
        library.clearCalls();
    }
    ~KspKeyPropertyTest() override { SetEnvironmentVariableA("VELTRA_HOME", nullptr); }

    StatusAnswer get(NCRYPT_KEY_HANDLE handle, const std::string& property, BYTE* out, DWORD capacity) {
        const Bytes name = wide(property);
        return call([&] {
            return KSPGetKeyProperty(provider, handle, reinterpret_cast<LPCWSTR>(name.data()), out, capacity,
                                     &size, 0);
        });
    }
    /// The value of a property, after its size was asked for and one byte less was offered.
    Bytes valueOf(NCRYPT_KEY_HANDLE handle, const std::string& property) {
        EXPECT_EQ(get(handle, property, nullptr, 0), succeeded());
        EXPECT_THAT(debugLines, Contains("KSP: GetKeyProperty: " + property));
        Bytes value(size, 0xEE);
        EXPECT_EQ(get(handle, property, value.data(), size - 1), failed(NTE_BUFFER_TOO_SMALL, {}));
        EXPECT_EQ(size, value.size());
        EXPECT_EQ(value, Bytes(value.size(), 0xEE));
        EXPECT_EQ(get(handle, property, value.data(), size), succeeded());
        return value;
    }
    StatusAnswer set(const std::string& property, const BYTE* input, DWORD length) {
        const Bytes name = wide(property);
        return call([&] {
            return KSPSetKeyProperty(provider, key, reinterpret_cast<LPCWSTR>(name.data()),
                                     const_cast<PBYTE>(input), length, 0);
        });
    }
    StatusAnswer set(const std::string& property, const Bytes& input) {
        return set(property, input.data(), static_cast<DWORD>(input.size()));
    }

    const NCRYPT_PROV_HANDLE provider;
    const NCRYPT_KEY_HANDLE key;
    DWORD size = 0;
};

TEST_F(KspKeyPropertyTest, ArgumentsAreCheckedInOrder) {
    const auto getWith = [&](NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR name, DWORD* out) {
        return call([&] { return KSPGetKeyProperty(hProvider, hKey, name, nullptr, 0, out, 0); });
    };
    const auto setWith = [&](NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) {
        return call([&] { return KSPSetKeyProperty(hProvider, hKey, nullptr, nullptr, 0, 0); });
    };
    const std::string kProvider = ": provider handle is null or not initialized";
    EXPECT_EQ(getWith(key, 0, nullptr, nullptr),
              failed(NTE_INVALID_HANDLE, {"KSPGetKeyProperty" + kProvider}));
    EXPECT_EQ(setWith(key, 0), failed(NTE_INVALID_HANDLE, {"KSPSetKeyProperty" + kProvider}));
    EXPECT_EQ(getWith(provider, provider, nullptr, nullptr),
              failed(NTE_INVALID_HANDLE, {"KSPGetKeyProperty: key handle is null"}));
    EXPECT_EQ(setWith(provider, provider),
              failed(NTE_INVALID_HANDLE, {"KSPSetKeyProperty: key handle is null"}));
    const StatusAnswer noArgument =
        failed(NTE_INVALID_PARAMETER, {"KSPGetKeyProperty: pszProperty or pcbResult is null"});
    EXPECT_EQ(getWith(provider, key, nullptr, &size), noArgument);
    EXPECT_EQ(getWith(provider, key, L"Length", nullptr), noArgument);
    EXPECT_EQ(setWith(provider, key),
              failed(NTE_INVALID_PARAMETER, {"KSPSetKeyProperty: pszProperty is null"}));
}

TEST_F(KspKeyPropertyTest, ValuesOfEveryProperty) {
    const Bytes id = wide(std::string(32, '1'));
    const DWORD lengths[] = {1024, 4096, 1024, 2048};
    const std::pair<const char*, Bytes> kRows[] = {
        {"Name", id},
        {"Algorithm Name", wide("RSA")},
        {"Algorithm Group", wide("RSA")},
        {"Length", dword(2048)},
        {"Lengths", bytesOf(lengths)},
        {"Key Usage", dword(2)},
        {"Export Policy", dword(1)},
        {"Block Length", dword(256)},
        {"Key Type", dword(0)},
        {"Unique Name", id},
        {"Provider Handle", bytesOf(provider)},
        {"ChainingMode", wide("ChainingModeCBC")},
    };
    for (const auto& [name, value] : kRows)
        EXPECT_EQ(valueOf(key, name), value) << name;
    EXPECT_EQ(id.size(), 66u);
    EXPECT_EQ(get(key, "Security Descr", nullptr, 0),
              failed(NTE_NOT_SUPPORTED, {"KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported"}));
    for (const char* name : {"PublicKeyLength", "UI Policy", "CLR IsEphemeral", "length", ""})
        EXPECT_EQ(get(key, name, nullptr, 0),
                  failed(NTE_NOT_SUPPORTED, {"KSPGetKeyProperty: unsupported property"}));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(KspKeyPropertyTest, TypeAndUsageGiveAlgorithmGroupLengthAndFlags) {
    struct Row {
        std::uint32_t type, usage;
        const char *algorithm, *group;
        DWORD bits, flags;
    };
    for (const Row& row : {Row{1, 2, "RSA", "RSA", 1024, 1}, Row{4, 3, "RSA", "RSA", 4096, 3},
                           Row{5, 1, "ECDSA_P256", "ECDSA", 256, 2}, Row{6, 3, "ECDSA_P384", "ECDSA", 384, 3},
                           Row{7, 0, "ECDSA_P521", "ECDSA", 521, 0}, Row{5, 2, "ECDH_P256", "ECDH", 256, 1},
                           Row{6, 2, "ECDH_P384", "ECDH", 384, 1}, Row{7, 2, "ECDH_P521", "ECDH", 521, 1}}) {
        const NCRYPT_KEY_HANDLE handle = addKey(token.addKeyPair(0x22, row.type, row.usage));
        EXPECT_EQ(valueOf(handle, "Algorithm Name"), wide(row.algorithm));
        EXPECT_EQ(valueOf(handle, "Algorithm Group"), wide(row.group));
        EXPECT_EQ(valueOf(handle, "Length"), dword(row.bits));
        EXPECT_EQ(valueOf(handle, "Block Length"), dword(row.bits / 8));
        EXPECT_EQ(valueOf(handle, "Key Usage"), dword(row.flags));
    }
}

TEST_F(KspKeyPropertyTest, LengthAndUsageAreTakenWithoutARangeCheck) {
    struct Row {
        const char* property;
        Bytes input;
        DWORD expected;
    };
    for (const Row& row : {Row{"Length", dword(8192), 8192}, Row{"Length", {1, 2, 3}, 8192},
                           Row{"Length", dword(0xFFFFFFFF), 0xFFFFFFFF}, Row{"Key Usage", dword(1), 1},
                           Row{"Key Usage", dword(0xFFFFFFFC), 1}, Row{"Key Usage", dword(7), 3},
                           Row{"Key Usage", {2, 0, 0}, 3}, Row{"Key Usage", dword(2), 2}}) {
        EXPECT_EQ(set(row.property, row.input), succeeded());
        EXPECT_EQ(valueOf(key, row.property), dword(row.expected)) << row.property;
        EXPECT_EQ(set(row.property, nullptr, 4), succeeded());
        EXPECT_EQ(valueOf(key, row.property), dword(row.expected)) << "null is ignored";
    }
    set("Length", dword(1));
    EXPECT_EQ(debugLines.back(), "KSP: Key length set to 1");
    EXPECT_EQ(set("Name", dword(1)), failed(NTE_NOT_SUPPORTED, {"KSPSetKeyProperty: unsupported property"}));
}

TEST_F(KspKeyPropertyTest, ChainingModeNeedsNoTerminator) {
    const StatusAnswer unknown = failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported chaining mode"});
    const Bytes ecb = wide("ChainingModeECB");
    EXPECT_EQ(set("ChainingMode", wide("ChainingModeECB", false)), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Chaining mode set to ECB");
    EXPECT_EQ(valueOf(key, "ChainingMode"), ecb);
    for (const Bytes& other : {wide("ChainingModeGCM"), wide("chainingmodecbc"), wide("ChainingModeCB"),
                               wide("ChainingModeCBCx"), wide(""), Bytes{'C'}})
        EXPECT_EQ(set("ChainingMode", other), unknown);
    EXPECT_EQ(set("ChainingMode", nullptr, 32), succeeded());
    EXPECT_EQ(set("ChainingMode", wide("ChainingModeCBC").data(), 0), succeeded());
    EXPECT_EQ(set("ChainingMode", ecb.data(), 0x80000000),
              failed(NTE_INVALID_PARAMETER, {"KSPSetKeyProperty: ChainingMode cbInput is too large"}));
    EXPECT_EQ(valueOf(key, "ChainingMode"), ecb);
    EXPECT_EQ(set("ChainingMode", wide("ChainingModeCBC")), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Chaining mode set to CBC");
    EXPECT_EQ(valueOf(key, "ChainingMode"), wide("ChainingModeCBC"));
}

// One for the whole process, and half a block for keys of 24 bytes: deliberate.
TEST_F(KspKeyPropertyTest, IvBelongsToTheProcessAndItsSizeToTheKey) {
    struct Row {
        std::size_t keyLength, ivLength;
        unsigned expected;
    };
    for (const Row& row : {Row{16, 16, 16}, Row{16, 8, 16}, Row{24, 8, 8}, Row{24, 16, 8}, Row{32, 16, 16},
                           Row{32, 17, 16}, Row{0, 5, 5}}) {
        const NCRYPT_KEY_HANDLE aes = addSymmetricKey(std::string(row.keyLength, 'k'));
        const Bytes iv(row.ivLength, static_cast<unsigned char>(row.keyLength));
        setProcessIv({});
        const StatusAnswer answer = call([&] {
            return KSPSetKeyProperty(provider, aes, L"IV", const_cast<PBYTE>(iv.data()),
                                     static_cast<DWORD>(iv.size()), 0);
        });
        if (row.ivLength == row.expected) {
            EXPECT_EQ(answer, succeeded());
            EXPECT_EQ(debugLines.back(), concat("KSP: IV set, size: ", row.ivLength));
            EXPECT_EQ(processIv(), iv);
        } else {
            EXPECT_EQ(answer,
                      failed(NTE_INVALID_PARAMETER, {concat("KSP: IV size mismatch: got ", row.ivLength,
                                                            ", expected ", row.expected)}));
            EXPECT_THAT(processIv(), IsEmpty());
        }
    }
    const Bytes iv(16, 1);
    EXPECT_EQ(set("IV", iv.data(), 0x80000000),
              failed(NTE_INVALID_PARAMETER, {"KSPSetKeyProperty: IV cbInput is too large"}));
    for (const auto& [input, length] : {std::pair{static_cast<const BYTE*>(nullptr), 16u}, {iv.data(), 0u}}) {
        setProcessIv(iv);
        EXPECT_EQ(set("IV", input, length), succeeded());
        EXPECT_EQ(debugLines.back(), "KSP: IV cleared");
        EXPECT_THAT(processIv(), IsEmpty());
    }
}

TEST_F(KspKeyPropertyTest, PinAndWindowBelongToTheProvider) {
    EXPECT_EQ(set("SmartCardPin", nullptr, 5),
              failed(NTE_INVALID_PARAMETER, {"KSPSetKeyProperty: NCRYPT_PIN_PROPERTY pbInput is null"}));
    EXPECT_EQ(set("SmartCardPin", wide("1234")),
              failed(NTE_VALIDATION_FAILED, {"KSP: PIN validation failed: 73"}))
        << "a wide PIN is read as its first character: deliberate";
    EXPECT_FALSE(isPinValidated(serial));
    EXPECT_EQ(set("SmartCardPin", reinterpret_cast<const BYTE*>("1234"), 0), succeeded());
    EXPECT_STREQ(getPin(serial).c_str(), "1234");
    const std::uintptr_t window = 0x1234;
    EXPECT_EQ(set("HWND Handle", bytesOf(window)), succeeded());
    EXPECT_EQ(liveProvider(provider)->parentWindow.load(), reinterpret_cast<HWND>(window));
    EXPECT_EQ(set("HWND Handle", dword(1)), succeeded());
    EXPECT_EQ(liveProvider(provider)->parentWindow.load(), nullptr);
}

TEST_F(KspKeyPropertyTest, CertificateIsStoredForTheKeyAndReadFromTheTokenAgain) {
    const Bytes der = ScriptedDeviceLibrary::fakeCertificate("leaf", "CN=none", "CN=leaf");
    const StatusAnswer missing = failed(NTE_NOT_FOUND, {"KSP: Certificate not found for key"});
    EXPECT_EQ(get(key, kCertificate, nullptr, 0), missing);
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_initDevice(serial=" + serial + ", reread=1)",
                            "veltra_findCertificateForKey(serial=" + serial + ", key=1111..1111)"));
    const std::string property = "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY ";
    const StatusAnswer empty = failed(NTE_INVALID_PARAMETER, {property + "pbInput is null or empty"});
    EXPECT_EQ(set(kCertificate, nullptr, 9), empty);
    EXPECT_EQ(set(kCertificate, der.data(), 0), empty);
    EXPECT_EQ(set(kCertificate, der.data(), 3073),
              failed(NTE_INVALID_PARAMETER, {property + "cbInput is too large"}));
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_EQ(set(kCertificate, der),
              failed(NTE_FAIL, {"KSPSetKeyProperty: password validation failed for certificate import"}));
    storePinOfToken();
    library.script("veltra_importCertificate", {.result = 8, .onCall = 1});
    EXPECT_EQ(set(kCertificate, der),
              failed(NTE_INTERNAL_ERROR, {"importCertificateWithChain: leaf import failed ret=8",
                                          "KSP: Import certificate failed: 8"}));
    EXPECT_EQ(set(kCertificate, der), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Certificate stored successfully");
    EXPECT_THAT(library.calls("veltra_importCertificate").back(),
                StartsWith("veltra_importCertificate(serial=" + serial + ", pin=1234, key=1111..1111, der="));
    ASSERT_EQ(token.certificates.size(), 1u);
    const VeltraCertificate& stored = token.certificates[0];
    EXPECT_EQ(stored.credentialIdLength, 1u);
    EXPECT_EQ(stored.credentialId[0], 0x11);
    EXPECT_STREQ(stored.label, "label");
    EXPECT_EQ(valueOf(key, kCertificate), der);
    token.certificates[0].derLength = 0xFFFFFFFF;
    EXPECT_EQ(get(key, kCertificate, nullptr, 0), missing);
}

} // namespace
} // namespace veltra::test
