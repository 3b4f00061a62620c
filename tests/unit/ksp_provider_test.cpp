#include "support/ksp_test.h"
#include "support/working_calls.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/firmware_version.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace veltra::test {
namespace {

constexpr DWORD kSilent = 0x40;

using KspProviderTest = KspTest;

TEST_F(KspProviderTest, OpeningBindsToTheFirstTokenAndInitialisesWhatIsNotYet) {
    const std::string second = freshName("Token"), third = freshName("Token");
    library.addToken(second);
    library.addToken(third);
    token.info.firmwareVersion = "2.1.7";
    library.script("veltra_initDevice", {.result = 17, .onCall = 1});
    const std::string init = "veltra_init(mode=0, kind=2)";
    const auto initialise = [](const std::string& of) {
        return "veltra_initDevice(serial=" + of + ", reread=0)";
    };
    EXPECT_EQ(call(KSPOpenProvider, &provider, nullptr, MAXDWORD),
              failed(0, {"KSP: Init device failed for " + second + " : 17"}));
    keep(provider);
    EXPECT_THAT(library.calls(), ElementsAre(init, "veltra_getConnectedDeviceList(refresh=0)",
                                             "veltra_getTokenInfo(serial=" + serial + ")", init,
                                             initialise(second), init, initialise(third)))
        << "the first token was initialised by the fixture's provider";
    EXPECT_EQ(liveProvider(provider)->serial(), serial);
    EXPECT_EQ(liveProvider(provider)->firmwareVersion, "2.1.7");
}

// What keys can still use is left out: AES, and the agreement of keys.
TEST_F(KspProviderTest, SupportedAlgorithmsAreListedInOneBlock) {
    const std::vector<std::string> kAll = {"RSA 3 20 0",        "ECDSA_P256 5 16 0", "ECDSA_P384 5 16 0",
                                           "ECDSA_P521 5 16 0", "SHA1 2 2 0",        "SHA224 2 2 0",
                                           "SHA256 2 2 0",      "SHA384 2 2 0",      "SHA512 2 2 0"};
    // Cipher, hash, asymmetric encryption, secret agreement, signature, both of RSA's, hash and signature.
    using Row = std::tuple<DWORD, int, int>;
    for (const auto& [operations, first, count] :
         {Row{0, 0, 9}, Row{1, 0, 0}, Row{2, 4, 5}, Row{4, 0, 1}, Row{8, 0, 0}, Row{0x10, 0, 4},
          Row{0x14, 0, 4}, Row{0x12, 0, 9}}) {
        SCOPED_TRACE(operations);
        DWORD length = 77;
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(call(KSPEnumAlgorithms, provider, operations, &length, &list, MAXDWORD), succeeded());
        ASSERT_NE(list, nullptr);
        std::vector<std::string> listed;
        for (const NCryptAlgorithmName& entry : std::span(list, length)) {
            listed.push_back(concat(fromWide(entry.pszName), " ", entry.dwClass, " ", entry.dwAlgOperations,
                                    " ", entry.dwFlags));
            EXPECT_EQ(call(KSPIsAlgSupported, 0, entry.pszName, MAXDWORD), succeeded());
        }
        EXPECT_EQ(listed, std::vector(kAll.begin() + first, kAll.begin() + first + count));
        // What was freed, or is no block of the provider's, is left alone.
        for (void* const buffer : {static_cast<void*>(list), static_cast<void*>(list),
                                   static_cast<void*>(&size), reinterpret_cast<void*>(provider)})
            EXPECT_EQ(call(KSPFreeBuffer, buffer), succeeded());
        EXPECT_EQ(LiveRecords<void>::find(reinterpret_cast<std::uintptr_t>(list)), nullptr);
    }
    EXPECT_NE(liveProvider(provider), nullptr);
    for (const LPCWSTR name : {L"AES", L"ECDH_P256", L"rsa", L"RSA ", L""})
        EXPECT_EQ(call(KSPIsAlgSupported, 0, name, MAXDWORD),
                  failed(NTE_NOT_SUPPORTED, {"KSPIsAlgSupported: algorithm not supported"}));
}

// The verification of the user.

/// One of the calls that work, which asks the user for the PIN.
struct Asking {
    std::string_view call;
    const char* goesOn = ""; ///< the line of its refusal
    /// What a call that can be silent asks of the library, and asks again when the session has expired.
    const char *function = nullptr, *failure = nullptr;
};

const Asking kAsking[] = {
    {"KSPSetKeyProperty SmartCardKeyCertificate", " for certificate import"},
    {"KSPFinalizeKey"},
    {"KSPDeleteKey"},
    {"KSPPromptUser"},
    {"KSPSecretAgreement"},
    {"KSPDecrypt RSA", "", "veltra_decrypt", "KSP: Decrypt failed: 49"},
    {"KSPSignHash", "", "veltra_signHash", "KSP: Sign hash failed: 49"},
    {"KSPSignHash with a login", "", "veltra_signHash", "KSP: Sign hash failed: 49"},
};

/// That the entry points are wired to the verification of the user, which both front ends share.
using KspLoginTest = KspTest;

TEST_F(KspLoginTest, WhatUsesThePinAsksForItUnlessItIsSilent) {
    const auto make = [&](const WorkingCall& working, BothFrontEnds& world, DWORD flags) {
        world.resetOutput();
        Values values = working.valuesIn(world, working.choices[0]);
        for (std::size_t i = 0; i < values.size(); ++i)
            if (working.arguments[i].name == "flags") values[i] |= flags;
        return call([&] { return static_cast<SECURITY_STATUS>(working.invoke(values)); });
    };
    for (const WorkingCall& working : cngCalls()) {
        const auto* const row = std::ranges::find(kAsking, working.name, &Asking::call);
        const bool asks = row != std::end(kAsking), canBeSilent = asks && row->function != nullptr;
        const std::string start = std::string(working.name, std::strcspn(working.name, " ")) + ": ";
        for (const DWORD flags : {kSilent, DWORD{0}}) {
            SCOPED_TRACE(concat(working.name, ", flags ", flags));
            BothFrontEnds world(freshName("Login"));
            working.prepare(world);
            forgetDisconnected({}); // and so every PIN
            const bool isSilent = canBeSilent && flags == kSilent;
            const std::size_t dialogs = prompt.seen().size() + (asks && !isSilent ? 1 : 0);
            const StatusAnswer answer = make(working, world, flags);
            EXPECT_EQ(prompt.seen().size(), dialogs);
            if (!asks) continue;
            EXPECT_EQ(answer, isSilent
                                  ? failed(NTE_SILENT_CONTEXT,
                                           {start + "silent mode requested but PIN not validated"})
                                  : failed(NTE_FAIL, {start + "password validation failed" + row->goesOn}));
        }
        if (!canBeSilent) continue;
        // The session expires every time, and no dialog is too much then.
        const std::vector<std::string> pin = {BothFrontEnds::kPin}, none;
        for (const auto& typed : {none, pin}) {
            BothFrontEnds world(freshName("Login"));
            working.prepare(world);
            storePin(world.token.serial, Pin("old"));
            library.script(row->function, {.result = kDeviceSessionExpired});
            prompt.willType(typed);
            EXPECT_EQ(make(working, world, kSilent),
                      typed.empty()
                          ? failed(NTE_FAIL, {start + "password validation failed after SSO expiry"})
                          : failed(NTE_INTERNAL_ERROR, {row->failure}));
            EXPECT_THAT(library.calls(row->function), SizeIs(1 + typed.size()));
        }
    }
}

TEST_F(KspLoginTest, UserIsToldOfAClockInOtherWordsAndNotAskedWhenLoggedIn) {
    const auto ask = [&] { return call(KSPPromptUser, provider, 0, nullptr, 0); };
    library.script("veltra_validatePassword", {.result = kDeviceTimeMismatch, .onCall = 1});
    prompt.willType({"1234"});
    EXPECT_EQ(ask(), failed(NTE_FAIL, {"KSPPromptUser: password validation failed"}));
    token.logIn();
    EXPECT_EQ(ask(), succeeded());
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_EQ(getPin(serial).view(), "");
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "System time mismatch, Kindly login to Token Manager"));
}

TEST(FirmwareVersionTest, PartsAreComparedAsNumbers) {
    for (const char* newer : {"2.0.0", "2", "2.0.1", "10.0.0", "2x.0.0", "18446744073709551617.0.0"})
        EXPECT_TRUE(isFirmware2OrNewer(newer)) << newer;
    for (const char* older : {"", "1.10.0", "v2.0.0", ".2", "-2.0.0", "1.99999999999999999999999"})
        EXPECT_FALSE(isFirmware2OrNewer(older)) << older;
}

} // namespace
} // namespace veltra::test
