#pragma once

#include "foundation/windows.h"
#include "token/pin.h"

namespace veltra {

/// The modal dialog that asks for the user PIN of a token: the provider's only window.
///
/// One object per prompt, so that two threads that each show a dialog do not mix up their texts.
class PasswordDialog {
public:
    /// Shows the dialog and returns when it is closed. Always 0; a dialog that cannot be created leaves the
    /// entered text empty, which callers take for a cancelled one.
    int show();

    /// What was typed when Login was pressed; empty when the dialog was cancelled or closed.
    [[nodiscard]] const Pin& enteredText() const { return enteredText_; }

private:
    static INT_PTR CALLBACK procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
    INT_PTR handleCommand(HWND window, WORD control, WORD notification);

    Pin enteredText_;
};

} // namespace veltra
