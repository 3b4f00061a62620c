#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"
#include "token/process_iv.h"

namespace veltra::test {
namespace {

const Bytes kCbc = wideBytes("ChainingModeCBC");
const Bytes kEcb = wideBytes("ChainingModeECB");

class KspKeyPropertyTest : public KspTest {
protected:
    StatusAnswer get(const std::string& property, BYTE* out = nullptr, DWORD capacity = 0) {
        return call(KSPGetKeyProperty, provider, key, wideText(property).data(), out, capacity, &size, 0);
    }
    Bytes valueOf(const std::string& property) {
        return answered([&](BYTE* out, DWORD capacity) { return get(property, out, capacity); });
    }
    StatusAnswer set(const std::string& property, const BYTE* input, DWORD length) {
        return call(KSPSetKeyProperty, provider, key, wideText(property).data(), const_cast<PBYTE>(input),
                    length, 0);
    }
    StatusAnswer set(const std::string& property, const Bytes& input) {
        return set(property, input.data(), static_cast<DWORD>(input.size()));
    }

    NCRYPT_KEY_HANDLE key = addKey(token.addKeyPair(0x11));
};

TEST_F(KspKeyPropertyTest, ValuesByTypeAndUsage) {
    struct Row {
        std::uint32_t type, usage;
        const char *algorithm, *group;
        DWORD bits, flags;
    };
    const Bytes id = wideBytes(std::string(32, '2'));
    const Bytes lengths = dwords({1024, 4096, 1024, 2048});
    const auto* const handle = reinterpret_cast<const BYTE*>(&provider);
    for (const Row& row : {Row{1, 2, "RSA", "RSA", 1024, 1}, Row{4, 3, "RSA", "RSA", 4096, 3},
                           Row{5, 1, "ECDSA_P256", "ECDSA", 256, 2}, Row{6, 3, "ECDSA_P384", "ECDSA", 384, 3},
                           Row{7, 0, "ECDSA_P521", "ECDSA", 521, 0}, Row{5, 2, "ECDH_P256", "ECDH", 256, 1},
                           Row{6, 2, "ECDH_P384", "ECDH", 384, 1}, Row{7, 2, "ECDH_P521", "ECDH", 521, 1}}) {
        key = addKey(token.addKeyPair(0x22, row.type, row.usage));
        for (const auto& [name, value] : {std::pair{"Name", id},
                                          {"Algorithm Name", wideBytes(row.algorithm)},
                                          {"Algorithm Group", wideBytes(row.group)},
                                          {"Length", dwords({row.bits})},
                                          {"Lengths", lengths}, // for EC keys too: deliberate
                                          {"Key Usage", dwords({row.flags})},
                                          {"Export Policy", dwords({1})},
                                          {"Block Length", dwords({row.bits / 8})},
                                          {"Key Type", dwords({0})},
                                          {"Unique Name", id},
                                          {"Provider Handle", Bytes(handle, handle + sizeof provider)},
                                          {"ChainingMode", kCbc}}) {
            EXPECT_EQ(valueOf(name), value) << name;
            EXPECT_EQ(debugLines.back(), concat("KSP: GetKeyProperty: ", name));
        }
    }
    EXPECT_EQ(get("Security Descr"),
              failed(NTE_NOT_SUPPORTED, {"KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported"}));
    for (const char* name : {"PublicKeyLength", "UI Policy", "CLR IsEphemeral", "length", ""})
        EXPECT_EQ(get(name), failed(NTE_NOT_SUPPORTED, {"KSPGetKeyProperty: unsupported property"}));
    EXPECT_EQ(set("Name", id), failed(NTE_NOT_SUPPORTED, {"KSPSetKeyProperty: unsupported property"}));
}

TEST_F(KspKeyPropertyTest, WhatIsSetIsAnsweredAndWhatIsMissingOrShortIsIgnored) {
    struct Row {
        const char* property;
        Bytes input, expected;
        const char* line = nullptr;
    };
    for (const Row& row :
         {Row{"Length", dwords({8192}), dwords({8192}), "KSP: Key length set to 8192"},
          Row{"Length", {1, 2, 3}, dwords({8192})}, Row{"Key Usage", dwords({1}), dwords({1})},
          Row{"Key Usage", dwords({0xFFFFFFFC}), dwords({1})}, Row{"Key Usage", dwords({7}), dwords({3})},
          Row{"Key Usage", {2, 0, 0}, dwords({3})}, Row{"Key Usage", dwords({2}), dwords({2})},
          Row{"ChainingMode", kEcb, kEcb, "KSP: Chaining mode set to ECB"}, Row{"ChainingMode", {}, kEcb},
          // Not terminated, and in the middle of a character.
          Row{"ChainingMode", {kCbc.begin(), kCbc.end() - 1}, kCbc, "KSP: Chaining mode set to CBC"}}) {
        EXPECT_EQ(set(row.property, row.input), succeeded());
        std::vector<std::string> lines = {"KSPSetKeyProperty"};
        if (row.line) lines.emplace_back(row.line);
        EXPECT_EQ(debugLines, lines);
        EXPECT_EQ(set(row.property, nullptr, 4), succeeded());
        EXPECT_EQ(valueOf(row.property), row.expected) << row.property;
    }
    for (const Bytes& other :
         {wideBytes("chainingmodeecb"), wideBytes("ChainingModeECBx"), wideBytes(""), Bytes{'C'}})
        EXPECT_EQ(set("ChainingMode", other), failed(NTE_NOT_SUPPORTED, {"KSP: Unsupported chaining mode"}));
    for (const char* property : {"ChainingMode", "IV"})
        EXPECT_EQ(set(property, kEcb.data(), 0x80000000),
                  failed(NTE_INVALID_PARAMETER,
                         {concat("KSPSetKeyProperty: ", property, " cbInput is too large")}));
    EXPECT_EQ(valueOf("ChainingMode"), kCbc);
}

// One for the whole process, and half a block for keys of 24 bytes: deliberate.
TEST_F(KspKeyPropertyTest, IvBelongsToTheProcessAndItsSizeToTheKey) {
    for (const auto& [keyLength, ivLength, expected] : {std::tuple{16u, 16u, 16u},
                                                        {16, 8, 16},
                                                        {24, 8, 8},
                                                        {24, 16, 8},
                                                        {32, 16, 16},
                                                        {32, 17, 16},
                                                        {0, 5, 5}}) {
        key = addSymmetricKey(std::string(keyLength, 'k'));
        const Bytes iv(ivLength, 1);
        setProcessIv(kCbc);
        if (ivLength == expected) {
            EXPECT_EQ(set("IV", iv), succeeded());
            EXPECT_EQ(debugLines.back(), concat("KSP: IV set, size: ", ivLength));
            EXPECT_EQ(processIv(), iv);
        } else {
            const std::string line = concat("KSP: IV size mismatch: got ", ivLength, ", expected ", expected);
            EXPECT_EQ(set("IV", iv), failed(NTE_INVALID_PARAMETER, {line}));
            EXPECT_EQ(processIv(), kCbc);
        }
    }
    for (const auto& [input, length] :
         {std::pair{static_cast<const BYTE*>(nullptr), 16u}, {kCbc.data(), 0u}}) {
        setProcessIv(kCbc);
        EXPECT_EQ(set("IV", input, length), succeeded());
        EXPECT_EQ(debugLines.back(), "KSP: IV cleared");
        EXPECT_THAT(processIv(), IsEmpty());
    }
}

TEST_F(KspKeyPropertyTest, PinAndWindowBelongToTheProvider) {
    EXPECT_EQ(set("SmartCardPin", reinterpret_cast<const BYTE*>("1234"), 0), succeeded());
    EXPECT_STREQ(getPin(serial).c_str(), "1234");
    EXPECT_EQ(set("HWND Handle", dwords({0x1234, 0})), succeeded());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(liveProvider(provider)->parentWindow.load()), 0x1234u);
}

TEST_F(KspKeyPropertyTest, CertificateIsStoredForTheKeyAndReadFromTheTokenAgain) {
    const std::string property = "SmartCardKeyCertificate";
    const Bytes der = ScriptedDeviceLibrary::fakeCertificate("leaf", "CN=none", "CN=leaf");
    EXPECT_EQ(get(property), failed(NTE_NOT_FOUND, {"KSP: Certificate not found for key"}));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_initDevice(serial=" + serial + ", reread=1)",
                            "veltra_findCertificateForKey(serial=" + serial + ", key=1111..1111)"));
    EXPECT_EQ(set(property, der),
              failed(NTE_FAIL, {"KSPSetKeyProperty: password validation failed for certificate import"}));
    storePinOfToken();
    library.script("veltra_importCertificate", {.result = 8, .onCall = 1});
    EXPECT_EQ(set(property, der),
              failed(NTE_INTERNAL_ERROR, {"importCertificateWithChain: leaf import failed ret=8",
                                          "KSP: Import certificate failed: 8"}));
    EXPECT_EQ(set(property, der), succeeded());
    EXPECT_EQ(debugLines.back(), "KSP: Certificate stored successfully");
    ASSERT_EQ(token.certificates.size(), 1u);
    const VeltraCertificate& stored = token.certificates[0];
    EXPECT_EQ(Bytes(stored.credentialId, stored.credentialId + stored.credentialIdLength), Bytes{0x11});
    EXPECT_STREQ(stored.label, kPairLabel);
    EXPECT_EQ(valueOf(property), der);
}

} // namespace
} // namespace veltra::test
