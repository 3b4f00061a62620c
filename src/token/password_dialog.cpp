#include "token/password_dialog.h"

#include "foundation/module.h"
#include "foundation/secret.h"
#include "foundation/utils.h"
#include "resource.h"

#include <algorithm>
#include <array>

namespace veltra {

namespace {

constexpr UINT kMinPinLength = 4;
constexpr UINT kPinLengthCount = 60; // 4 to 63 characters

void setDialogIcon(HWND window) {
    HICON icon = LoadIconW(thisModule(), MAKEINTRESOURCEW(IDI_VELTRA));
    if (icon == nullptr) return;
    const auto iconParam = reinterpret_cast<LPARAM>(icon);
    SendDlgItemMessageW(window, IDC_DIALOG_ICON, STM_SETICON, reinterpret_cast<WPARAM>(icon), 0);
    SendMessageW(window, WM_SETICON, ICON_SMALL, iconParam);
    SendMessageW(window, WM_SETICON, ICON_BIG, iconParam);
}

// The provider runs inside somebody else's process, often behind that process's windows: only the thread of
// the foreground window may hand the foreground over, so this thread borrows its input state.
void bringToFront(HWND window) {
    const DWORD foreground = GetWindowThreadProcessId(GetForegroundWindow(), nullptr);
    const DWORD current = GetCurrentThreadId();
    if (foreground == current) {
        SetForegroundWindow(window);
        return;
    }
    AttachThreadInput(foreground, current, TRUE);
    SetForegroundWindow(window);
    AttachThreadInput(foreground, current, FALSE);
}

// An edit control copies the text that it replaces, and moves to another buffer when its own gets too small;
// what it leaves is freed as it is. So its buffers, of text and of undo, are as large as they ever get before
// the first character is typed. This runs inside a window procedure, which an exception may not leave: it
// asks for no memory.
void fillOnceAndEmpty(HWND field) {
    std::array<char, Pin::kMaxLength + 1> spaces{};
    std::fill_n(spaces.begin(), Pin::kMaxLength, ' ');
    SetWindowTextA(field, spaces.data());
    SendMessageA(field, EM_SETSEL, 0, -1);
    SendMessageA(field, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(""));
    SendMessageA(field, EM_EMPTYUNDOBUFFER, 0, 0);
}

// And what was typed is overwritten where it is, one character at a time.
void eraseTypedText(HWND field) {
    SendMessageA(field, EM_LIMITTEXT, 0, 0); // else a text that a program put there would be cut instead
    const auto length = static_cast<WPARAM>(GetWindowTextLengthW(field));
    for (WPARAM i = 0; i < length; ++i) {
        SendMessageA(field, EM_SETSEL, i, static_cast<LPARAM>(i + 1));
        SendMessageA(field, EM_REPLACESEL, FALSE, reinterpret_cast<LPARAM>(" "));
    }
    fillOnceAndEmpty(field);
}

INT_PTR initialise(HWND window) {
    const HWND field = GetDlgItem(window, IDC_PIN);
    fillOnceAndEmpty(field);
    SendMessageA(field, EM_LIMITTEXT, Pin::kMaxLength, 0); // a pasted document would outgrow the buffers
    EnableWindow(GetDlgItem(window, IDOK), FALSE);
    setDialogIcon(window);
    bringToFront(window);
    SetFocus(field);
    return FALSE; // the focus was set by hand
}

Pin readPin(HWND window) {
    std::array<char, Pin::kMaxLength + 1> text{};
    GetDlgItemTextA(window, IDC_PIN, text.data(), static_cast<int>(text.size()));
    const Pin pin{std::string_view(text.data())};
    wipe(text.data(), text.size());
    return pin;
}

} // namespace

int PasswordDialog::show() {
    Utils::debug("Password dialog show window");
    enteredText_ = Pin();
    Utils::debug("Password dialog show window before");
    // The parameter tells two dialogs of two threads apart, so that each reads its own text.
    const INT_PTR result = DialogBoxParamA(thisModule(), MAKEINTRESOURCEA(IDD_PASSWORD), nullptr, procedure,
                                           reinterpret_cast<LPARAM>(this));
    Utils::debug("Password dialog show window after");
    if (result != 0) Utils::error("Password dialog creation failed : ", result);
    return 0;
}

INT_PTR CALLBACK PasswordDialog::procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
    switch (message) {
    case WM_INITDIALOG:
        SetWindowLongPtrW(window, DWLP_USER, lParam);
        return initialise(window);
    case WM_COMMAND: {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the window keeps the pointer as an integer
        auto* dialog = reinterpret_cast<PasswordDialog*>(GetWindowLongPtrW(window, DWLP_USER));
        return dialog != nullptr ? dialog->handleCommand(window, LOWORD(wParam), HIWORD(wParam)) : FALSE;
    }
    case WM_CLOSE:
        EndDialog(window, 0);
        return TRUE;
    case WM_DESTROY: // its controls are still there, whichever way it ended
        eraseTypedText(GetDlgItem(window, IDC_PIN));
        return FALSE;
    default:
        return FALSE;
    }
}

INT_PTR PasswordDialog::handleCommand(HWND window, WORD control, WORD notification) {
    switch (control) {
    case IDC_PIN:
        if (notification == EN_CHANGE) {
            const auto length = static_cast<UINT>(GetWindowTextLengthA(GetDlgItem(window, IDC_PIN)));
            // Unsigned on purpose: fewer than four characters wrap around and are too many.
            EnableWindow(GetDlgItem(window, IDOK), length - kMinPinLength < kPinLengthCount);
        }
        return TRUE;
    case IDOK:
        enteredText_ = readPin(window);
        EndDialog(window, 0);
        return TRUE;
    case IDCANCEL:
        enteredText_ = Pin();
        EndDialog(window, 0);
        return TRUE;
    default:
        return FALSE;
    }
}

} // namespace veltra
