#pragma once

#include "csp/entry_guard.h"

namespace veltra {

/// CRYPT_DELETEKEYSET: deletes the token keys that the container maps to, on the first connected token, and
/// forgets the container. `container` may be null. Succeeds for a container that maps to nothing, and when a
/// single deletion fails. With `silent`, refuses instead of asking for the PIN.
Outcome deleteContainer(const char* container, bool silent);

} // namespace veltra
