#pragma once

#include <string>

namespace veltra {

/// Called before every library call that uses the PIN: true when the token's stored PIN is usable or the
/// token has a logged-in session, otherwise asks the user and stores the PIN. False when the user cancelled
/// or no attempt is left. Does not look at silence: callers do.
bool ensureUserVerified(const std::string& serial, void* libraryContext);

} // namespace veltra
