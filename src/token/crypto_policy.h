#pragma once

#include <string>

namespace veltra {

/// Events that another process may have created to learn of refusals.
inline constexpr const char* kSha1BlockedEvent = "Global\\VeltraDSC_FipsSha1Blocked";
inline constexpr const char* kMd5BlockedEvent = "Global\\VeltraDSC_FipsMd5Blocked";
inline constexpr const char* kPkcs1DecryptBlockedEvent = "Global\\VeltraDSC_FipsPkcs1DecryptBlocked";

/// Whether the token follows FIPS 140-2. Every other token, one that cannot be read included, follows
/// FIPS 140-3. Reads the token information afresh; stateless, any thread.
bool isFips1402Token(const std::string& serial, void* libraryContext);

/// Signals the named event if some process has created it; otherwise does nothing.
void raisePolicyEvent(const char* name);

} // namespace veltra
