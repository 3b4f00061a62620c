#include "csp/csp_login.h"

#include "token/device_state.h"
#include "token/user_verification.h"

namespace veltra {

namespace {

constexpr const char* kTimeMismatchText = "System time mismatch, Kidly login to Token Manager";

// The login hands a PIN over in 64 bytes, its terminating zero included.
constexpr std::size_t kPinBufferLength = 64;

} // namespace

Outcome loginUser(const CSP_CONTEXT& context, Pin& pinOut) {
    Utils::debug("loginUser: enter");
    if (isSessionValidated(context.serial, context.libraryContext)) {
        Utils::debug("loginUser: SSO already validated, return TRUE");
        return success();
    }
    if (context.silent != 0) {
        return refuse(NTE_SILENT_CONTEXT,
                      "loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE");
    }
    Pin accepted;
    switch (askForPinUntilAccepted(context.serial, context.libraryContext, kTimeMismatchText, accepted)) {
    case LoginOutcome::Accepted:
        pinOut = Pin(accepted.view(), kPinBufferLength - 1);
        Utils::debug("loginUser: password validated, return TRUE");
        return success();
    case LoginOutcome::Locked:
        return refuse(NTE_FAIL, "loginUser: PIN locked, retryCount=0, return FALSE");
    case LoginOutcome::Cancelled:
        break;
    }
    return refuse(NTE_FAIL, "loginUser: user cancelled password dialog, return FALSE");
}

Outcome ensurePasswordValidated(const CSP_CONTEXT& context) {
    if (hasUsablePin(context.serial)) {
        Utils::debug("ensurePasswordValidated: PIN already validated, return true");
        return success();
    }
    if (context.silent != 0) {
        return refuse(NTE_SILENT_CONTEXT,
                      "ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false");
    }
    Utils::debug("ensurePasswordValidated: password not validated or empty -- ask for PIN");
    Pin pin;
    if (!loginUser(context, pin)) {
        return refuse(NTE_FAIL, "ensurePasswordValidated: password validation failed, return false");
    }
    storePin(context.serial, pin);
    Utils::debug("ensurePasswordValidated: password set, return true");
    return success();
}

} // namespace veltra
