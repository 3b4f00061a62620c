#include "token/user_verification.h"

#include "token/pin_prompt.h"
#include "token/token_session.h"

#include <cstring>

namespace veltra {

namespace {

std::string refusalText(int code, int remaining, const char* timeMismatchText) {
    if (code == kDeviceTimeMismatch) return timeMismatchText;
    if (remaining != 0) return "Invalid user pin. Remaining attempts(" + std::to_string(remaining) + ")";
    return "User pin locked, re-initialise device";
}

} // namespace

bool isSessionValidated(const std::string& serial, void* libraryContext) {
    return hasLoggedInSession(readTokenInfo(serial, libraryContext));
}

LoginOutcome askForPinUntilAccepted(const std::string& serial, void* libraryContext,
                                    const char* timeMismatchText, Pin& acceptedPin) {
    forgetPin(serial);
    for (;;) {
        const Pin pin = pinPrompt().askPin();
        if (pin.empty()) return LoginOutcome::Cancelled;
        int remaining = 0;
        const int code = deviceLibrary().veltra_validatePassword(serial.c_str(), pin.c_str(), 1, &remaining,
                                                                 libraryContext);
        if (code == kDeviceOk) {
            acceptedPin = pin;
            return LoginOutcome::Accepted;
        }
        pinPrompt().tell(refusalText(code, remaining, timeMismatchText).c_str());
        // A time mismatch ends here too: the token leaves the count at the zero it was given.
        if (remaining == 0) return LoginOutcome::Locked;
    }
}

int acceptPin(const std::string& serial, const Pin& pin, void* libraryContext) {
    int remaining = 0;
    const int code =
        deviceLibrary().veltra_validatePassword(serial.c_str(), pin.c_str(), 1, &remaining, libraryContext);
    if (code == kDeviceOk) storePin(serial, pin);
    return code;
}

std::optional<Pin> readApplicationPin(const void* text) {
    const auto* characters = static_cast<const char*>(text);
    const std::size_t length = strnlen(characters, Pin::kMaxLength + 1);
    if (length > Pin::kMaxLength) return std::nullopt;
    return Pin(std::string_view(characters, length));
}

} // namespace veltra
