#include "certificates.h"

#include "error_text.h"
#include "files.h"
#include "public_keys.h"
#include "wide_text.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace veltra {
namespace {

constexpr std::size_t kCertificateFileLimit = std::size_t{1024} * 1024;

std::string dayText(const FILETIME& time) {
    SYSTEMTIME day{};
    FileTimeToSystemTime(&time, &day);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d", day.wYear, day.wMonth, day.wDay);
    return text.data();
}

/// Whole days from now to a time, rounded down: below 0 for every time that has passed.
int daysFromNow(const FILETIME& time) {
    constexpr std::int64_t kTicksPerDay = 24ll * 60 * 60 * 10'000'000;
    const auto ticksOf = [](const FILETIME& it) {
        return static_cast<std::int64_t>(ULARGE_INTEGER{{it.dwLowDateTime, it.dwHighDateTime}}.QuadPart);
    };
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const std::int64_t difference = ticksOf(time) - ticksOf(now);
    return static_cast<int>((difference - (difference < 0 ? kTicksPerDay - 1 : 0)) / kTicksPerDay);
}

} // namespace

std::optional<CertificateFacts> certificateFacts(const std::vector<BYTE>& der) {
    const UniqueCertificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    if (!certificate) return std::nullopt;
    const CERT_INFO& info = *certificate->pCertInfo;
    return CertificateFacts{nameText(info.Subject), nameText(info.Issuer),       dayText(info.NotBefore),
                            dayText(info.NotAfter), daysFromNow(info.NotBefore), daysFromNow(info.NotAfter)};
}

UniqueCertificate loadCertificate(const std::filesystem::path& path) {
    const std::vector<unsigned char> file = readSmallFile(path, kCertificateFileLimit);
    const std::string text(file.begin(), file.end());
    std::vector<BYTE> der(file.size());
    auto length = static_cast<DWORD>(der.size());
    if (CryptStringToBinaryA(text.data(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64HEADER,
                             der.data(), &length, nullptr, nullptr)) {
        der.resize(length);
    } else {
        der.assign(file.begin(), file.end());
    }
    UniqueCertificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    if (!certificate) {
        throw CommandError(inQuotes(path.native()) + " is not a certificate in PEM or DER");
    }
    return certificate;
}

void saveCertificate(const std::filesystem::path& path, const CERT_CONTEXT& certificate) {
    std::vector<BYTE> pem = askTwice([&](BYTE* text, DWORD* length) {
        require(CryptBinaryToStringA(certificate.pbCertEncoded, certificate.cbCertEncoded,
                                     CRYPT_STRING_BASE64HEADER, reinterpret_cast<char*>(text), length),
                "could not encode the certificate as PEM");
    });
    std::erase(pem, BYTE{'\r'});
    replaceFile(path, pem);
}

void requireSameKey(const TokenKey& key, const CERT_CONTEXT& certificate) {
    DecodedPublicKeyInfo own(key.publicKeyInfo());
    if (!CertComparePublicKeyInfo(X509_ASN_ENCODING, own.get(),
                                  &certificate.pCertInfo->SubjectPublicKeyInfo)) {
        throw CommandError(
            "the certificate belongs to another key than the container's; 'veltra create-certificate' makes "
            "one for it");
    }
}

std::vector<BYTE> encodeName(const std::wstring& name) {
    return askTwice([&](BYTE* encoded, DWORD* length) {
        if (!CertStrToNameW(X509_ASN_ENCODING, name.c_str(), CERT_X500_NAME_STR, nullptr, encoded, length,
                            nullptr)) {
            throw CommandError(inQuotes(name) + " is not a distinguished name, such as \"CN=Example\"",
                               kExitUsage);
        }
    });
}

std::string nameText(const CERT_NAME_BLOB& name) {
    CERT_NAME_BLOB blob = name;
    std::wstring text(CertNameToStrW(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, nullptr, 0), L'\0');
    const DWORD length = CertNameToStrW(X509_ASN_ENCODING, &blob, CERT_X500_NAME_STR, text.data(),
                                        static_cast<DWORD>(text.size()));
    text.resize(length > 0 ? length - 1 : 0);
    return toUtf8(text);
}

} // namespace veltra
