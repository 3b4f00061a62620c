#include "certs/certificate_chain.h"

#include "foundation/utils.h"
#include "foundation/windows.h"
#include "token/certificates.h"

#include <algorithm>
#include <array>
#include <memory>

namespace veltra {

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct CertificateFreer {
    void operator()(const CERT_CONTEXT* certificate) const { CertFreeCertificateContext(certificate); }
};
using UniqueCertificate = std::unique_ptr<const CERT_CONTEXT, CertificateFreer>;

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};
using UniqueStore = std::unique_ptr<void, StoreCloser>;

struct ChainFreer {
    void operator()(const CERT_CHAIN_CONTEXT* chain) const { CertFreeCertificateChain(chain); }
};
using UniqueChain = std::unique_ptr<const CERT_CHAIN_CONTEXT, ChainFreer>;

UniqueCertificate parse(const VeltraCertificate& record) {
    return UniqueCertificate(CertCreateCertificateContext(kEncoding, record.der, record.derLength));
}

bool sameName(const CERT_NAME_BLOB& left, const CERT_NAME_BLOB& right) {
    CERT_NAME_BLOB first = left;
    CERT_NAME_BLOB second = right;
    return CertCompareCertificateName(kEncoding, &first, &second) != FALSE;
}

struct ParsedRecord {
    const VeltraCertificate* record = nullptr;
    UniqueCertificate certificate;
};

// The first record other than the leaf's own whose subject is `issuerName`.
ParsedRecord findIssuer(const CERT_NAME_BLOB& issuerName, const VeltraCertificate& leaf,
                        const std::vector<VeltraCertificate>& records) {
    for (const VeltraCertificate& record : records) {
        if (std::ranges::equal(derOf(record), derOf(leaf))) continue;
        UniqueCertificate certificate = parse(record);
        if (certificate && sameName(certificate->pCertInfo->Subject, issuerName)) {
            return {.record = &record, .certificate = std::move(certificate)};
        }
    }
    return {};
}

UniqueStore storeOf(const std::vector<VeltraCertificate>& records) {
    UniqueStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    if (!store) return store;
    for (const VeltraCertificate& record : records) {
        if (const UniqueCertificate certificate = parse(record)) {
            CertAddCertificateContextToStore(store.get(), certificate.get(), CERT_STORE_ADD_ALWAYS, nullptr);
        }
    }
    return store;
}

UniqueChain buildPlatformChain(const CERT_CONTEXT& leaf, HCERTSTORE store) {
    CERT_CHAIN_PARA parameters{};
    parameters.cbSize = sizeof(parameters);
    const CERT_CHAIN_CONTEXT* chain = nullptr;
    if (!CertGetCertificateChain(nullptr, &leaf, nullptr, store, &parameters, 0, nullptr, &chain)) return {};
    return UniqueChain(chain);
}

// Every certificate of the chain as its encoded bytes, root side first.
std::vector<std::span<const unsigned char>> encodedRootFirst(const CERT_CHAIN_CONTEXT& chain) {
    std::vector<std::span<const unsigned char>> certificates;
    for (DWORD i = 0; i < chain.cChain; ++i) {
        const CERT_SIMPLE_CHAIN& simple = *chain.rgpChain[i];
        for (DWORD j = simple.cElement; j-- > 0;) {
            const CERT_CONTEXT& certificate = *simple.rgpElement[j]->pCertContext;
            certificates.emplace_back(certificate.pbCertEncoded, certificate.cbCertEncoded);
        }
    }
    return certificates;
}

// Written here and not by the platform's message encoder, which may sort the certificates and leave out the
// empty sets when there is no signer.
Bytes certsOnlyMessage(const std::vector<std::span<const unsigned char>>& certificates) {
    static constexpr std::array<unsigned char, 9> kSignedDataOid = {0x2A, 0x86, 0x48, 0x86, 0xF7,
                                                                    0x0D, 0x01, 0x07, 0x02};
    static constexpr std::array<unsigned char, 9> kDataOid = {0x2A, 0x86, 0x48, 0x86, 0xF7,
                                                              0x0D, 0x01, 0x07, 0x01};
    static constexpr std::array<unsigned char, 1> kVersion1 = {1};
    Bytes joined;
    for (const auto& certificate : certificates) {
        joined.insert(joined.end(), certificate.begin(), certificate.end());
    }
    const Bytes emptySet = derElement(DerTag::Set, {});
    const Bytes signedData = derElement(
        DerTag::Sequence, {derUnsignedInteger(kVersion1), emptySet,
                           derElement(DerTag::Sequence, {derElement(DerTag::ObjectIdentifier, {kDataOid})}),
                           derElement(DerTag::Context0, {joined}), emptySet});
    return derElement(DerTag::Sequence, {derElement(DerTag::ObjectIdentifier, {kSignedDataOid}),
                                         derElement(DerTag::Context0, {signedData})});
}

} // namespace

std::vector<VeltraCertificate> buildTokenChain(const VeltraCertificate& leaf,
                                               const std::vector<VeltraCertificate>& tokenCertificates) {
    std::vector<VeltraCertificate> chain = {leaf};
    UniqueCertificate current = parse(leaf);
    if (!current) {
        Utils::error("[ERROR] Cannot parse leaf cert");
        return chain;
    }
    // As many steps as there are certificates: two that name each other as issuer end here too.
    for (std::size_t step = 0; step < tokenCertificates.size(); ++step) {
        ParsedRecord issuer = findIssuer(current->pCertInfo->Issuer, leaf, tokenCertificates);
        if (issuer.record == nullptr) break;
        chain.push_back(*issuer.record);
        current = std::move(issuer.certificate);
        if (sameName(current->pCertInfo->Subject, current->pCertInfo->Issuer)) {
            Utils::debug("[ROOT] Self-signed root detected.");
            break;
        }
    }
    return chain;
}

DWORD encodeCertificateChain(const std::vector<VeltraCertificate>& chain, Bytes& message) {
    if (chain.empty()) {
        Utils::error("Certificate Is Empty");
        return static_cast<DWORD>(NTE_NO_KEY);
    }
    const UniqueCertificate leaf = parse(chain.front());
    if (!leaf) {
        Utils::error("Failed creating leaf certificate");
        return static_cast<DWORD>(NTE_BAD_KEY);
    }
    const UniqueStore store = storeOf(chain);
    SetLastError(ERROR_SUCCESS);
    const UniqueChain built = buildPlatformChain(*leaf, store.get());
    if (!built) {
        const DWORD platformError = GetLastError();
        Utils::error("Chain build failed");
        return platformError != ERROR_SUCCESS ? platformError : static_cast<DWORD>(NTE_FAIL);
    }
    const auto certificates = encodedRootFirst(*built);
    if (certificates.empty()) {
        Utils::error("No certificates in PKCS#7 chain");
        return static_cast<DWORD>(NTE_FAIL);
    }
    message = certsOnlyMessage(certificates);
    return ERROR_SUCCESS;
}

} // namespace veltra
