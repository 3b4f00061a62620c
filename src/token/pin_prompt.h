#pragma once

#include "token/pin.h"

namespace veltra {

/// How the provider talks to the user: asks for a PIN and tells what went wrong.
class PinPrompt {
public:
    PinPrompt() = default;
    PinPrompt(const PinPrompt&) = delete;
    PinPrompt& operator=(const PinPrompt&) = delete;
    virtual ~PinPrompt() = default;

    /// Asks for the PIN and returns when the user has answered; empty when the user cancelled.
    virtual Pin askPin() = 0;

    /// Shows `text` and returns when the user has seen it.
    virtual void tell(const char* text) = 0;
};

/// The prompt in use: the password dialog and message boxes, or what setPinPrompt put in their place. No
/// lock is held while a prompt is shown, and two threads may each show one.
PinPrompt& pinPrompt();

/// Puts `prompt` in the place of the windows; null puts the windows back. Not owned. For tests.
void setPinPrompt(PinPrompt* prompt);

} // namespace veltra
