#include "support/csp_test.h"

#include "csp/csp_login.h"
#include "token/device_state.h"

namespace veltra::test {
namespace {

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
};

const DWORD kFail = static_cast<DWORD>(NTE_FAIL);
const std::string kFailedLine = "ensurePasswordValidated: password validation failed, return false";
const std::string kCancelledLine = "loginUser: user cancelled password dialog, return FALSE";
const std::string kLockedLine = "loginUser: PIN locked, retryCount=0, return FALSE";

TEST_F(UserVerificationTest, AsksOncePerTokenAndProcess) {
    prompt.willType({"1234"});
    EXPECT_EQ(ensure(), accepted());
    EXPECT_EQ(storedPin(), "1234");
    EXPECT_TRUE(isPinValidated(serial));

    context.silent = 1;
    EXPECT_EQ(ensure(), accepted()) << "a usable PIN is enough for a silent context";
    EXPECT_THAT(prompt.seen(), ElementsAre("ask"));
    EXPECT_THAT(library.calls("veltra_validatePassword"),
                ElementsAre("veltra_validatePassword(serial=" + serial + ", pin=1234, mode=1, remaining=0)"));
}

TEST_F(UserVerificationTest, LoggedInTokenIsNotAskedForAndKeepsAnEmptyPin) {
    token.logIn();
    context.silent = 1;
    EXPECT_EQ(ensure().lastError, static_cast<DWORD>(NTE_SILENT_CONTEXT));
    EXPECT_THAT(library.calls(), IsEmpty()) << "the session is not looked at";
    EXPECT_EQ(login(), accepted()) << "unless it logs in by itself";
    context.silent = 0;
    library.clearCalls();
    EXPECT_EQ(ensure(), accepted()) << "an empty PIN is not usable: the session is tested again";
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_EQ(storedPin(), "");
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
        EXPECT_EQ(ensure(), error.empty() ? accepted() : refused(kFail, {error, kFailedLine}));
        EXPECT_EQ(user.seen(), seen);
        EXPECT_EQ(hasUsablePin(context.serial), error.empty());
    };
    const std::string left = "Invalid user pin. Remaining attempts(";
    const std::string locked = "User pin locked, re-initialise device";
    const std::string kidly = "System time mismatch, Kidly login to Token Manager";
    expectSeen({}, 3, {"ask"}, kCancelledLine);
    expectSeen({"0000", "1234"}, 3, {"ask", left + "2)", "ask"}, "");
    expectSeen({"0000"}, 11, {"ask", left + "10)", "ask"}, kCancelledLine);
    expectSeen({"0000", "1111", "1234"}, 2, {"ask", left + "1)", "ask", locked}, kLockedLine);
    expectSeen({"1234", "1234"}, 0, {"ask", locked}, kLockedLine);
    expectSeen({"1234", "1234"}, 3, {"ask", kidly}, kLockedLine, 48);
    expectSeen({"1234", "1234"}, 3, {"ask", locked}, kLockedLine, 49); // no session code here
}

TEST_F(UserVerificationTest, LoginForgetsTheStoredPinFirst) {
    storePinOfToken();
    EXPECT_EQ(login(), refused(kFail, {kCancelledLine}));
    EXPECT_EQ(storedPin(), "");
    EXPECT_TRUE(isPinValidated(serial)) << "the validated mark stays";
}

TEST_F(UserVerificationTest, LongestPinFitsAndALongerOneIsCut) {
    for (const std::size_t length : {63u, 255u}) {
        token.pin = std::string(length, 'p');
        prompt.willType({token.pin});
        forgetPin(serial);
        EXPECT_EQ(ensure(), accepted());
        EXPECT_EQ(storedPin(), std::string(63, 'p'));
    }
}

TEST_F(UserVerificationTest, DialogThatCannotBeCreatedCountsAsCancelled) {
    setPinPrompt(nullptr); // the dialog itself, whose resource this program does not have
    const Answer answer = ensure();
    EXPECT_EQ(answer.lastError, kFail);
    EXPECT_THAT(answer.errors, ElementsAre(testing::StartsWith("Password dialog creation failed : "),
                                           kCancelledLine, kFailedLine));
    EXPECT_THAT(library.calls("veltra_validatePassword"), IsEmpty());
}

} // namespace
} // namespace veltra::test
