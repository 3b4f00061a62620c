// veltra certs, import-cert, chain: the certificates that a token keeps beside its keys.

#include "commands.h"

#include "certificates.h"
#include "container_map.h"
#include "error_text.h"
#include "files.h"
#include "token_key.h"
#include "wide_text.h"

#include <algorithm>
#include <iomanip>
#include <iostream>

namespace veltra {
namespace {

void printCertificate(const std::string& container, const std::vector<BYTE>& der) {
    const UniqueCertificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    require(certificate != nullptr, "the token's certificate for " + container + " is damaged");
    SYSTEMTIME end{};
    FileTimeToSystemTime(&certificate->pCertInfo->NotAfter, &end);
    std::cout << container << "\n  subject " << nameText(certificate->pCertInfo->Subject) << "\n  issuer  "
              << nameText(certificate->pCertInfo->Issuer) << "\n  until   " << std::setfill('0') << end.wYear
              << '-' << std::setw(2) << end.wMonth << '-' << std::setw(2) << end.wDay << '\n';
}

/// The keys of the first token and those, on whichever token, that a container of this user stands for.
std::vector<std::string> knownKeys(const TokenInterface& tokens) {
    std::vector<std::string> keys = tokens.keyIds();
    for (const Container& container : readContainerMap()) {
        for (const std::wstring& keyId : container.keyIds) {
            if (std::string key = toUtf8(keyId); std::ranges::find(keys, key) == keys.end()) {
                keys.push_back(std::move(key));
            }
        }
    }
    return keys;
}

} // namespace

int listCertificates(const ProviderChoice& provider) {
    const auto tokens = TokenInterface::open(provider);
    for (const std::string& name : knownKeys(*tokens)) {
        const auto key = tokens->findKey(toWide(name));
        if (!key) {
            continue; // of a token that is not connected
        }
        if (const auto der = key->certificate()) {
            printCertificate(name, *der);
        } else {
            std::cout << name << "\n  no certificate\n";
        }
    }
    return kExitOk;
}

int importCertificate(const ProviderChoice& provider, const TokenCertificateOptions& options) {
    const UniqueCertificate certificate = loadCertificate(options.file);
    const auto tokens = TokenInterface::open(provider);
    const auto key = tokens->openKeyForUse(options.container);
    // The provider stores what it is given; a certificate of another key would serve nobody.
    requireSameKey(*key, *certificate);
    key->storeCertificate(*certificate);
    std::cout << "Stored the certificate of " << nameText(certificate->pCertInfo->Subject)
              << " for container " << inQuotes(options.container) << ".\n";
    return kExitOk;
}

int writeChain(const ProviderChoice& provider, const TokenCertificateOptions& options) {
    const CryptoProvider context = CryptoProvider::open(provider, options.container);
    const std::vector<BYTE> message = askTwice([&](BYTE* data, DWORD* length) {
        require(CryptGetProvParam(context.handle(), PP_CERTCHAIN, data, length, 0),
                "could not read the certificate chain");
    });
    replaceFile(options.file, message);
    std::cout << "Certificate chain of container " << inQuotes(options.container) << ": "
              << toUtf8(options.file.native()) << '\n';
    return kExitOk;
}

} // namespace veltra
