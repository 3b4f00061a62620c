#pragma once

// The platform's CNG headers, and the names and numbers of theirs that not every version of them has.

#include "foundation/windows.h"

#include <bcrypt.h>
#include <ncrypt.h>

namespace veltra {

inline constexpr SECURITY_STATUS kSuccess = ERROR_SUCCESS;
inline constexpr auto kValidationFailed = static_cast<SECURITY_STATUS>(0x80090032); // NTE_VALIDATION_FAILED

inline constexpr DWORD kImplHardwareFlag = 0x1;  // NCRYPT_IMPL_HARDWARE_FLAG
inline constexpr DWORD kImplRemovableFlag = 0x8; // NCRYPT_IMPL_REMOVABLE_FLAG
inline constexpr DWORD kAllowExportFlag = 0x1;   // NCRYPT_ALLOW_EXPORT_FLAG
inline constexpr DWORD kAllowDecryptFlag = 0x1;  // NCRYPT_ALLOW_DECRYPT_FLAG
inline constexpr DWORD kAllowSigningFlag = 0x2;  // NCRYPT_ALLOW_SIGNING_FLAG
inline constexpr DWORD kPadPkcs1Flag = 0x2;      // BCRYPT_PAD_PKCS1
inline constexpr DWORD kPadOaepFlag = 0x4;       // BCRYPT_PAD_OAEP
inline constexpr DWORD kPadPssFlag = 0x8;        // BCRYPT_PAD_PSS
inline constexpr DWORD kSilentFlag = 0x40;       // NCRYPT_SILENT_FLAG

inline constexpr ULONG kKdfLabel = 0xD;   // KDF_LABEL
inline constexpr ULONG kKdfContext = 0xE; // KDF_CONTEXT

/// NCRYPT_SUPPORTED_LENGTHS.
struct SupportedLengths {
    DWORD minLength;
    DWORD maxLength;
    DWORD increment;
    DWORD defaultLength;
};
static_assert(sizeof(SupportedLengths) == 16);

} // namespace veltra
