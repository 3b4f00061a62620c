#pragma once

#include "foundation/windows.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace veltra {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitBadSignature = 3,
};

/// A command that cannot go on: the sentence for the user, the exit code of the program and, where the system
/// or the provider refused something, its error code.
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& sentence, ExitCode exitCode = kExitFailed, DWORD systemCode = 0)
        : std::runtime_error(sentence), exitCode_(exitCode), systemCode_(systemCode) {}

    [[nodiscard]] ExitCode exitCode() const { return exitCode_; }
    [[nodiscard]] DWORD systemCode() const { return systemCode_; }

private:
    ExitCode exitCode_;
    DWORD systemCode_;
};

/// Number, name and meaning of a system error code, and what to do about it where that is known:
/// "0x80090023 NTE_TOKEN_KEYSET_STORAGE_FULL: no token is connected; ...".
std::string describeError(DWORD code);

/// The first two of these: "0x80090023 NTE_TOKEN_KEYSET_STORAGE_FULL"; the number alone for a code without a
/// name.
std::string errorCodeText(DWORD code);

/// Throws a CommandError that says what could not be done and why.
[[noreturn]] void failWithCode(DWORD code, std::string_view what);

/// The same for a PIN that was given and refused with this code.
[[noreturn]] void failWithPin(DWORD code);

/// Does nothing when `succeeded`; otherwise throws what failWithCode throws for the thread's last error.
void require(BOOL succeeded, std::string_view what);

} // namespace veltra
