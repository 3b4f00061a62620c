#include "support/csp_test.h"

#include "csp/csp_login.h"
#include "token/crypto_policy.h"
#include "token/device_monitor.h"
#include "token/device_state.h"
#include "token/token_session.h"

#include <algorithm>
#include <array>

namespace veltra::test {
namespace {

class TokenSessionTest : public ProviderTest {};
class DeviceMonitorTest : public ProviderTest {
protected:
    DeviceMonitorTest() { stopDeviceMonitor(); }

    int polls() const { return library.countOnAllThreads("veltra_getConnectedDeviceList"); }
    /// Waits until `condition` holds; false when it does not within three polls.
    static bool soon(const std::function<bool()>& condition) {
        for (int i = 0; i < 150 && !condition(); ++i)
            Sleep(20);
        return condition();
    }
};

TEST_F(TokenSessionTest, ThirdCharacterOfTheMarkerTellsTheGeneration) {
    for (const char* marker : {"3.1.0", "  1", "3.0.9", "31", "110", "", "1", "3.2.1"}) {
        token.info.fipsMarker = marker;
        EXPECT_EQ(isFips1402Token(serial, nullptr), std::string_view(marker).find('1', 2) == 2) << marker;
    }
    EXPECT_FALSE(isFips1402Token("unknown", nullptr));
    token.info.fipsMarker = "3.1.0";
    library.script("veltra_getTokenInfo", {.throws = true});
    EXPECT_FALSE(isFips1402Token(serial, nullptr)) << "a token that cannot be read";
}

TEST_F(TokenSessionTest, SessionNeedsTextAndBothFlags) {
    TokenInfo info;
    const std::array loggedIn = {0u, 1u, 1u}; // no other number counts as set
    for (const auto& flags : {loggedIn, {1, 1, 0}, {1, 0, 1}, {0, 2, 1}, {0, 1, 2}})
        for (const char* session : {"", "s"}) {
            info.session = session;
            std::ranges::copy(flags, info.words + 2);
            EXPECT_EQ(hasLoggedInSession(info), *session != '\0' && flags == loggedIn);
        }
}

TEST_F(TokenSessionTest, PinStateOfASerial) {
    forgetPin(serial);
    EXPECT_FALSE(isPinValidated(serial)) << "forgetting makes no entry";
    storePin(serial, Pin());
    EXPECT_TRUE(isPinValidated(serial) && !hasUsablePin(serial)) << "an empty PIN is not usable";
    storePin(serial, Pin("1234"));
    forgetPin(serial, Pin("an older one"));
    EXPECT_TRUE(hasUsablePin(serial)) << "another thread has stored a newer PIN meanwhile";
    forgetPin(serial, Pin("1234"));
    EXPECT_FALSE(hasUsablePin(serial) || isInitialised(serial));
}

TEST_F(DeviceMonitorTest, PulledTokenIsForgottenAndOnlyThat) {
    const std::string second = freshName("Token");
    library.addToken(second);
    for (const std::string& name : {serial, second}) {
        storePin(name, Pin("1234"));
        markInitialised(name);
    }
    library.script("veltra_getConnectedDeviceList", {.throws = true});
    startDeviceMonitor();
    EXPECT_TRUE(soon([&] { return polls() > 1; })) << "a poll that throws does not end it";
    EXPECT_TRUE(isInitialised(serial)) << "and erases nothing";
    const std::string failed = "Device monitor: a poll of the connected tokens failed", log = readLog();
    EXPECT_THAT(log, HasSubstr(failed));
    EXPECT_EQ(log.find(failed), log.rfind(failed)) << "the first one of a row is reported";
    library.clearScripts();
    library.setConnected(serial, false);
    EXPECT_TRUE(soon([&] { return !isInitialised(serial); }));
    EXPECT_FALSE(isPinValidated(serial)) << "a token that comes back needs a new PIN";
    EXPECT_STREQ(getPin(serial).c_str(), "");
    EXPECT_TRUE(hasUsablePin(second) && isInitialised(second));
}

TEST_F(DeviceMonitorTest, StopsAtOnceAndStartsAgainOnce) {
    startDeviceMonitor();
    EXPECT_TRUE(soon([&] { return polls() > 0; }));
    const ULONGLONG begin = GetTickCount64();
    stopDeviceMonitor();
    EXPECT_LT(GetTickCount64() - begin, 500u) << "it does not wait for the next poll";
    stopDeviceMonitor(); // nothing is running
    const int before = polls();
    Sleep(1100);
    EXPECT_EQ(polls(), before);
    takeLogLines();
    runOnThreads(4, startDeviceMonitor);
    EXPECT_EQ(std::ranges::count(takeLogLines(), "DEBUG Monitor thread started (startDeviceMonitor)."), 1);
}

class UserVerificationTest : public CspTest {
protected:
    UserVerificationTest() { context.serial = serial; }

    /// Each runs as an entry point would and collects the same as run().
    Answer ensure() {
        return run([&] { return cspEntry("test", [&] { return ensurePasswordValidated(context); }); });
    }
    Answer login() {
        Pin pin;
        return run([&] { return cspEntry("test", [&] { return loginUser(context, pin); }); });
    }

    CSP_CONTEXT context;
    const std::string cancelled = "loginUser: user cancelled password dialog, return FALSE";
    const std::string locked = "loginUser: PIN locked, retryCount=0, return FALSE";
    const std::string failed = "ensurePasswordValidated: password validation failed, return false";
};

TEST_F(UserVerificationTest, LoggedInTokenIsNotAskedForAndKeepsAnEmptyPin) {
    token.logIn();
    context.silent = 1;
    EXPECT_EQ(ensure().lastError, static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_THAT(library.calls(), IsEmpty()) << "the session is not looked at";
    EXPECT_EQ(login(), accepted()) << "unless it logs in by itself";
    context.silent = 0;
    EXPECT_EQ(ensure(), accepted()) << "an empty PIN is not usable: the session is tested again";
    EXPECT_THAT(library.calls("veltra_getTokenInfo"), SizeIs(2));
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(UserVerificationTest, WhatTheUserSeesAndWhatBecomesOfIt) {
    const auto expectSeen = [&](const std::vector<std::string>& typed, int remaining,
                                const std::vector<std::string>& seen, const std::string& error,
                                int firstCode = 0) {
        SCOPED_TRACE(testing::PrintToString(seen));
        context.serial = freshName("Token");
        library.addToken(context.serial).remaining = remaining;
        library.clearScripts();
        if (firstCode) library.script("veltra_validatePassword", {.result = firstCode, .onCall = 1});
        ScriptedPinPrompt user;
        user.willType(typed);
        setPinPrompt(&user);
        EXPECT_EQ(ensure(), error.empty() ? accepted() : refused(NTE_FAIL, {error, failed}));
        EXPECT_EQ(user.seen(), seen);
        EXPECT_EQ(hasUsablePin(context.serial), error.empty());
    };
    const std::string left = "Invalid user pin. Remaining attempts(";
    const std::string blocked = "User pin locked, re-initialise device";
    const std::string kidly = "System time mismatch, Kidly login to Token Manager";
    expectSeen({"0000", "1234"}, 3, {"ask", left + "2)", "ask"}, "");
    expectSeen({"0000"}, 11, {"ask", left + "10)", "ask"}, cancelled);
    expectSeen({"0000", "1111", "1234"}, 2, {"ask", left + "1)", "ask", blocked}, locked);
    expectSeen({"1234", "1234"}, 3, {"ask", kidly}, locked, 48);
    expectSeen({"1234", "1234"}, 3, {"ask", blocked}, locked, 49); // no session code here
}

TEST_F(UserVerificationTest, LoginForgetsTheStoredPinFirst) {
    storePinOfToken();
    EXPECT_EQ(login(), refused(NTE_FAIL, {cancelled}));
    EXPECT_EQ(getPin(serial).view(), "");
    EXPECT_TRUE(isPinValidated(serial)) << "the validated mark stays";
    setPinPrompt(nullptr); // the dialog itself, whose resource this program does not have
    EXPECT_THAT(ensure().errors,
                ElementsAre(testing::StartsWith("Password dialog creation failed : "), cancelled, failed));
    EXPECT_THAT(library.calls("veltra_validatePassword"), IsEmpty());
}

TEST_F(UserVerificationTest, LongestPinFitsAndALongerOneIsCut) {
    for (const std::size_t length : {63u, 255u}) {
        token.pin = std::string(length, 'p');
        prompt.willType({token.pin});
        forgetPin(serial);
        EXPECT_EQ(ensure(), accepted());
        EXPECT_EQ(getPin(serial).view(), std::string(63, 'p'));
        context.silent = 1;
        EXPECT_EQ(ensure(), accepted()) << "a usable PIN is enough for a silent context";
        context.silent = 0;
    }
}

} // namespace
} // namespace veltra::test
