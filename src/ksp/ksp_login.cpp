#include "ksp/ksp_login.h"

#include "token/device_state.h"

namespace veltra {

namespace {

constexpr const char* kTimeMismatchText = "System time mismatch, Kindly login to Token Manager";

} // namespace

bool ensureUserVerified(const std::string& serial, void* libraryContext) {
    if (hasUsablePin(serial)) {
        Utils::debug("KSP: PIN already validated");
        return true;
    }
    Utils::debug("KSP: Password not validated, checking SSO");
    Pin pin;
    if (!isSessionValidated(serial, libraryContext)) {
        const LoginOutcome outcome = askForPinUntilAccepted(serial, libraryContext, kTimeMismatchText, pin);
        if (outcome == LoginOutcome::Cancelled) Utils::debug("KSP: User cancelled password dialog");
        if (outcome != LoginOutcome::Accepted) return false;
    }
    storePin(serial, pin); // empty after a single sign-on
    return true;
}

SECURITY_STATUS verifyUser(const char* entryPoint, const std::string& serial, void* libraryContext,
                           DWORD flags) {
    if ((flags & kSilentFlag) != 0 && !isPinValidated(serial)) {
        return refuse(NTE_SILENT_CONTEXT,
                      concat(entryPoint, ": silent mode requested but PIN not validated"));
    }
    if (!ensureUserVerified(serial, libraryContext)) {
        return refuse(NTE_FAIL, concat(entryPoint, ": password validation failed"));
    }
    return kSuccess;
}

} // namespace veltra
