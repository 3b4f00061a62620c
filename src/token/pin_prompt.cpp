#include "token/pin_prompt.h"

#include "foundation/windows.h"
#include "token/password_dialog.h"

#include <atomic>

namespace veltra {

namespace {

class WindowPrompt final : public PinPrompt {
public:
    Pin askPin() override {
        PasswordDialog dialog;
        dialog.show();
        return dialog.enteredText();
    }

    void tell(const char* text) override { MessageBoxA(nullptr, text, "Veltra", MB_OK); }
};

std::atomic<PinPrompt*> substitute{nullptr};

} // namespace

PinPrompt& pinPrompt() {
    if (PinPrompt* prompt = substitute) return *prompt;
    static auto* const windows = new WindowPrompt;
    return *windows;
}

void setPinPrompt(PinPrompt* prompt) {
    substitute = prompt;
}

} // namespace veltra
