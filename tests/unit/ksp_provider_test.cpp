#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/firmware_version.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

class KspProviderTest : public KspTest {
protected:
    StatusAnswer open(NCRYPT_PROV_HANDLE* handle) { return call(KSPOpenProvider, handle, nullptr, MAXDWORD); }
    StatusAnswer get(LPCWSTR name, BYTE* out = nullptr, DWORD capacity = 0) {
        return call(KSPGetProviderProperty, provider, name, out, capacity, &size, MAXDWORD);
    }
    StatusAnswer set(LPCWSTR name, const void* value, DWORD length) {
        return call(KSPSetProviderProperty, provider, name, static_cast<PBYTE>(const_cast<void*>(value)),
                    length, MAXDWORD);
    }
    StatusAnswer promptUser() { return call(KSPPromptUser, provider, 0, nullptr, 0); }
    std::vector<std::string> validationOf(const std::string& pin) const {
        return {"veltra_validatePassword(serial=" + serial + ", pin=" + pin + ", mode=1, remaining=0)"};
    }
};

const std::string kInit = "veltra_init(mode=0, kind=2)";
const std::string kMonitorRuns = "Monitor thread already running, not starting again."; // the fixture's
const std::string kList = "veltra_getConnectedDeviceList(refresh=0)";

std::string initCall(const std::string& serial) {
    return "veltra_initDevice(serial=" + serial + ", reread=0)";
}

TEST_F(KspProviderTest, OpeningBindsToTheFirstTokenAndInitialisesWhatIsNotYet) {
    const std::string second = freshName("Token");
    const std::string third = freshName("Token");
    library.addToken(second);
    library.addToken(third);
    token.info.firmwareVersion = "2.1.7";
    library.script("veltra_initDevice", {.result = 17, .onCall = 1});
    const std::string info = "veltra_getTokenInfo(serial=" + serial + ")";
    library.clearCalls();
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(open(&handle), failed(0, {"KSP: Init device failed for " + second + " : 17"}));
    EXPECT_THAT(library.calls(),
                ElementsAre(kInit, kList, info, kInit, initCall(second), kInit, initCall(third)))
        << "the first token was initialised by the fixture's provider";
    EXPECT_THAT(debugLines, ElementsAre("KSPOpenProvider", kMonitorRuns, "KSP: Provider firmware=2.1.7",
                                        "KSP: Provider opened successfully"));
    EXPECT_FALSE(isInitialised(second));
    EXPECT_TRUE(isInitialised(third));
    ASSERT_NE(liveProvider(handle), nullptr);
    EXPECT_EQ(liveProvider(handle)->serial(), serial);
    EXPECT_EQ(liveProvider(handle)->firmwareVersion, "2.1.7");
    EXPECT_EQ(KSPFreeProvider(handle), 0);

    library.clearCalls();
    EXPECT_EQ(open(&handle), succeeded());
    EXPECT_THAT(library.calls(), ElementsAre(kInit, kList, info, kInit, initCall(second)));
    EXPECT_EQ(KSPFreeProvider(handle), 0);
}

TEST_F(KspProviderTest, ProviderOpenedWithoutATokenStaysUnbound) {
    library.setConnected(serial, false);
    library.clearCalls();
    ASSERT_EQ(open(&provider), succeeded());
    EXPECT_THAT(library.calls(), ElementsAre(kInit, kList));
    EXPECT_THAT(debugLines, ElementsAre("KSPOpenProvider", kMonitorRuns,
                                        "KSP: No token connected, opening provider without device"));
    library.setConnected(serial, true);
    EXPECT_EQ(set(L"SmartCardPin", "1234", 5).status, kValidationFailed);
    EXPECT_THAT(library.calls("veltra_validatePassword"),
                ElementsAre("veltra_validatePassword(serial=, pin=1234, mode=1, remaining=0)"));
    EXPECT_EQ(KSPFreeProvider(provider), 0);
}

TEST_F(KspProviderTest, OpeningThatFailsHandsOutNothing) {
    NCRYPT_PROV_HANDLE handle = 77;
    library.script("veltra_getConnectedDeviceList", {.throws = true});
    EXPECT_EQ(open(&handle), failed(NTE_INTERNAL_ERROR, {"KSPOpenProvider: unexpected exception"}));
    library.script("veltra_init", {.outOfMemory = true});
    EXPECT_EQ(open(&handle), failed(NTE_NO_MEMORY, {"KSPOpenProvider: out of memory"}));
    EXPECT_THAT(debugLines, ElementsAre("KSPOpenProvider")) << "the monitor is not started without a library";
    EXPECT_EQ(handle, 77u);
}

TEST_F(KspProviderTest, PropertiesThatAreAnsweredAndThatAreNot) {
    const Bytes maxAndVersion = dwords({0x100}); // the same number twice: deliberate
    for (const auto& [name, value] :
         {std::pair<LPCWSTR, Bytes>{L"Name", wideBytes("Veltra Cryptographic Provider CSP")},
          {L"Impl Type", dwords({9})},
          {L"Version", maxAndVersion},
          {L"Algorithm Name", wideBytes("RSA")},
          {L"Max Name Length", maxAndVersion},
          {L"Security Descr Support", dwords({0})}}) {
        EXPECT_EQ(answered([&, property = name](BYTE* out, DWORD capacity) {
                      return get(property, out, capacity);
                  }),
                  value);
    }
    EXPECT_EQ(get(L"Use Count"),
              failed(NTE_NOT_SUPPORTED, {"KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported"}));
    for (const LPCWSTR name : {L"name", L"Name ", L"Nam", L"", L"UI Policy"}) {
        EXPECT_EQ(get(name), failed(NTE_NOT_SUPPORTED, {"KSPGetProviderProperty: unsupported property"}));
        EXPECT_EQ(set(name, "", 0),
                  failed(NTE_NOT_SUPPORTED, {"KSPSetProviderProperty: unsupported property"}));
    }
}

TEST_F(KspProviderTest, WindowHandleIsTakenFromItsWholeSizeAndClearedByLess) {
    const BYTE unaligned[10] = {0xEE, 1, 2, 3, 4, 5, 6, 7, 8, 0xEE};
    HWND given = nullptr;
    std::memcpy(&given, unaligned + 1, sizeof given);
    const std::pair<const void*, DWORD> kClearing[] = {{unaligned, sizeof given - 1},
                                                       {nullptr, sizeof given}};
    for (const auto& [value, length] : kClearing) {
        EXPECT_EQ(set(L"HWND Handle", unaligned + 1, sizeof given + 1), succeeded());
        EXPECT_EQ(liveProvider(provider)->parentWindow.load(), given);
        EXPECT_EQ(set(L"HWND Handle", value, length), succeeded());
        EXPECT_EQ(liveProvider(provider)->parentWindow.load(), nullptr);
    }
}

TEST_F(KspProviderTest, AcceptedPinIsStoredAndOutlivesTheProvider) {
    EXPECT_EQ(set(L"SmartCardPin", "1234", 1), succeeded()) << "the stated length is ignored";
    EXPECT_THAT(debugLines, ElementsAre("KSPSetProviderProperty", "KSP: Setting PIN via property"));
    EXPECT_EQ(library.calls("veltra_validatePassword"), validationOf("1234"));
    EXPECT_EQ(KSPFreeProvider(provider), 0);
    EXPECT_EQ(getPin(serial).view(), "1234");
    EXPECT_TRUE(isPinValidated(serial));
    provider = openProvider();
    EXPECT_EQ(promptUser(), succeeded());
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

// A wide PIN reads as its first character, one that does not end as its first 255 bytes.
TEST_F(KspProviderTest, RefusedPinIsNotStored) {
    const std::string sevens(300, '7');
    const std::vector<char> unterminated(255, '7');
    for (const auto& [value, read] : {std::pair<const void*, std::string>{L"1234", "1"},
                                      {unterminated.data(), sevens.substr(0, 255)},
                                      {sevens.c_str(), sevens.substr(0, 255)}}) {
        library.clearCalls();
        EXPECT_EQ(set(L"SmartCardPin", value, 10),
                  failed(kValidationFailed, {"KSP: PIN validation failed: 73"}));
        EXPECT_EQ(library.calls("veltra_validatePassword"), validationOf(read));
        EXPECT_FALSE(isPinValidated(serial));
        EXPECT_EQ(getPin(serial).view(), "");
    }
}

TEST_F(KspProviderTest, LoggedInTokenIsNotAskedForAndKeepsAnEmptyPin) {
    token.logIn();
    EXPECT_EQ(promptUser(), succeeded());
    EXPECT_THAT(debugLines, ElementsAre("KSPPromptUser", "KSP: Password not validated, checking SSO"));
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_EQ(getPin(serial).view(), "");
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(KspProviderTest, WhatThePromptedUserSees) {
    const std::string wrong = "Invalid user pin. Remaining attempts(2)";
    const std::string kindly = "System time mismatch, Kindly login to Token Manager"; // not misspelt here
    const auto refused = failed(NTE_FAIL, {"KSPPromptUser: password validation failed"});
    const std::string cancelled = "KSP: User cancelled password dialog";
    prompt.willType({"0"});
    EXPECT_EQ(promptUser(), refused);
    EXPECT_THAT(debugLines, Contains(cancelled));
    library.script("veltra_validatePassword", {.result = 48, .onCall = 1});
    prompt.willType({"1234", "1234"});
    EXPECT_EQ(promptUser(), refused);
    EXPECT_THAT(debugLines, Not(Contains(cancelled)));
    EXPECT_FALSE(isPinValidated(serial));
    EXPECT_EQ(promptUser(), succeeded());
    EXPECT_EQ(getPin(serial).view(), "1234");
    EXPECT_EQ(promptUser(), succeeded()) << "not asked again";
    EXPECT_THAT(debugLines, ElementsAre("KSPPromptUser", "KSP: PIN already validated"));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", wrong, "ask", "ask", kindly, "ask"));
}

TEST_F(KspProviderTest, SupportedAlgorithmsLeaveOutWhatKeysCanStillUse) {
    for (const LPCWSTR name : {L"RSA", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521", L"SHA224", L"SHA256",
                               L"SHA1", L"SHA384", L"SHA512"})
        EXPECT_EQ(call(KSPIsAlgSupported, 0, name, MAXDWORD), succeeded()) << fromWide(name);
    for (const LPCWSTR name :
         {L"AES", L"ECDH_P256", L"ECDH_P384", L"ECDH_P521", L"rsa", L"RSA ", L"", L"MD5"})
        EXPECT_EQ(call(KSPIsAlgSupported, 0, name, MAXDWORD),
                  failed(NTE_NOT_SUPPORTED, {"KSPIsAlgSupported: algorithm not supported"}));
}

TEST_F(KspProviderTest, EnumeratedAlgorithmsAreOneBlock) {
    const std::vector<std::string> kAll = {"RSA 3 20 0",        "ECDSA_P256 5 16 0", "ECDSA_P384 5 16 0",
                                           "ECDSA_P521 5 16 0", "SHA1 2 2 0",        "SHA224 2 2 0",
                                           "SHA256 2 2 0",      "SHA384 2 2 0",      "SHA512 2 2 0"};
    struct Row {
        DWORD operations;
        std::size_t first, count;
    };
    // Cipher, hash, asymmetric encryption, secret agreement, signature, both of RSA's, hash and signature.
    for (const Row& row : {Row{0, 0, 9}, Row{1, 0, 0}, Row{2, 4, 5}, Row{4, 0, 1}, Row{8, 0, 0},
                           Row{0x10, 0, 4}, Row{0x14, 0, 4}, Row{0x12, 0, 9}}) {
        SCOPED_TRACE(row.operations);
        DWORD count = 77;
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(call(KSPEnumAlgorithms, provider, row.operations, &count, &list, MAXDWORD), succeeded());
        EXPECT_THAT(debugLines, ElementsAre("KSPEnumAlgorithms",
                                            "KSP: Enumerated " + std::to_string(row.count) + " algorithms"));
        ASSERT_EQ(count, row.count);
        ASSERT_NE(list, nullptr);
        for (DWORD i = 0; i < count; ++i) {
            const NCryptAlgorithmName& entry = list[i];
            EXPECT_EQ(concat(fromWide(entry.pszName), " ", entry.dwClass, " ", entry.dwAlgOperations, " ",
                             entry.dwFlags),
                      kAll[row.first + i]);
        }
        EXPECT_EQ(call(KSPFreeBuffer, list), succeeded());
        EXPECT_EQ(LiveRecords<void>::find(reinterpret_cast<std::uintptr_t>(list)), nullptr);
        for (void* const freedOrForeign :
             {static_cast<void*>(list), static_cast<void*>(&size), reinterpret_cast<void*>(provider)}) {
            EXPECT_EQ(call(KSPFreeBuffer, freedOrForeign), succeeded());
            EXPECT_THAT(debugLines, ElementsAre("KSPFreeBuffer"));
        }
        EXPECT_NE(liveProvider(provider), nullptr);
    }
}

TEST(FirmwareVersionTest, PartsAreComparedAsNumbers) {
    for (const char* newer : {"2.0.0", "2", "2.0", "2.0.0.1", "2.0.1", "2.1", "10.0.0", "3.0.0-beta",
                              "2x.0.0", "18446744073709551617.0.0"})
        EXPECT_TRUE(isFirmware2OrNewer(newer)) << newer;
    for (const char* older :
         {"", "1.9.9", "1.10.0", "x", "v2.0.0", ".2", "1", "-2.0.0", "1.99999999999999999999999"})
        EXPECT_FALSE(isFirmware2OrNewer(older)) << older;
}

} // namespace
} // namespace veltra::test
