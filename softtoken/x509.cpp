#include "x509.h"

#include "foundation/windows.h"
#include "text_encoding.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace veltra::softtoken {

namespace {

struct LocalRelease {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};
using LocalBuffer = std::unique_ptr<void, LocalRelease>;

struct CertificateRelease {
    void operator()(const CERT_CONTEXT* certificate) const noexcept {
        CertFreeCertificateContext(certificate);
    }
};
using CertificateContext = std::unique_ptr<const CERT_CONTEXT, CertificateRelease>;

/// CryptDecodeObjectEx into a buffer of its own; null when `der` is not a `structure`.
LocalBuffer decodeDer(LPCSTR structure, BytesView der, DWORD& length) {
    void* decoded = nullptr;
    length = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, structure, der.data(), static_cast<DWORD>(der.size()),
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, static_cast<void*>(&decoded), &length)) {
        return nullptr;
    }
    return LocalBuffer(decoded);
}

/// Null when `der` is not a certificate.
CertificateContext decodeCertificate(BytesView der) {
    if (der.empty() || der.size() > std::numeric_limits<DWORD>::max()) return nullptr;
    return CertificateContext(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
}

CertificateContext requireCertificate(BytesView der) {
    CertificateContext certificate = decodeCertificate(der);
    if (!certificate) throw TokenError(Failure::BadArgument, "this is not an X.509 certificate");
    return certificate;
}

bool hasAlgorithm(const CERT_PUBLIC_KEY_INFO& info, const char* oid) {
    return info.Algorithm.pszObjId != nullptr && std::strcmp(info.Algorithm.pszObjId, oid) == 0;
}

std::optional<RsaPublicKey> rsaKeyFrom(const CERT_PUBLIC_KEY_INFO& info) {
    if (!hasAlgorithm(info, szOID_RSA_RSA)) return std::nullopt;
    DWORD length = 0;
    const LocalBuffer blob =
        decodeDer(RSA_CSP_PUBLICKEYBLOB, {info.PublicKey.pbData, info.PublicKey.cbData}, length);
    constexpr std::size_t kHeadLength = sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY);
    if (!blob || length < kHeadLength) return std::nullopt;
    RSAPUBKEY head{};
    const auto* bytes = static_cast<const unsigned char*>(blob.get());
    std::memcpy(&head, bytes + sizeof(PUBLICKEYSTRUC), sizeof(head));
    const std::size_t modulusLength = head.bitlen / 8;
    if (modulusLength == 0 || modulusLength > kPublicKeyCapacity || length - kHeadLength < modulusLength) {
        return std::nullopt;
    }
    RsaPublicKey key;
    key.modulus.assign(bytes + kHeadLength, bytes + kHeadLength + modulusLength);
    std::reverse(key.modulus.begin(), key.modulus.end());
    for (int shift = 24; shift >= 0; shift -= 8) {
        key.exponent.push_back(static_cast<unsigned char>(head.pubexp >> shift));
    }
    return key;
}

/// A text from a function that writes it, with its terminator, into a buffer, and returns how long it is
/// when it gets none.
template <class Write>
std::wstring textFrom(Write write) {
    std::wstring text(write(nullptr, 0), L'\0');
    const DWORD length = write(text.data(), static_cast<DWORD>(text.size()));
    text.resize(length == 0 ? 0 : length - 1);
    return text;
}

/// "CN=..": the platform's short name of the attribute, or its object identifier.
std::string attributeText(CERT_RDN_ATTR& attribute) {
    const CCRYPT_OID_INFO* known =
        CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, attribute.pszObjId, CRYPT_RDN_ATTR_OID_GROUP_ID);
    const std::wstring value = textFrom([&](wchar_t* text, DWORD length) {
        return CertRDNValueToStrW(attribute.dwValueType, &attribute.Value, text, length);
    });
    return (known != nullptr ? toUtf8(known->pwszName) : std::string(attribute.pszObjId)) + "=" +
           toUtf8(value);
}

/// Not CertNameToStr: Wine's puts quotes around names that need none and looks behind their end to decide it,
/// so that one name could get two texts.
std::string nameText(const CERT_NAME_BLOB& name) {
    DWORD length = 0;
    const LocalBuffer decoded = decodeDer(X509_NAME, {name.pbData, name.cbData}, length);
    if (!decoded) throw TokenError(Failure::BadArgument, "a name in the certificate is malformed");
    const auto* info = static_cast<const CERT_NAME_INFO*>(decoded.get());
    std::string text;
    for (DWORD rdn = info->cRDN; rdn > 0; --rdn) {
        const CERT_RDN& part = info->rgRDN[rdn - 1];
        for (DWORD i = 0; i < part.cRDNAttr; ++i) {
            text += (text.empty() ? "" : ", ") + attributeText(part.rgRDNAttr[i]);
        }
    }
    return text;
}

std::string commonName(const CERT_CONTEXT& certificate) {
    std::string attribute = szOID_COMMON_NAME;
    return toUtf8(textFrom([&](wchar_t* text, DWORD length) {
        return CertGetNameStringW(&certificate, CERT_NAME_ATTR_TYPE, 0, attribute.data(), text, length);
    }));
}

void addCertificate(std::vector<Bytes>& certificates, BytesView der) {
    if (decodeCertificate(der)) certificates.emplace_back(der.begin(), der.end());
}

Bytes decodePemSection(std::string_view section) {
    // The decoded form is never longer than the text.
    Bytes der(section.size());
    auto length = static_cast<DWORD>(der.size());
    if (!CryptStringToBinaryA(section.data(), static_cast<DWORD>(section.size()), CRYPT_STRING_BASE64HEADER,
                              der.data(), &length, nullptr, nullptr)) {
        return {};
    }
    der.resize(length);
    return der;
}

} // namespace

std::optional<RsaPublicKey> parseRsaPublicKey(BytesView der) {
    DWORD length = 0;
    const LocalBuffer info = decodeDer(X509_PUBLIC_KEY_INFO, der, length);
    if (!info || length < sizeof(CERT_PUBLIC_KEY_INFO)) return std::nullopt;
    return rsaKeyFrom(*static_cast<const CERT_PUBLIC_KEY_INFO*>(info.get()));
}

CertificateDetails certificateDetails(BytesView der) {
    const CertificateContext certificate = requireCertificate(der);
    return {commonName(*certificate), nameText(certificate->pCertInfo->Issuer),
            nameText(certificate->pCertInfo->Subject)};
}

Bytes certifiedPublicKey(BytesView der) {
    const CertificateContext certificate = requireCertificate(der);
    const CERT_PUBLIC_KEY_INFO& info = certificate->pCertInfo->SubjectPublicKeyInfo;
    if (std::optional<RsaPublicKey> key = rsaKeyFrom(info)) return std::move(key->modulus);
    if (!hasAlgorithm(info, szOID_ECC_PUBLIC_KEY)) return {};
    return {info.PublicKey.pbData, info.PublicKey.pbData + info.PublicKey.cbData};
}

std::vector<Bytes> certificatesIn(BytesView content) {
    constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
    constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
    std::vector<Bytes> certificates;
    if (text.find(kBegin) == std::string_view::npos) {
        addCertificate(certificates, content);
        return certificates;
    }
    std::size_t start = 0;
    for (std::size_t end = text.find(kEnd); end != std::string_view::npos; end = text.find(kEnd, start)) {
        // From the last beginning before the end: a section that was cut off does not take the next one
        // along.
        const std::string_view section = text.substr(start, end + kEnd.size() - start);
        const std::size_t begin = section.rfind(kBegin);
        if (begin != std::string_view::npos) {
            addCertificate(certificates, decodePemSection(section.substr(begin)));
        }
        start += section.size();
    }
    return certificates;
}

} // namespace veltra::softtoken
