#include "dialog/window_driver.h"

#include <array>
#include <cstdio>

namespace veltra::test {

namespace {

constexpr int kPatienceMilliseconds = 20000;
constexpr int kStepMilliseconds = 10;

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
    HWND window = nullptr;
    waitUntil("no window " + caption, [&] {
        // The next one with this caption, or behind the last the first again.
        window = FindWindowExA(nullptr, window, nullptr, caption.c_str());
        DWORD process = 0;
        const DWORD thread = GetWindowThreadProcessId(window, &process);
        return process == GetCurrentProcessId() && (threadId == 0 || threadId == thread) &&
               IsWindowVisible(window);
    });
    return window;
}

std::string textOf(HWND window) {
    std::array<char, 512> text{};
    SendMessageA(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()));
    return text.data();
}

std::string messageOf(HWND messageBox) {
    std::string text;
    HWND child = nullptr;
    while ((child = FindWindowExA(messageBox, child, "Static", nullptr)) != nullptr)
        if ((GetWindowLongA(child, GWL_STYLE) & SS_TYPEMASK) != SS_ICON) text += textOf(child);
    return text;
}

void typePin(HWND dialog, const std::string& pin) {
    SendDlgItemMessageA(dialog, kPinControl, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin.c_str()));
}

void pressAndWait(HWND window, int button) {
    PostMessageA(window, button == kClose ? WM_CLOSE : WM_COMMAND, MAKEWPARAM(button, BN_CLICKED),
                 reinterpret_cast<LPARAM>(GetDlgItem(window, button)));
    waitUntil("a window stays open", [&] { return !IsWindow(window); });
}

void enterPin(const std::string& pin) {
    const HWND dialog = waitForWindow(kPasswordDialog);
    typePin(dialog, pin);
    pressAndWait(dialog, IDOK);
}

} // namespace veltra::test
