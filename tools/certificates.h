#pragma once

#include "token_key.h"

#include "foundation/windows.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace veltra {

constexpr DWORD kMessageEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct CertificateFreer {
    void operator()(PCCERT_CONTEXT certificate) const { CertFreeCertificateContext(certificate); }
};
using UniqueCertificate = std::unique_ptr<const CERT_CONTEXT, CertificateFreer>;

struct StoreCloser {
    void operator()(HCERTSTORE store) const { CertCloseStore(store, 0); }
};
using UniqueStore = std::unique_ptr<std::remove_pointer_t<HCERTSTORE>, StoreCloser>;

struct MessageCloser {
    void operator()(HCRYPTMSG message) const { CryptMsgClose(message); }
};
using UniqueMessage = std::unique_ptr<std::remove_pointer_t<HCRYPTMSG>, MessageCloser>;

/// Reads a certificate, PEM or DER. A file that holds none throws a CommandError.
UniqueCertificate loadCertificate(const std::filesystem::path& path);

/// Writes a certificate as PEM, lines ended by a line feed.
void saveCertificate(const std::filesystem::path& path, const CERT_CONTEXT& certificate);

/// Throws a CommandError unless the certificate belongs to the container's key: what is signed or stored with
/// another one would verify nowhere.
void requireSameKey(const TokenKey& key, const CERT_CONTEXT& certificate);

/// Encodes a distinguished name such as "CN=Example, O=Company" in DER.
std::vector<BYTE> encodeName(const std::wstring& name);

/// A DER name in the same form.
std::string nameText(const CERT_NAME_BLOB& name);

/// What a certificate says that a list shows.
struct CertificateFacts {
    std::string subject;
    std::string issuer;
    std::string notBefore; ///< days as YYYY-MM-DD, in UTC
    std::string notAfter;
    int daysUntilValid = 0; ///< not above 0: valid already
    int daysLeft = 0;       ///< whole days; below 0: expired
};

/// Nothing when the bytes are no certificate in DER.
std::optional<CertificateFacts> certificateFacts(const std::vector<BYTE>& der);

} // namespace veltra
