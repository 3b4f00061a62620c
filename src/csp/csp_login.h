#pragma once

#include "csp/entry_guard.h"
#include "csp/provider_context.h"
#include "token/pin.h"

namespace veltra {

/// Logs the user of the context's token in: at once when the token has a logged-in session (`pinOut` stays
/// empty), otherwise through the password dialog, whose accepted PIN goes to `pinOut`. Fails for a silent
/// context (NTE_SILENT_CONTEXT) and when the user cancelled or no attempt is left (NTE_FAIL).
Outcome loginUser(const CSP_CONTEXT& context, Pin& pinOut);

/// Called before every library call that uses the PIN: succeeds when the token's stored PIN is usable,
/// otherwise logs the user in and stores the PIN. Fails with NTE_SILENT_CONTEXT or NTE_FAIL.
Outcome ensurePasswordValidated(const CSP_CONTEXT& context);

} // namespace veltra
