#include "token/password_dialog.h"

#include "foundation/module.h"
#include "foundation/secret.h"
#include "foundation/text.h"
#include "foundation/utils.h"
#include "resource.h"

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

INT_PTR initialise(HWND window) {
    EnableWindow(GetDlgItem(window, IDOK), FALSE);
    setDialogIcon(window);
    bringToFront(window);
    SetFocus(GetDlgItem(window, IDC_PIN));
    return FALSE; // the focus was set by hand
}

Pin readPin(HWND window) {
    std::array<char, Pin::kMaxLength + 1> text{};
    GetDlgItemTextA(window, IDC_PIN, text.data(), static_cast<int>(text.size()));
    const Pin pin{std::string_view(text.data())};
    wipe(text.data(), text.size());
    SetDlgItemTextA(window, IDC_PIN, ""); // nor does it stay in the edit control
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
    if (result != 0) Utils::error(concat("Password dialog creation failed : ", result));
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
