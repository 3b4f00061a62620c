#pragma once

#include "foundation/device_library_contract.h"

#include <stdexcept>
#include <string>

namespace veltra::softtoken {

/// Why an operation was refused. The numbers are the library codes that the exports return; callers tell only
/// TimeMismatch, SessionExpired and WeakHash apart, the others show up in their logs.
enum class Failure : int {
    BadArgument = 1,
    NoSuchToken = 2,
    NoSuchKey = 3,
    WrongPin = 4,
    PinLocked = 5,
    BufferTooSmall = 6,
    NotSupported = 7,
    BadSignature = 8,
    Damaged = 9,  ///< a stored file does not parse or authenticate
    Storage = 10, ///< the file system refused
    Busy = 11,    ///< another process held the token too long
    Crypto = 12,
    OutOfMemory = 13,
    Internal = 14,
    AlreadyExists = 15,
    Undecryptable = 16, ///< data that cannot be decrypted or unwrapped, whatever is wrong with it
    TimeMismatch = kDeviceTimeMismatch,
    SessionExpired = kDeviceSessionExpired,
    WeakHash = kDeviceWeakHashRefused,
};

/// The one exception of the software token: a code for the caller and a sentence for a person.
class TokenError : public std::runtime_error {
public:
    TokenError(Failure failure, const std::string& text) : std::runtime_error(text), failure_(failure) {}

    [[nodiscard]] Failure failure() const noexcept { return failure_; }

private:
    Failure failure_;
};

/// Receives one line about something that was skipped or refused. Called from any thread; must not throw.
using Reporter = void (*)(const char* line);

/// Replaces the receiver of report(); the default writes to the debugger.
void setReporter(Reporter reporter) noexcept;

/// Hands a line to the receiver. Never throws.
void report(const std::string& line) noexcept;

} // namespace veltra::softtoken
