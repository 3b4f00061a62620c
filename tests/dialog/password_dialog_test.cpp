#include "dialog/window_driver.h"
#include "support/csp_test.h"

#include "csp/csp_login.h"
#include "token/password_dialog.h"

#include <future>

namespace veltra::test {
namespace {

constexpr int kPinControl = 1001;
constexpr int kIconControl = 1002;
const std::string kCaption = "Verify User Password";

/// A dialog that is being shown on a thread of its own.
struct ShownDialog {
    std::future<std::string> text;
    HWND window = nullptr;

    void type(const std::string& pin) const { typeInto(window, kPinControl, pin); }
    bool loginEnabled() const { return IsWindowEnabled(GetDlgItem(window, IDOK)) != FALSE; }
};

ShownDialog showDialog() {
    std::promise<DWORD> thread;
    std::future<DWORD> threadId = thread.get_future();
    auto text = std::async(std::launch::async, [thread = std::move(thread)]() mutable {
        thread.set_value(GetCurrentThreadId());
        PasswordDialog dialog;
        EXPECT_EQ(dialog.show(), 0);
        return std::string(dialog.enteredText().view());
    });
    return {std::move(text), waitForWindow(kCaption, threadId.get())};
}

class PasswordDialogTest : public ProviderTest {};

TEST_F(PasswordDialogTest, LoginIsEnabledFrom4To63Characters) {
    ShownDialog dialog = showDialog();
    EXPECT_FALSE(dialog.loginEnabled()) << "before anything is typed";
    for (const auto& [length, enabled] : {std::pair{3u, false},
                                          {4u, true},
                                          {3u, false},
                                          {63u, true},
                                          {64u, false},
                                          {200u, false},
                                          {5u, true},
                                          {0u, false}}) {
        dialog.type(std::string(length, 'p'));
        EXPECT_EQ(dialog.loginEnabled(), enabled) << length;
    }
    dialog.type("1234");
    SendMessageA(GetDlgItem(dialog.window, IDOK), BM_CLICK, 0, 0);
    EXPECT_EQ(dialog.text.get(), "1234");
}

TEST_F(PasswordDialogTest, EveryWayToEndIt) {
    struct Row {
        const char* name;
        std::string typed;
        std::function<void(HWND)> end;
        std::string expected;
    };
    const auto login = [](HWND window) { pressAndWait(window, IDOK); };
    const auto cancel = [](HWND window) { pressAndWait(window, IDCANCEL); };
    const Row kRows[] = {
        {"login", "secret PIN", login, "secret PIN"},
        {"the longest PIN", std::string(63, 'x'), login, std::string(63, 'x')},
        {"cancel after typing", "1234", cancel, ""},
        {"close after typing", "1234", closeAndWait, ""},
        {"login with nothing typed", "", login, ""},
        {"at most 255 characters are read", std::string(300, 'x'), login, std::string(255, 'x')},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        ShownDialog dialog = showDialog();
        EXPECT_EQ(textOf(GetDlgItem(dialog.window, kPinControl)), "") << "the next dialog starts empty";
        dialog.type(row.typed);
        row.end(dialog.window);
        EXPECT_EQ(dialog.text.get(), row.expected);
    }
}

TEST_F(PasswordDialogTest, ControlsAndFocus) {
    ShownDialog dialog = showDialog();
    const HWND pin = GetDlgItem(dialog.window, kPinControl);
    EXPECT_EQ(textOf(GetDlgItem(dialog.window, IDOK)), "Login");
    EXPECT_EQ(textOf(GetDlgItem(dialog.window, IDCANCEL)), "Cancel");
    EXPECT_EQ(messageOf(dialog.window), "Verify your User Password:User Password:");
    EXPECT_NE(GetWindowLongA(pin, GWL_STYLE) & ES_PASSWORD, 0);
    EXPECT_EQ(LOWORD(SendMessageA(dialog.window, DM_GETDEFID, 0, 0)), IDOK);
    EXPECT_EQ(GetWindow(dialog.window, GW_OWNER), nullptr);
    EXPECT_NE(SendDlgItemMessageA(dialog.window, kIconControl, STM_GETICON, 0, 0), 0);
    for (const WPARAM size : {ICON_SMALL, ICON_BIG})
        EXPECT_NE(SendMessageA(dialog.window, WM_GETICON, size, 0), 0);
    GUITHREADINFO info{};
    info.cbSize = sizeof info;
    EXPECT_TRUE(GetGUIThreadInfo(GetWindowThreadProcessId(dialog.window, nullptr), &info));
    EXPECT_EQ(info.hwndFocus, pin);
    EXPECT_EQ(GetForegroundWindow(), dialog.window);
    pressAndWait(dialog.window, IDCANCEL);
    dialog.text.wait();
    EXPECT_THAT(takeLogLines(),
                ElementsAre("DEBUG Password dialog show window", "DEBUG Password dialog show window before",
                            "DEBUG Password dialog show window after"));
}

TEST_F(PasswordDialogTest, TwoAtOnceDoNotMixTheirTexts) {
    ShownDialog first = showDialog();
    ShownDialog second = showDialog();
    first.type("first PIN");
    second.type("second PIN");
    pressAndWait(first.window, IDOK);
    EXPECT_EQ(first.text.get(), "first PIN");
    pressAndWait(second.window, IDOK);
    EXPECT_EQ(second.text.get(), "second PIN");
}

class LoginWindowsTest : public CspTest {
protected:
    LoginWindowsTest() { setPinPrompt(nullptr); }

    std::future<bool> logIn() {
        return std::async(std::launch::async, [this] {
            CSP_CONTEXT context;
            context.serial = serial;
            return static_cast<bool>(ensurePasswordValidated(context));
        });
    }
    static void enter(const std::string& pin) {
        const HWND dialog = waitForWindow(kCaption);
        typeInto(dialog, kPinControl, pin);
        pressAndWait(dialog, IDOK);
    }
    static void acknowledge(const std::string& message) {
        const HWND box = waitForWindow("Veltra");
        EXPECT_EQ(messageOf(box), message);
        EXPECT_EQ(GetWindow(box, GW_OWNER), nullptr);
        pressAndWait(box, IDOK);
    }
};

TEST_F(LoginWindowsTest, WrongPinThenTheRightOne) {
    std::future<bool> login = logIn();
    enter("0000");
    acknowledge("Invalid user pin. Remaining attempts(2)");
    enter("1234");
    EXPECT_TRUE(login.get());
    EXPECT_EQ(storedPin(), "1234");
}

TEST_F(LoginWindowsTest, CancelShowsNoMessage) {
    std::future<bool> login = logIn();
    pressAndWait(waitForWindow(kCaption), IDCANCEL);
    EXPECT_FALSE(login.get());
    EXPECT_EQ(FindWindowA(nullptr, "Veltra"), nullptr);
}

} // namespace
} // namespace veltra::test
