#pragma once

#include "foundation/device_library.h"

#include <string>
#include <string_view>
#include <vector>

namespace veltra {

/// Serials of the connected tokens, in the library's order; the first is "the first token".
std::vector<std::string> connectedSerials(void* libraryContext);

/// Prepares the device library before the first token is listed.
void initialiseLibrary();

/// Initialises each token of `serials` that is not yet marked as initialised, and marks it. A token that
/// refuses is reported ("<logPrefix>Init device failed for ..."), left unmarked, and tried again next time.
void initialiseTokens(const std::vector<std::string>& serials, void* libraryContext,
                      std::string_view logPrefix);

/// What the token says about itself, read afresh. A token that cannot be read gives an empty record, which
/// every test takes for the stricter case: FIPS 140-3, no session.
TokenInfo readTokenInfo(const std::string& serial, void* libraryContext);

/// Whether the token has a logged-in session (single sign-on).
bool hasLoggedInSession(const TokenInfo& info);

} // namespace veltra
