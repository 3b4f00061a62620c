// veltra create-certificate: a self-signed certificate for a container's key.

#include "commands.h"

#include "certificates.h"
#include "error_text.h"
#include "signed_structures.h"
#include "token_key.h"
#include "wide_text.h"

namespace veltra {
namespace {

SYSTEMTIME daysAfter(SYSTEMTIME start, int days) {
    constexpr std::uint64_t kTicksPerDay = 24ull * 60 * 60 * 10'000'000;
    FILETIME time{};
    SystemTimeToFileTime(&start, &time);
    ULARGE_INTEGER ticks{{time.dwLowDateTime, time.dwHighDateTime}};
    ticks.QuadPart += static_cast<std::uint64_t>(days) * kTicksPerDay;
    time = {ticks.LowPart, ticks.HighPart};
    SYSTEMTIME result{};
    FileTimeToSystemTime(&time, &result);
    return result;
}

UniqueCertificate makeByCryptoApi(const ProviderChoice& provider, const CertificateOptions& options,
                                  Bytes& subject, SYSTEMTIME start, SYSTEMTIME end) {
    const CryptoProvider context = CryptoProvider::openForUse(provider, options.container);
    if (CryptoProvider::describe(context.ownKey()).algorithm != "RSA") {
        throw CommandError("CryptoAPI makes no certificates for EC keys; --cng does", kExitUsage);
    }
    CERT_NAME_BLOB subjectBlob{static_cast<DWORD>(subject.size()), subject.data()};
    char algorithmIdentifier[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm{};
    algorithm.pszObjId = algorithmIdentifier;
    return UniqueCertificate(CertCreateSelfSignCertificate(context.handle(), &subjectBlob,
                                                           CERT_CREATE_SELFSIGN_NO_KEY_INFO, nullptr,
                                                           &algorithm, &start, &end, nullptr));
}

// The platform's function would look for a CNG key in the providers that are registered with the system.
UniqueCertificate makeByCng(const ProviderChoice& provider, const CertificateOptions& options,
                            const Bytes& subject, const SYSTEMTIME& start, const SYSTEMTIME& end) {
    const auto tokens = TokenInterface::open(provider);
    const Bytes der = selfSignedCertificate(*tokens->openKeyForUse(options.container),
                                            *findHashAlgorithm("sha256"), subject, start, end);
    return UniqueCertificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
}

} // namespace

int createCertificate(const ProviderChoice& provider, const CertificateOptions& options, Output& out) {
    Bytes subject = encodeName(options.subject);
    SYSTEMTIME start{};
    GetSystemTime(&start);
    const SYSTEMTIME end = daysAfter(start, options.days);
    const UniqueCertificate certificate = provider.cng
                                              ? makeByCng(provider, options, subject, start, end)
                                              : makeByCryptoApi(provider, options, subject, start, end);
    require(certificate != nullptr, "could not make the certificate");
    saveCertificate(options.out, *certificate);
    const std::string name = nameText(certificate->pCertInfo->Subject);
    const std::string file = toUtf8(options.out.native());
    out.result("Certificate of " + name + ", valid for " + std::to_string(options.days) + " days: " + file,
               {{"subject", name}, {"days", options.days}, {"file", file}});
    return kExitOk;
}

} // namespace veltra
