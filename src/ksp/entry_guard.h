#pragma once

#include "foundation/cng.h"
#include "foundation/entry_frame.h"
#include "foundation/win_handle.h"

#include <string>
#include <utility>

namespace veltra {

/// Logs `message` as an error line and fails with `status`.
inline SECURITY_STATUS refuse(SECURITY_STATUS status, std::string message) {
    Utils::error(std::move(message));
    return status;
}

/// The refusal of a handle that is not a live provider, common to nearly all entry points.
inline SECURITY_STATUS refuseProvider(const char* entryPoint) {
    return refuse(NTE_INVALID_HANDLE, concat(entryPoint, ": provider handle is null or not initialized"));
}

/// The refusal of a length that the device library cannot take, because it counts in int.
inline SECURITY_STATUS refuseLength(const char* entryPoint) {
    return refuse(NTE_INVALID_PARAMETER, concat(entryPoint, ": a length is too large"));
}

/// Frame of every entry point of the key storage provider: logs its name, runs `body`, which returns a
/// status, lets no exception out, and leaves the caller's last error as it was.
template <class Body>
SECURITY_STATUS kspEntry(const char* name, Body&& body) noexcept {
    const LastErrorKeeper keeper;
    const ExceptionAnswers<SECURITY_STATUS> answers = {.outOfMemory = NTE_NO_MEMORY,
                                                       .unexpected = NTE_INTERNAL_ERROR};
    return runEntryPoint(name, answers, std::forward<Body>(body));
}

} // namespace veltra
