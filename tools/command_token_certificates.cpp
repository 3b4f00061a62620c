// veltra list-certificates, import-certificate, export-chain: the certificates that a token keeps beside its
// keys.

#include "commands.h"

#include "certificates.h"
#include "container_map.h"
#include "error_text.h"
#include "files.h"
#include "token_key.h"
#include "wide_text.h"

#include "foundation/device_library_contract.h"

#include <algorithm>

namespace veltra {
namespace {

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

int listCertificates(const ProviderChoice& provider, Output& out) {
    Table table = {{"KEY", "key"},
                   {"SUBJECT", "subject"},
                   {"ISSUER", "issuer"},
                   {"UNTIL", "notAfter"},
                   {"DAYS", "daysLeft"}};
    const auto tokens = TokenInterface::open(provider);
    for (const std::string& name : knownKeys(*tokens)) {
        const auto key = tokens->findKey(toWide(name));
        if (!key) {
            continue; // of a token that is not connected
        }
        if (const auto der = key->certificate()) {
            const std::optional<CertificateFacts> facts = certificateFacts(*der);
            if (!facts) throw CommandError("the token's certificate for " + name + " is damaged");
            table.add({name, facts->subject, facts->issuer, facts->notAfter, facts->daysLeft});
        } else {
            table.add({name, nullptr, nullptr, nullptr, nullptr});
        }
    }
    out.table("certificates", table, {}, kNoKeys);
    return kExitOk;
}

int importCertificate(const ProviderChoice& provider, const TokenCertificateOptions& options, Output& out) {
    const UniqueCertificate certificate = loadCertificate(options.file);
    if (certificate->cbCertEncoded > kCertificateCapacity) {
        throw CommandError("the certificate in " + inQuotes(options.file.native()) + " has " +
                           std::to_string(certificate->cbCertEncoded) + " bytes; a token stores at most " +
                           std::to_string(kCertificateCapacity));
    }
    const auto tokens = TokenInterface::open(provider);
    const auto key = tokens->openKeyForUse(options.container);
    // The provider stores what it is given; a certificate of another key would serve nobody.
    requireSameKey(*key, *certificate);
    key->storeCertificate(*certificate);
    const std::string name = nameText(certificate->pCertInfo->Subject);
    out.result("Stored the certificate of " + name + " for container " + inQuotes(options.container) + ".",
               {{"subject", name}});
    return kExitOk;
}

int writeChain(const ProviderChoice& provider, const TokenCertificateOptions& options, Output& out) {
    const CryptoProvider context = CryptoProvider::open(provider, options.container);
    const std::vector<BYTE> message = askTwice([&](BYTE* data, DWORD* length) {
        require(
            CryptGetProvParam(context.handle(), PP_CERTCHAIN, data, length, 0),
            "could not read the certificate chain; the container's key needs a certificate, which 'veltra "
            "import-certificate' stores");
    });
    replaceFile(options.file, message);
    const std::string file = toUtf8(options.file.native());
    out.result("Certificate chain of container " + inQuotes(options.container) + ": " + file,
               {{"file", file}});
    return kExitOk;
}

} // namespace veltra
