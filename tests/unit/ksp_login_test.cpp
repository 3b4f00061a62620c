#include "support/ksp_test.h"
#include "support/working_calls.h"

#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

constexpr DWORD kSilent = 0x40;

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
class KspLoginTest : public KspTest {
protected:
    /// Makes the call with these bits in its flags.
    StatusAnswer make(const WorkingCall& working, BothFrontEnds& world, DWORD flags) {
        world.resetOutput();
        Values values = working.valuesIn(world, working.choices[0]);
        for (std::size_t i = 0; i < values.size(); ++i)
            if (working.arguments[i].name == "flags") values[i] |= flags;
        return call([&] { return static_cast<SECURITY_STATUS>(working.invoke(values)); });
    }
};

TEST_F(KspLoginTest, WhatUsesThePinAsksForItUnlessItIsSilent) {
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
        // What the user types when the session expires once, or every time if 0; no dialog is too much then.
        const auto expiring = [&](int onCall, const std::vector<std::string>& typed) {
            BothFrontEnds world(freshName("Login"));
            working.prepare(world);
            storePin(world.token.serial, Pin("old"));
            library.script(row->function, {.result = kDeviceSessionExpired, .onCall = onCall});
            prompt.willType(typed);
            return make(working, world, kSilent);
        };
        const std::string pin = BothFrontEnds::kPin;
        EXPECT_EQ(expiring(1, {pin}), succeeded());
        EXPECT_THAT(library.calls(row->function),
                    ElementsAre(HasSubstr("pin=old,"), HasSubstr("pin=" + pin)));
        EXPECT_EQ(expiring(0, {pin}), failed(NTE_INTERNAL_ERROR, {row->failure}));
        EXPECT_THAT(library.calls(row->function), SizeIs(2));
        EXPECT_EQ(expiring(1, {}), failed(NTE_FAIL, {start + "password validation failed after SSO expiry"}));
        EXPECT_THAT(library.calls(row->function), SizeIs(1));
    }
}

TEST_F(KspLoginTest, UserIsToldOfAClockInOtherWordsAndNotAskedWhenLoggedIn) {
    const auto ask = [&] { return call(KSPPromptUser, provider, 0, nullptr, 0); };
    library.script("veltra_validatePassword", {.result = kDeviceTimeMismatch, .onCall = 1});
    prompt.willType({"1234"});
    EXPECT_EQ(ask(), failed(NTE_FAIL, {"KSPPromptUser: password validation failed"}));
    EXPECT_FALSE(isPinValidated(serial));
    token.logIn();
    EXPECT_EQ(ask(), succeeded());
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_EQ(getPin(serial).view(), "");
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "System time mismatch, Kindly login to Token Manager"));
}

} // namespace
} // namespace veltra::test
