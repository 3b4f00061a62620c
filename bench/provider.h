#pragma once

#include "measure.h"
#include "stand_in.h"

#include "csp/csp_entry_points.h"
#include "foundation/win_handle.h"
#include "ksp/key_storage_interface.h"

#include <optional>
#include <vector>

namespace veltra::bench {

/// The program is linked with VeltraCSP.dll, whose CP* functions it calls without the system between. The
/// functions of its key storage provider:
const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp();

/// Fails with std::runtime_error unless `succeeded`.
void require(bool succeeded, const char* what);
void requireStatus(SECURITY_STATUS status, const char* what);

/// What a call of the provider costs at least: names of library functions, and kLogLevelRead.
using Trace = std::vector<const char*>;
inline constexpr char kLogLevelRead[] = "log level"; ///< compared by its address

/// The library calls of `operation` and its reads of the log level, counted while it runs once.
Trace traceOf(const Operation& operation);

/// The same reads and library calls, in the same order, and nothing else.
Operation bareOf(const Trace& trace);

/// The log level as the provider reads it, from a key that stays open.
void readLogLevel();

/// Sets the log level to that of error lines only, as long as it lives; then it is again what it was.
class ErrorLinesOnly {
public:
    ErrorLinesOnly();
    ErrorLinesOnly(const ErrorLinesOnly&) = delete;
    ErrorLinesOnly& operator=(const ErrorLinesOnly&) = delete;
    ~ErrorLinesOnly();

private:
    UniqueRegistryKey key_;
    bool keyWasThere_;
    std::optional<DWORD> before_;
};

} // namespace veltra::bench
