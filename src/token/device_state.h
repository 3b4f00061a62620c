#pragma once

#include "token/pin.h"

#include <set>
#include <string>
#include <vector>

namespace veltra {

// What this process knows of each token, by serial (exact comparison): whether it was initialised, whether
// its PIN was validated, and the PIN itself. Every function takes the shared state mutex for its own
// duration and may be called from any thread.

/// Whether a PIN was accepted or the token reported a logged-in session; false for an unknown serial.
bool isPinValidated(const std::string& serial);

/// A copy of the stored PIN; empty for an unknown serial, after a single sign-on and after forgetPin.
Pin getPin(const std::string& serial);

/// Whether the PIN is validated and not empty, so that it can be passed to the token.
bool hasUsablePin(const std::string& serial);

/// Stores an accepted PIN, or an empty one after a single sign-on, and marks the PIN as validated.
void storePin(const std::string& serial, const Pin& pin);

/// Empties the stored PIN of a known serial. The validated mark stays.
void forgetPin(const std::string& serial);

/// The same, but only if the stored PIN is still `pin`: another thread may have stored a newer one.
void forgetPin(const std::string& serial, const Pin& pin);

/// Whether the token was initialised in this process; false for an unknown serial.
bool isInitialised(const std::string& serial);
void markInitialised(const std::string& serial);

/// Erases everything known of the serials that are not in `connected`, and returns those serials.
std::vector<std::string> forgetDisconnected(const std::set<std::string>& connected);

} // namespace veltra
