#pragma once

#include "foundation/entry_frame.h"
#include "foundation/text.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"

#include <optional>
#include <string>
#include <utility>

namespace veltra {

/// What a CryptoAPI entry point answers. The last error is not set where a refusal is found but by the guard,
/// after every object of the entry point has been cleaned up; without one the caller's last error stays.
struct Outcome {
    BOOL result = FALSE;
    std::optional<DWORD> lastError;

    explicit operator bool() const { return result != FALSE; }

    /// The reason of a failure.
    [[nodiscard]] DWORD code() const { return lastError.value_or(static_cast<DWORD>(NTE_FAIL)); }
};

inline Outcome success() {
    return {.result = TRUE, .lastError = std::nullopt};
}

/// Success that leaves a last error behind, where the contract wants one.
inline Outcome successWithLastError(DWORD code) {
    return {.result = TRUE, .lastError = code};
}

/// Failure whose reason was logged before.
inline Outcome failure(DWORD code) {
    return {.result = FALSE, .lastError = code};
}

/// Logs `message` as an error line and fails with `code`.
inline Outcome refuse(DWORD code, std::string message) {
    Utils::error(std::move(message));
    return failure(code);
}

/// Frame of every CryptoAPI entry point: logs its name, runs `body`, which returns an Outcome, and lets no
/// exception out.
template <class Body>
BOOL cspEntry(const char* name, Body&& body) noexcept {
    const DWORD callersLastError = GetLastError();
    const ExceptionAnswers<Outcome> answers = {.outOfMemory = failure(NTE_NO_MEMORY),
                                               .unexpected = failure(NTE_FAIL)};
    const Outcome outcome = runEntryPoint(name, answers, std::forward<Body>(body));
    SetLastError(outcome.lastError.value_or(callersLastError));
    return outcome.result;
}

} // namespace veltra
