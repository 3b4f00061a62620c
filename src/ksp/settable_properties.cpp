#include "ksp/settable_properties.h"

#include "ksp/entry_guard.h"
#include "token/user_verification.h"

#include <cstring>

namespace veltra {

SECURITY_STATUS setParentWindow(KSP_PROVIDER& provider, const BYTE* value, DWORD length) {
    HWND window = nullptr;
    if (value != nullptr && length >= sizeof(HWND)) std::memcpy(&window, value, sizeof(HWND));
    provider.parentWindow = window;
    return kSuccess;
}

SECURITY_STATUS setPin(const KSP_PROVIDER& provider, const char* entryPoint, const BYTE* value) {
    if (value == nullptr) {
        return refuse(NTE_INVALID_PARAMETER, concat(entryPoint, ": NCRYPT_PIN_PROPERTY pbInput is null"));
    }
    Utils::debug("KSP: Setting PIN via property");
    const auto* text = reinterpret_cast<const char*>(value);
    const Pin pin(std::string_view(text, strnlen(text, Pin::kMaxLength)));
    const int code = acceptPin(provider.serial(), pin, provider.libraryContext);
    if (code != kDeviceOk) {
        return refuse(kValidationFailed, concat("KSP: PIN validation failed: ", code));
    }
    return kSuccess;
}

} // namespace veltra
