#pragma once

#include "csp/hash_context.h"

namespace veltra {

/// Keys an HMAC object as HP_HMAC_INFO asks (RFC 2104, pads 0x36 and 0x5C). On failure the object is as it
/// was.
Outcome setUpHmac(const CSP_CONTEXT& context, HASH_CONTEXT& hash, const HMAC_INFO& info);

/// Runs the outer hash over the inner digest in `hash.hashValue` and wipes the key. `length` is the length of
/// that digest on entry and of the MAC on success. On failure the object can only be destroyed.
Outcome finishHmac(const CSP_CONTEXT& context, HASH_CONTEXT& hash, std::uint32_t& length);

} // namespace veltra
