#pragma once

#include "csp/entry_guard.h"
#include "csp/provider_context.h"

namespace veltra {

/// PP_ENUMALGS, PP_ENUMALGS_EX, PP_ENUMEX_SIGNING_PROT and PP_ENUMCONTAINERS of CPGetProvParam: one record
/// per call, from a cursor in the context that never leaves its table.
Outcome enumerateAlgorithms(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags);
Outcome enumerateAlgorithmsEx(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags);
Outcome enumerateSigningProtocols(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags);
Outcome enumerateContainers(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags);

} // namespace veltra
