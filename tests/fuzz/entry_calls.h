#pragma once

#include "fuzz/fuzz_target.h"
#include "support/invocation.h"

#include "csp/csp_entry_points.h"
#include "foundation/wide_text.h"
#include "ksp/ksp_entry_points.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace veltra::fuzz {

/// The last error in front of every call, and the value of a handle that no call has written.
using test::kUntouched;

/// Calls a CryptoAPI entry point and says whether it succeeded. A failure has to come with a last error.
template <class... Parameters>
bool cspCall(BOOL(WINAPI* entryPoint)(Parameters...), std::type_identity_t<Parameters>... arguments) {
    SetLastError(kUntouched);
    const bool done = entryPoint(arguments...) != FALSE;
    const DWORD reason = GetLastError();
    require(done || (reason != kUntouched && reason != ERROR_SUCCESS), "a failing CP* sets the last error");
    return done;
}

/// Calls a CNG entry point and says whether it succeeded. The last error is none of its business.
template <class... Parameters>
bool kspCall(SECURITY_STATUS(WINAPI* entryPoint)(Parameters...),
             std::type_identity_t<Parameters>... arguments) {
    SetLastError(kUntouched);
    const bool done = entryPoint(arguments...) == 0;
    require(GetLastError() == kUntouched, "a KSP* leaves the last error alone");
    return done;
}

/// The handle that `make(&handle)` hands out: exactly when it succeeds.
template <class Make>
std::optional<ULONG_PTR> handleOf(Make make) {
    ULONG_PTR handle = kUntouched;
    const bool done = make(&handle);
    require(done == (handle != kUntouched), "a handle is handed out exactly with a success");
    return done ? std::optional(handle) : std::nullopt;
}

/// Bytes in a block of exactly their number, so that AddressSanitizer sees every step over their end. Not
/// null even when there are none.
class ExactBytes {
public:
    explicit ExactBytes(std::size_t size) : bytes_(new BYTE[size]()), size_(size) {}
    explicit ExactBytes(std::span<const unsigned char> bytes) : ExactBytes(bytes.size()) {
        std::ranges::copy(bytes, bytes_.get());
    }

    [[nodiscard]] BYTE* data() const { return bytes_.get(); }
    [[nodiscard]] DWORD size() const { return static_cast<DWORD>(size_); }

private:
    std::unique_ptr<BYTE[]> bytes_;
    std::size_t size_;
};

/// Wide text in a block of exactly its length.
class ExactText {
public:
    explicit ExactText(std::string_view ascii) : bytes_(wideSize(ascii)) { writeWide(ascii, bytes_.data()); }

    [[nodiscard]] WCHAR* get() const { return reinterpret_cast<WCHAR*>(bytes_.data()); }

private:
    ExactBytes bytes_;
};

/// One of `known`, or now and then any text.
std::string anyOf(FuzzedDataProvider& input, std::span<const char* const> known);

inline constexpr const char* kBlobNames[] = {
    "RSAPUBLICBLOB", "PUBLICBLOB",      "ECCPUBLICBLOB",    "CAPIPUBLICBLOB",  "KeyDataBlob",
    "OpaqueKeyBlob", "OpaqueTransport", "PKCS8_PRIVATEKEY", "CAPIPRIVATEBLOB", "PRIVATEBLOB"};

inline constexpr const char* kPropertyNames[] = {"SmartCardKeyCertificate",
                                                 "SmartCardPin",
                                                 "HWND Handle",
                                                 "Length",
                                                 "Key Usage",
                                                 "ChainingMode",
                                                 "IV",
                                                 "Name",
                                                 "Unique Name",
                                                 "Algorithm Name",
                                                 "Algorithm Group",
                                                 "Lengths",
                                                 "Export Policy",
                                                 "Block Length",
                                                 "Key Type",
                                                 "Provider Handle",
                                                 "Security Descr",
                                                 "Impl Type",
                                                 "Version",
                                                 "Max Name Length",
                                                 "Security Descr Support",
                                                 "Use Count",
                                                 ""};

/// A new key object of the token's key pair of this type; the caller destroys it.
HCRYPTKEY openCspKey(std::uint32_t keyType);
NCRYPT_KEY_HANDLE openKspKey(std::uint32_t keyType);

/// The same of an AES key, or of any other secret of at most 32 bytes.
HCRYPTKEY openCspKey(std::span<const unsigned char> secret);
NCRYPT_KEY_HANDLE openKspKey(std::span<const unsigned char> secret);

/// A context without a container, and a provider, on the token; they stay.
HCRYPTPROV cspContext();
NCRYPT_PROV_HANDLE kspProvider();

/// Bytes that KP_CERTIFICATE reads of `der`, which comes without a length: as many as its header says, or,
/// where the header alone decides, the header.
ExactBytes asCertificateArgument(const Bytes& der);

/// What applications do with a key object, whatever it is.
void useCspKey(HCRYPTKEY key);
void useKspKey(NCRYPT_KEY_HANDLE key);

} // namespace veltra::fuzz
