#include "support/csp_test.h"

#include "csp/csp_login.h"
#include "token/device_state.h"

namespace veltra::test {
namespace {

class UserVerificationTest : public CspTest {
protected:
    UserVerificationTest() { context.serial = serial; }

    /// Runs ensurePasswordValidated as an entry point would and collects the same as run().
    Answer ensure() {
        return run([&] { return cspEntry("test", [&] { return ensurePasswordValidated(context); }); });
    }

    CSP_CONTEXT context;
};

const DWORD kFail = static_cast<DWORD>(NTE_FAIL);
const DWORD kSilent = static_cast<DWORD>(NTE_SILENT_CONTEXT);
const std::string kFailedLine = "ensurePasswordValidated: password validation failed, return false";
const std::string kCancelledLine = "loginUser: user cancelled password dialog, return FALSE";
const std::string kLockedLine = "loginUser: PIN locked, retryCount=0, return FALSE";

std::string validation(const std::string& serial, const std::string& pin) {
    // The count is zeroed before each call.
    return "veltra_validatePassword(serial=" + serial + ", pin=" + pin + ", mode=1, remaining=0)";
}

TEST_F(UserVerificationTest, AsksOncePerTokenAndProcess) {
    prompt.willType({"1234"});
    EXPECT_EQ(ensure(), accepted());
    EXPECT_THAT(debugLines,
                ElementsAre("test", "ensurePasswordValidated: password not validated or empty -- ask for PIN",
                            "loginUser: enter", "loginUser: password validated, return TRUE",
                            "ensurePasswordValidated: password set, return true"));
    EXPECT_EQ(storedPin(), "1234");
    EXPECT_TRUE(isPinValidated(serial));

    context.silent = 1;
    EXPECT_EQ(ensure(), accepted()) << "a usable PIN is enough for a silent context";
    EXPECT_THAT(debugLines,
                ElementsAre("test", "ensurePasswordValidated: PIN already validated, return true"));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask"));
    EXPECT_THAT(library.calls("veltra_validatePassword"), ElementsAre(validation(serial, "1234")));
}

TEST_F(UserVerificationTest, LoggedInTokenIsNotAskedForAndKeepsAnEmptyPin) {
    token.logIn();
    EXPECT_EQ(ensure(), accepted());
    EXPECT_THAT(debugLines, Contains("loginUser: SSO already validated, return TRUE"));
    EXPECT_THAT(prompt.seen(), IsEmpty());
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_EQ(storedPin(), "");

    library.clearCalls();
    EXPECT_EQ(ensure(), accepted()) << "an empty PIN is not usable: the session is tested again";
    EXPECT_THAT(library.calls(), ElementsAre("veltra_getTokenInfo(serial=" + serial + ")"));
}

TEST_F(UserVerificationTest, SilentContextFailsBeforeTheSessionIsLookedAt) {
    token.logIn();
    context.silent = 1;
    EXPECT_EQ(
        ensure(),
        refused(kSilent, {"ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false"}));
    EXPECT_THAT(library.calls(), IsEmpty());

    // The login of its own looks at the session first.
    Pin pin;
    const auto login = [&] {
        return run([&] { return cspEntry("test", [&] { return loginUser(context, pin); }); });
    };
    EXPECT_EQ(login(), accepted());
    token.info.session.clear();
    EXPECT_EQ(login(),
              refused(kSilent, {"loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE"}));
    EXPECT_THAT(prompt.seen(), IsEmpty());
}

TEST_F(UserVerificationTest, WhatTheUserSeesAndWhatBecomesOfIt) {
    struct Row {
        const char* name;
        std::vector<std::string> typed;
        int remaining;
        int firstCode;
        std::vector<std::string> seen;
        std::vector<std::string> errors;
    };
    const std::string left = "Invalid user pin. Remaining attempts(";
    const std::string locked = "User pin locked, re-initialise device";
    const std::string kidly = "System time mismatch, Kidly login to Token Manager";
    const Row kRows[] = {
        {"cancel at once", {}, 3, 0, {"ask"}, {kCancelledLine, kFailedLine}},
        {"right the second time", {"0000", "1234"}, 3, 0, {"ask", left + "2)", "ask"}, {}},
        {"wrong, then cancel", {"0000"}, 11, 0, {"ask", left + "10)", "ask"}, {kCancelledLine, kFailedLine}},
        {"wrong until locked",
         {"0000", "1111", "1234"},
         2,
         0,
         {"ask", left + "1)", "ask", locked},
         {kLockedLine, kFailedLine}},
        {"locked from the start", {"1234", "1234"}, 0, 0, {"ask", locked}, {kLockedLine, kFailedLine}},
        {"clock mismatch", {"1234", "1234"}, 3, 48, {"ask", kidly}, {kLockedLine, kFailedLine}},
        {"no session code here", {"1234", "1234"}, 3, 49, {"ask", locked}, {kLockedLine, kFailedLine}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string serialOfRow = freshName("Token");
        library.addToken(serialOfRow).remaining = row.remaining;
        context.serial = serialOfRow;
        library.clearScripts();
        if (row.firstCode) library.script("veltra_validatePassword", {.result = row.firstCode, .onCall = 1});
        ScriptedPinPrompt user;
        user.willType(row.typed);
        setPinPrompt(&user);
        EXPECT_EQ(ensure(), row.errors.empty() ? accepted() : refused(kFail, row.errors));
        EXPECT_EQ(user.seen(), row.seen);
        EXPECT_EQ(hasUsablePin(serialOfRow), row.errors.empty());
    }
}

TEST_F(UserVerificationTest, LoginForgetsTheStoredPinFirst) {
    storePinOfToken();
    Pin pin;
    EXPECT_EQ(run([&] { return cspEntry("test", [&] { return loginUser(context, pin); }); }),
              refused(kFail, {kCancelledLine}));
    EXPECT_EQ(storedPin(), "");
    EXPECT_TRUE(isPinValidated(serial)) << "the validated mark stays";
}

TEST_F(UserVerificationTest, LongestPinFitsAndALongerOneDoesNotOverrun) {
    const std::string longest(63, 'p');
    token.pin = longest;
    prompt.willType({longest});
    EXPECT_EQ(ensure(), accepted());
    EXPECT_EQ(storedPin(), longest);

    forgetPin(serial);
    token.pin = std::string(255, 'q');
    prompt.willType({token.pin});
    EXPECT_EQ(ensure(), accepted());
    EXPECT_THAT(storedPin().size(), testing::Le(63u));
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
