#include "dialog/window_driver.h"

#include <array>
#include <cstdio>

namespace veltra::test {

namespace {

constexpr int kPatienceMilliseconds = 20000;
constexpr int kStepMilliseconds = 10;

struct Search {
    std::string caption;
    DWORD threadId;
    HWND found = nullptr;
};

BOOL CALLBACK matchWindow(HWND window, LPARAM parameter) {
    auto* search = reinterpret_cast<Search*>(parameter);
    DWORD process = 0;
    const DWORD thread = GetWindowThreadProcessId(window, &process);
    const bool matches = process == GetCurrentProcessId() &&
                         (search->threadId == 0 || search->threadId == thread) && IsWindowVisible(window) &&
                         textOf(window) == search->caption;
    if (matches) search->found = window;
    return !matches;
}

BOOL CALLBACK collectStaticText(HWND child, LPARAM parameter) {
    std::array<char, 32> name{};
    GetClassNameA(child, name.data(), static_cast<int>(name.size()));
    const bool isIcon = (GetWindowLongA(child, GWL_STYLE) & SS_TYPEMASK) == SS_ICON;
    if (std::string(name.data()) == "Static" && !isIcon)
        *reinterpret_cast<std::string*>(parameter) += textOf(child);
    return TRUE;
}

template <class Condition>
void waitUntil(const std::string& what, Condition condition) {
    for (int waited = 0; !condition(); waited += kStepMilliseconds) {
        if (waited > kPatienceMilliseconds) {
            std::printf("No progress: %s\n1 FAILED TEST\n", what.c_str());
            std::fflush(stdout);
            TerminateProcess(GetCurrentProcess(), 3);
        }
        Sleep(kStepMilliseconds);
    }
}

} // namespace

HWND waitForWindow(const std::string& caption, DWORD threadId) {
    Search search{caption, threadId};
    waitUntil("no window " + caption, [&] {
        EnumWindows(matchWindow, reinterpret_cast<LPARAM>(&search));
        return search.found != nullptr;
    });
    return search.found;
}

std::string textOf(HWND window) {
    std::array<char, 512> text{};
    SendMessageA(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()));
    return text.data();
}

std::string messageOf(HWND messageBox) {
    std::string text;
    EnumChildWindows(messageBox, collectStaticText, reinterpret_cast<LPARAM>(&text));
    return text;
}

void typeInto(HWND dialog, int control, const std::string& text) {
    SendDlgItemMessageA(dialog, control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text.c_str()));
}

void pressAndWait(HWND window, int button) {
    if (button == kClose) {
        PostMessageA(window, WM_CLOSE, 0, 0);
    } else {
        PostMessageA(window, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(window, button)));
    }
    waitUntil("a window stays open", [&] { return !IsWindow(window); });
}

void enterPin(const std::string& pin) {
    const HWND dialog = waitForWindow(kPasswordDialog);
    typeInto(dialog, kPinControl, pin);
    pressAndWait(dialog, IDOK);
}

} // namespace veltra::test
