#pragma once

#include "foundation/device_library.h"
#include "foundation/utils.h"
#include "token/device_state.h"
#include "token/pin.h"

#include <optional>
#include <string>

namespace veltra {

/// Whether the token already has a logged-in session, so that its user need not be asked.
bool isSessionValidated(const std::string& serial, void* libraryContext);

enum class LoginOutcome { Accepted, Cancelled, Locked };

/// Asks for the PIN until the token accepts one, the user cancels, or no attempt is left. Forgets the stored
/// PIN first. `timeMismatchText` is what the user is told when host and token time disagree (the two front
/// ends word it differently). On `Accepted`, `acceptedPin` is the PIN; otherwise it is untouched.
LoginOutcome askForPinUntilAccepted(const std::string& serial, void* libraryContext,
                                    const char* timeMismatchText, Pin& acceptedPin);

/// Lets the token check a PIN that the application gave, and stores it if the token accepts it: no later call
/// prompts, unless the PIN is empty. Returns the library's code; nothing is stored for another than 0.
int acceptPin(const std::string& serial, const Pin& pin, void* libraryContext);

/// The PIN in a zero-terminated text from the application; nothing when it has more than Pin::kMaxLength
/// characters, and no more than that is read.
std::optional<Pin> readApplicationPin(const void* text);

/// Result of an operation that uses the stored PIN: the library's code, or the user could not be verified
/// again after the token's session had expired.
struct PinOperationResult {
    int code = kDeviceOk;
    bool verificationFailed = false;
};

/// Runs `operation(pin)` with the stored PIN. If the token answers that its session has expired, writes the
/// debug line `expiredLine`, forgets that PIN, runs `verifyAgain()` and, if that returns true, repeats the
/// operation once with the new PIN; the second result is final.
template <class Operation, class VerifyAgain>
PinOperationResult runWithSessionRetry(const std::string& serial, const char* expiredLine,
                                       Operation operation, VerifyAgain verifyAgain) {
    const Pin pin = getPin(serial);
    const int first = operation(pin);
    if (first != kDeviceSessionExpired) return {.code = first};
    Utils::debug(expiredLine);
    forgetPin(serial, pin);
    if (!verifyAgain()) return {.code = first, .verificationFailed = true};
    return {.code = operation(getPin(serial))};
}

} // namespace veltra
