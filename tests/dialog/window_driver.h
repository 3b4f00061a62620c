#pragma once

#include "foundation/windows.h"

#include <string>

namespace veltra::test {

constexpr const char* kPasswordDialog = "Verify User Password"; ///< its caption
constexpr int kPinControl = 1001;
constexpr int kClose = 0;

/// Waits for a visible top-level window of this process with this caption, of thread `threadId` if not 0, and
/// returns it. Ends the program when none appears within 20 seconds, because the thread that waits for it
/// never would.
HWND waitForWindow(const std::string& caption, DWORD threadId = 0);

/// The text of a window; of a message box, that of its text.
std::string textOf(HWND window);
std::string messageOf(HWND messageBox);

/// Types the PIN into the password dialog, in the place of what was there.
void typePin(HWND dialog, const std::string& pin);

/// Presses a button, whether it is enabled or not, or with kClose that of the frame, and waits until the
/// window is gone.
void pressAndWait(HWND window, int button);

/// Waits for the provider's password dialog, types the PIN and presses Login.
void enterPin(const std::string& pin);

} // namespace veltra::test
