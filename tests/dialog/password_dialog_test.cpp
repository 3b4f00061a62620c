#include "dialog/window_driver.h"
#include "support/provider_test.h"

#include "token/password_dialog.h"

#include <future>

namespace veltra::test {
namespace {

constexpr int kIconControl = 1002;

/// A dialog that is being shown on a thread of its own.
struct ShownDialog {
    std::future<std::string> text;
    HWND window = nullptr;
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
    return {std::move(text), waitForWindow(kPasswordDialog, threadId.get())};
}

using PasswordDialogTest = ProviderTest;

TEST_F(PasswordDialogTest, ControlsFocusAndALoginOf4To63Characters) {
    const ShownDialog dialog = showDialog();
    const HWND pin = GetDlgItem(dialog.window, kPinControl);
    const HWND login = GetDlgItem(dialog.window, IDOK);
    EXPECT_EQ(textOf(login), "Login");
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
    EXPECT_FALSE(IsWindowEnabled(login)) << "before anything is typed";
    for (const std::size_t length : {3, 4, 3, 63, 64, 200, 5, 0}) {
        typePin(dialog.window, std::string(length, 'p'));
        EXPECT_EQ(IsWindowEnabled(login) != FALSE, length >= 4 && length <= 63) << length;
    }
    pressAndWait(dialog.window, IDCANCEL);
}

TEST_F(PasswordDialogTest, EveryWayToEndItAndTwoAtOnceDoNotMixTheirTexts) {
    const std::tuple<std::string, int, std::string> kRows[] = {
        {"secret PIN", IDOK, "secret PIN"},
        {"1234", IDCANCEL, ""},
        {"1234", kClose, ""},
        {"", IDOK, ""},
        {std::string(300, 'x'), IDOK, std::string(255, 'x')}, // no more are read
    };
    for (const auto& [typed, end, expected] : kRows) {
        ShownDialog dialogs[] = {showDialog(), showDialog()};
        for (const ShownDialog& dialog : dialogs)
            EXPECT_EQ(textOf(GetDlgItem(dialog.window, kPinControl)), "") << "the next dialog starts empty";
        typePin(dialogs[0].window, typed);
        typePin(dialogs[1].window, "second PIN");
        pressAndWait(dialogs[0].window, end);
        pressAndWait(dialogs[1].window, IDOK);
        EXPECT_EQ(dialogs[0].text.get(), expected) << typed;
        EXPECT_EQ(dialogs[1].text.get(), "second PIN");
    }
}

TEST_F(PasswordDialogTest, MessagesAreBoxesWithoutAnOwner) {
    setPinPrompt(nullptr);
    const auto told = std::async(std::launch::async, [] { pinPrompt().tell("Remaining attempts(2)"); });
    const HWND box = waitForWindow("Veltra");
    EXPECT_EQ(messageOf(box), "Remaining attempts(2)");
    EXPECT_EQ(GetWindow(box, GW_OWNER), nullptr);
    pressAndWait(box, IDOK);
}

} // namespace
} // namespace veltra::test
