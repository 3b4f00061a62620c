#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"
#include "token/process_iv.h"

#include <cstring>

namespace veltra::test {
namespace {

const Bytes kCbc = wideBytes("ChainingModeCBC"), kEcb = wideBytes("ChainingModeECB");
const std::string kUnsupported = "Property: unsupported property";

class KspPropertyTest : public KspTest {
protected:
    StatusAnswer get(const std::string& name, BYTE* out = nullptr, DWORD capacity = 0) {
        const std::vector<WCHAR> property = wideText(name);
        return key == 0
                   ? call(KSPGetProviderProperty, provider, property.data(), out, capacity, &size, MAXDWORD)
                   : call(KSPGetKeyProperty, provider, key, property.data(), out, capacity, &size, 0);
    }
    StatusAnswer set(const std::string& name, const void* value, DWORD length) {
        const std::vector<WCHAR> property = wideText(name);
        auto* const input = static_cast<PBYTE>(const_cast<void*>(value));
        return key == 0 ? call(KSPSetProviderProperty, provider, property.data(), input, length, MAXDWORD)
                        : call(KSPSetKeyProperty, provider, key, property.data(), input, length, 0);
    }
    StatusAnswer set(const std::string& name, const Bytes& value) {
        return set(name, value.data(), static_cast<DWORD>(value.size()));
    }
    /// What is answered for these names.
    void expectValues(const std::vector<std::pair<std::string, Bytes>>& rows) {
        for (const auto& [name, value] : rows)
            EXPECT_EQ(answered([&, &property = name](BYTE* out, DWORD capacity) {
                          return get(property, out, capacity);
                      }),
                      value)
                << name;
    }
    void expectUnsupported(const std::vector<std::string>& names) {
        const std::string what = key == 0 ? "Provider" : "Key";
        for (const std::string& name : names)
            EXPECT_EQ(get(name), failed(NTE_NOT_SUPPORTED, {"KSPGet" + what + kUnsupported}));
        EXPECT_EQ(set(names[0], "", 0), failed(NTE_NOT_SUPPORTED, {"KSPSet" + what + kUnsupported}));
    }
    NCRYPT_KEY_HANDLE key = 0; ///< 0: the provider's properties are meant
};

TEST_F(KspPropertyTest, ValuesOfTheProvider) {
    const Bytes maxAndVersion = dwords({0x100}); // the same number twice: deliberate
    expectValues({{"Name", wideBytes("Veltra Cryptographic Provider CSP")},
                  {"Impl Type", dwords({9})},
                  {"Version", maxAndVersion},
                  {"Algorithm Name", wideBytes("RSA")},
                  {"Max Name Length", maxAndVersion},
                  {"Security Descr Support", dwords({0})}});
    EXPECT_EQ(get("Use Count"),
              failed(NTE_NOT_SUPPORTED, {"KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported"}));
    expectUnsupported({"name", "Name ", "Nam", "", "UI Policy"});
}

TEST_F(KspPropertyTest, ValuesOfAKeyByTypeAndUsage) {
    using Row = std::tuple<std::uint32_t, std::uint32_t, const char*, const char*, DWORD, DWORD>;
    const Bytes id = wideBytes(std::string(32, '2'));
    const auto* const handle = reinterpret_cast<const BYTE*>(&provider);
    for (const auto& [type, usage, algorithm, group, bits, flags] :
         {Row{1, 2, "RSA", "RSA", 1024, 1}, Row{4, 3, "RSA", "RSA", 4096, 3},
          Row{5, 1, "ECDSA_P256", "ECDSA", 256, 2}, Row{6, 3, "ECDSA_P384", "ECDSA", 384, 3},
          Row{7, 0, "ECDSA_P521", "ECDSA", 521, 0}, Row{5, 2, "ECDH_P256", "ECDH", 256, 1},
          Row{6, 2, "ECDH_P384", "ECDH", 384, 1}, Row{7, 2, "ECDH_P521", "ECDH", 521, 1}}) {
        key = addKey(token.addKeyPair(0x22, type, usage));
        expectValues({{"Name", id},
                      {"Algorithm Name", wideBytes(algorithm)},
                      {"Algorithm Group", wideBytes(group)},
                      {"Length", dwords({bits})},
                      {"Lengths", dwords({1024, 4096, 1024, 2048})}, // for EC keys too: deliberate
                      {"Key Usage", dwords({flags})},
                      {"Export Policy", dwords({1})},
                      {"Block Length", dwords({bits / 8})},
                      {"Key Type", dwords({0})},
                      {"Unique Name", id},
                      {"Provider Handle", Bytes(handle, handle + sizeof provider)},
                      {"ChainingMode", kCbc}});
    }
    EXPECT_EQ(get("Security Descr"),
              failed(NTE_NOT_SUPPORTED, {"KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported"}));
    expectUnsupported({"PublicKeyLength", "UI Policy", "length", ""});
}

TEST_F(KspPropertyTest, WhatIsSetIsAnsweredAndWhatIsMissingOrShortIsIgnored) {
    key = addKey(token.addKeyPair(0x11));
    const Bytes unterminated(kCbc.begin(), kCbc.end() - 1); // in the middle of a character
    using Row = std::tuple<const char*, Bytes, Bytes>;
    for (const auto& [property, input, expected] :
         {Row{"Length", dwords({8192}), dwords({8192})}, Row{"Length", {1, 2, 3}, dwords({8192})},
          Row{"Key Usage", dwords({1}), dwords({1})}, Row{"Key Usage", dwords({0xFFFFFFFC}), dwords({1})},
          Row{"Key Usage", dwords({7}), dwords({3})}, Row{"Key Usage", {2, 0, 0}, dwords({3})},
          Row{"Key Usage", dwords({2}), dwords({2})}, Row{"ChainingMode", kEcb, kEcb},
          Row{"ChainingMode", {}, kEcb}, Row{"ChainingMode", unterminated, kCbc}}) {
        EXPECT_EQ(set(property, input), succeeded());
        EXPECT_EQ(set(property, nullptr, 4), succeeded());
        expectValues({{property, expected}});
    }
    for (const Bytes& other : {wideBytes("chainingmodeecb"), wideBytes("ChainingModeECBx"), Bytes{'C'}})
        EXPECT_EQ(set("ChainingMode", other), failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported chaining mode"}));
    for (const std::string property : {"ChainingMode", "IV"})
        EXPECT_EQ(
            set(property, kEcb.data(), 0x80000000),
            failed(NTE_INVALID_PARAMETER, {"KSPSetKeyProperty: " + property + " cbInput is too large"}));
    expectValues({{"ChainingMode", kCbc}});
}

// One for the whole process, and half a block for keys of 24 bytes: deliberate.
TEST_F(KspPropertyTest, IvBelongsToTheProcessAndItsSizeToTheKey) {
    for (const auto& [keyLength, ivLength, expected] :
         {std::tuple{16u, 16u, 16u}, {16, 8, 16}, {24, 8, 8}, {24, 16, 8}, {32, 17, 16}, {0, 5, 5}}) {
        key = addSymmetricKey(std::string(keyLength, 'k'));
        setProcessIv(kCbc);
        const Bytes iv(ivLength, 1);
        const std::string line = concat("KSP: IV size mismatch: got ", ivLength, ", expected ", expected);
        const bool fits = ivLength == expected;
        EXPECT_EQ(set("IV", iv), fits ? succeeded() : failed(NTE_INVALID_PARAMETER, {line}));
        EXPECT_EQ(processIv(), fits ? iv : kCbc);
    }
    for (const DWORD length : {0, 16}) {
        setProcessIv(kCbc);
        EXPECT_EQ(set("IV", length == 0 ? kCbc.data() : nullptr, length), succeeded());
        EXPECT_THAT(processIv(), IsEmpty());
    }
}

// Of a window handle nothing less than the whole is taken.
TEST_F(KspPropertyTest, WindowBelongsToTheProvider) {
    const BYTE unaligned[10] = {0xEE, 1, 2, 3, 4, 5, 6, 7, 8, 0xEE};
    HWND given = nullptr;
    std::memcpy(&given, unaligned + 1, sizeof given);
    const NCRYPT_KEY_HANDLE any = addKey(token.addKeyPair(0x11));
    using Row = std::tuple<NCRYPT_KEY_HANDLE, const BYTE*, DWORD, HWND>;
    for (const auto& [object, value, length, taken] :
         {Row{any, unaligned + 1, sizeof given, given}, Row{0, unaligned + 1, sizeof given - 1, nullptr},
          Row{0, unaligned + 1, sizeof given + 1, given}, Row{any, nullptr, sizeof given, nullptr}}) {
        key = object;
        EXPECT_EQ(set("HWND Handle", value, length), succeeded());
        EXPECT_EQ(liveProvider(provider)->parentWindow.load(), taken);
    }
}

// The stated length is ignored: a wide PIN reads as its first character, a long one as its first 255.
TEST_F(KspPropertyTest, PinIsStoredWhenTheTokenAcceptsItAndOutlivesTheProvider) {
    const std::vector<char> sevens(255, '7'); // nothing ends it
    for (const auto& [value, read] :
         {std::pair<const void*, std::string>{L"1234", "1"}, {sevens.data(), std::string(255, '7')}}) {
        library.clearCalls();
        EXPECT_EQ(set("SmartCardPin", value, 10),
                  failed(kValidationFailed, {"KSP: PIN validation failed: 73"}));
        EXPECT_THAT(library.calls(), ElementsAre("veltra_validatePassword(serial=" + serial +
                                                 ", pin=" + read + ", mode=1, remaining=0)"));
        EXPECT_FALSE(isPinValidated(serial));
        EXPECT_EQ(getPin(serial).view(), "");
    }
    token.remaining = 3;
    key = addKey(token.addKeyPair(0x11));
    EXPECT_EQ(set("SmartCardPin", "1234", 0), succeeded());
    EXPECT_EQ(KSPFreeProvider(provider), 0);
    EXPECT_EQ(getPin(serial).view(), "1234");
    EXPECT_TRUE(isPinValidated(serial));
}

TEST_F(KspPropertyTest, CertificateIsStoredForTheKeyAndReadFromTheTokenAgain) {
    const std::string property = "SmartCardKeyCertificate";
    const Bytes der = ScriptedDeviceLibrary::fakeCertificate("leaf", "CN=none", "CN=leaf");
    storePinOfToken();
    key = addKey(token.addKeyPair(0x11));
    EXPECT_EQ(get(property), failed(NTE_NOT_FOUND, {"KSP: Certificate not found for key"}));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_initDevice(serial=" + serial + ", reread=1)",
                            "veltra_findCertificateForKey(serial=" + serial + ", key=1111..1111)"));
    library.script("veltra_importCertificate", {.result = 8, .onCall = 1});
    EXPECT_EQ(set(property, der),
              failed(NTE_INTERNAL_ERROR, {"importCertificateWithChain: leaf import failed ret=8",
                                          "KSP: Import certificate failed: 8"}));
    EXPECT_EQ(set(property, der), succeeded());
    ASSERT_EQ(token.certificates.size(), 1u);
    const VeltraCertificate& stored = token.certificates[0];
    EXPECT_EQ(Bytes(stored.credentialId, stored.credentialId + stored.credentialIdLength), Bytes{0x11});
    EXPECT_STREQ(stored.label, kPairLabel);
    expectValues({{property, der}});
}

} // namespace
} // namespace veltra::test
