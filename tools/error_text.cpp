#include "error_text.h"

#include "wide_text.h"

#include "foundation/text.h"

#include <algorithm>
#include <iterator>

namespace veltra {
namespace {

struct KnownError {
    LONG code;
    std::string_view name;
    std::string_view advice;
};

constexpr const char* kWrongPin = "the PIN is wrong or locked, the token is gone, or its clock and the "
                                  "computer's disagree; 'veltra log' has "
                                  "the token's code. Each wrong PIN costs one of a few attempts";

constexpr const char* kNoSuchDer = "the data is cut, damaged, or of another kind";

// The names are the platform's; the advice is what the code means when it comes from this provider, which
// uses some codes for conditions that their names do not suggest.
constexpr KnownError kKnownErrors[] = {
    {ERROR_FILE_NOT_FOUND, "ERROR_FILE_NOT_FOUND", "the file does not exist"},
    {ERROR_PATH_NOT_FOUND, "ERROR_PATH_NOT_FOUND", "the folder does not exist"},
    {ERROR_ACCESS_DENIED, "ERROR_ACCESS_DENIED",
     "access denied; check the permissions, or run as administrator"},
    {ERROR_WRITE_PROTECT, "ERROR_WRITE_PROTECT", "the medium is write-protected"},
    {ERROR_SHARING_VIOLATION, "ERROR_SHARING_VIOLATION", "another program holds the file; close it"},
    {ERROR_HANDLE_DISK_FULL, "ERROR_HANDLE_DISK_FULL", "the disk is full"},
    {ERROR_DISK_FULL, "ERROR_DISK_FULL", "the disk is full"},
    {ERROR_INVALID_NAME, "ERROR_INVALID_NAME", "this is no name of a file"},
    {ERROR_FILENAME_EXCED_RANGE, "ERROR_FILENAME_EXCED_RANGE", "the name is too long"},
    {ERROR_MOD_NOT_FOUND, "ERROR_MOD_NOT_FOUND", "the file, or a DLL that it needs, does not exist"},
    {ERROR_PROC_NOT_FOUND, "ERROR_PROC_NOT_FOUND",
     "the file lacks a function; it is another DLL, or too old"},
    {ERROR_BAD_EXE_FORMAT, "ERROR_BAD_EXE_FORMAT",
     "the file is no DLL, or one for programs of the other kind (32 and 64 bits)"},
    {ERROR_DLL_INIT_FAILED, "ERROR_DLL_INIT_FAILED", "the DLL failed to start; reinstall it"},
    {ERROR_NOT_ENOUGH_MEMORY, "ERROR_NOT_ENOUGH_MEMORY", "out of memory"},
    {ERROR_INVALID_PARAMETER, "ERROR_INVALID_PARAMETER", "the provider was called with a bad argument"},
    {ERROR_CALL_NOT_IMPLEMENTED, "ERROR_CALL_NOT_IMPLEMENTED", "the provider does not offer this operation"},
    {ERROR_MORE_DATA, "ERROR_MORE_DATA", "the buffer is too small"},
    {NTE_BAD_UID, "NTE_BAD_UID", "the provider does not know the context"},
    {NTE_BAD_HASH, "NTE_BAD_HASH", "the hash is not valid"},
    {NTE_BAD_KEY, "NTE_BAD_KEY",
     "no such key on the token, or a key that may not be used for this; 'veltra list-keys' lists the keys"},
    {NTE_BAD_LEN, "NTE_BAD_LEN", "key or data length not allowed; RSA keys have 2048 bits or more"},
    {NTE_BAD_DATA, "NTE_BAD_DATA", "the data is damaged"},
    {NTE_BAD_SIGNATURE, "NTE_BAD_SIGNATURE", "the signature does not belong to this data and key"},
    {NTE_BAD_VER, "NTE_BAD_VER", "the version of the data is not known"},
    {NTE_BAD_ALGID, "NTE_BAD_ALGID",
     "algorithm not allowed; MD5 never is, SHA-1 only on a FIPS 140-2 token: use --hash sha256"},
    {NTE_BAD_FLAGS, "NTE_BAD_FLAGS", "flags not allowed"},
    {NTE_BAD_TYPE, "NTE_BAD_TYPE", "the provider does not know this kind of parameter"},
    {NTE_BAD_HASH_STATE, "NTE_BAD_HASH_STATE", "the hash is already finished"},
    {NTE_NO_KEY, "NTE_NO_KEY",
     "the container has no key on the connected token; 'veltra list-keys' lists the containers and keys"},
    {NTE_NO_MEMORY, "NTE_NO_MEMORY", "out of memory"},
    {NTE_EXISTS, "NTE_EXISTS", "it exists already"},
    {NTE_NOT_FOUND, "NTE_NOT_FOUND", "not found on the token"},
    {NTE_BAD_KEYSET, "NTE_BAD_KEYSET", "there is no such container"},
    {NTE_PROV_TYPE_NOT_DEF, "NTE_PROV_TYPE_NOT_DEF", "the provider is not registered; run 'veltra register'"},
    {NTE_KEYSET_NOT_DEF, "NTE_KEYSET_NOT_DEF", "the provider is not registered; run 'veltra register'"},
    {NTE_KEYSET_ENTRY_BAD, "NTE_KEYSET_ENTRY_BAD",
     "the provider's registration is damaged; run 'veltra register' again"},
    {NTE_PROV_TYPE_NO_MATCH, "NTE_PROV_TYPE_NO_MATCH",
     "the provider is registered for another type; run 'veltra register' again"},
    {NTE_SIGNATURE_FILE_BAD, "NTE_SIGNATURE_FILE_BAD", "the system refuses the provider's file"},
    {NTE_PROVIDER_DLL_FAIL, "NTE_PROVIDER_DLL_FAIL",
     "the token refused or failed, or the provider's file could not be loaded; 'veltra log' says which"},
    {NTE_PROV_DLL_NOT_FOUND, "NTE_PROV_DLL_NOT_FOUND",
     "the provider's file is not where it was registered; run 'veltra register' again"},
    {NTE_FAIL, "NTE_FAIL",
     "the PIN was not verified, or the token failed or is not there; 'veltra log' says which"},
    {NTE_SILENT_CONTEXT, "NTE_SILENT_CONTEXT",
     "the PIN is needed and --silent forbids to ask for it; give it, or leave --silent out"},
    {NTE_TOKEN_KEYSET_STORAGE_FULL, "NTE_TOKEN_KEYSET_STORAGE_FULL",
     "no token is connected, or the token could not make the key; plug the token in, or ask 'veltra doctor'"},
    {CRYPT_E_MSG_ERROR, "CRYPT_E_MSG_ERROR", "the platform cannot handle the message"},
    {CRYPT_E_UNKNOWN_ALGO, "CRYPT_E_UNKNOWN_ALGO", "the platform does not know the algorithm"},
    {CRYPT_E_UNEXPECTED_MSG_TYPE, "CRYPT_E_UNEXPECTED_MSG_TYPE", "it is another kind of message"},
    {CRYPT_E_ASN1_EOD, "CRYPT_E_ASN1_EOD", kNoSuchDer},
    {CRYPT_E_ASN1_CORRUPT, "CRYPT_E_ASN1_CORRUPT", kNoSuchDer},
    {CRYPT_E_ASN1_BADTAG, "CRYPT_E_ASN1_BADTAG", kNoSuchDer},
    {CRYPT_E_HASH_VALUE, "CRYPT_E_HASH_VALUE", "the file is not the one that was signed"},
    {NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED",
     "the provider does not offer this operation, or the token or its policy does not allow it"},
    {NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE", "the provider does not know the handle"},
    {NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER", "the provider was called with a bad argument"},
    {NTE_BUFFER_TOO_SMALL, "NTE_BUFFER_TOO_SMALL", "the buffer is too small"},
    {NTE_VALIDATION_FAILED, "NTE_VALIDATION_FAILED", kWrongPin},
    {NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR", "the token failed; 'veltra log' says why"},
};

const KnownError* findKnown(DWORD code) {
    const auto* known = std::ranges::find(kKnownErrors, static_cast<LONG>(code), &KnownError::code);
    return known != std::end(kKnownErrors) ? known : nullptr;
}

std::string systemText(DWORD code) {
    wchar_t text[512] = {};
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                                  0, text, static_cast<DWORD>(std::size(text)), nullptr);
    while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.')) {
        --length;
    }
    return length == 0 ? "unknown error" : toUtf8({text, length});
}

} // namespace

std::string errorCodeText(DWORD code) {
    const KnownError* known = findKnown(code);
    return concat("0x", toHex8(code), known != nullptr ? " " : "", known != nullptr ? known->name : "");
}

std::string describeError(DWORD code) {
    const KnownError* known = findKnown(code);
    return errorCodeText(code) + ": " + (known != nullptr ? std::string(known->advice) : systemText(code));
}

void failWithCode(DWORD code, std::string_view what) {
    throw CommandError(std::string(what) + ": " + describeError(code), kExitFailed, code);
}

void failWithPin(DWORD code) {
    // CryptoAPI's code for it means another thing where a provider is opened.
    const std::string meaning = code == static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD)
                                    ? errorCodeText(code) + ": " + kWrongPin
                                    : describeError(code);
    throw CommandError("the token does not accept the PIN: " + meaning, kExitFailed, code);
}

void require(BOOL succeeded, std::string_view what) {
    if (!succeeded) {
        failWithCode(GetLastError(), what);
    }
}

} // namespace veltra
