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
    EXPECT_EQ(storedPin(), "");
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
        EXPECT_EQ(storedPin(), std::string(63, 'p'));
        context.silent = 1;
        EXPECT_EQ(ensure(), accepted()) << "a usable PIN is enough for a silent context";
        context.silent = 0;
    }
}

} // namespace
} // namespace veltra::test
