#pragma once

#include "ksp/entry_guard.h"
#include "token/key_operations.h"
#include "token/user_verification.h"

#include <string>

namespace veltra {

/// Called before every library call that uses the PIN: true when the token's stored PIN is usable or the
/// token has a logged-in session, otherwise asks the user and stores the PIN. False when the user cancelled
/// or no attempt is left. Does not look at silence: callers do.
bool ensureUserVerified(const std::string& serial, void* libraryContext);

/// The same for an entry point that may be silent: with kSilentFlag in `flags`, a token whose PIN was never
/// validated is refused without a window. Success, or the refusal, whose line begins with `entryPoint`.
SECURITY_STATUS verifyUser(const char* entryPoint, const std::string& serial, void* libraryContext,
                           DWORD flags);

/// Runs `operation(pin)`, a use of `key`, and once more after a new login if the token answers that its
/// session has expired, which writes the debug line `expiredLine`. `code` is the library's final answer;
/// refused with a line that begins with `entryPoint` when the user could not be verified again.
template <class Operation>
SECURITY_STATUS runWithPin(const char* entryPoint, const TokenKey& key, const char* expiredLine,
                           Operation operation, int& code) {
    const PinOperationResult result = runWithSessionRetry(key.serial, expiredLine, operation, [&] {
        return ensureUserVerified(key.serial, key.libraryContext);
    });
    if (result.verificationFailed) {
        return refuse(NTE_FAIL, concat(entryPoint, ": password validation failed after SSO expiry"));
    }
    code = result.code;
    return kSuccess;
}

} // namespace veltra
