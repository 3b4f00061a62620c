#pragma once

#include "ksp/ksp_provider.h"

namespace veltra {

// The properties that can be set on a provider and on a key alike; both times they belong to the provider.

inline constexpr const char* kWindowHandleProperty = "HWND Handle";
inline constexpr const char* kPinProperty = "SmartCardPin";

/// Remembers the application's window; none when the value is missing or too short for a handle.
SECURITY_STATUS setParentWindow(KSP_PROVIDER& provider, const BYTE* value, DWORD length);

/// Lets the token check the PIN and keeps it for later calls. `value`: zero-terminated 8-bit text, of which
/// at most 255 bytes are read, terminated or not, whatever length the application states: deliberate. A wide
/// PIN reads as its first character.
SECURITY_STATUS setPin(const KSP_PROVIDER& provider, const char* entryPoint, const BYTE* value);

} // namespace veltra
