#include "certificate_store.h"

#include "x509.h"

namespace veltra::softtoken {

namespace {

Expression toFields(const StoredCertificate& certificate) {
    return Expression::field("der", certificate.der);
}

StoredCertificate fromFields(const Expression& record) {
    StoredCertificate certificate;
    certificate.der = record.bytes("der");
    if (certificate.der.size() > kCertificateCapacity)
        throw TokenError(Failure::Damaged, "a certificate is too long");
    return certificate;
}

constexpr RecordForm<StoredCertificate> kForm = {"certificate", ".certificate", "Certificate-", toFields,
                                                 fromFields};

void requireStorable(const std::string& label, BytesView der) {
    if (label.size() > kLabelMaxLength) {
        throw TokenError(Failure::BadArgument, "the label is longer than 128 bytes");
    }
    if (der.size() > kCertificateCapacity) {
        throw TokenError(Failure::BadArgument, "a certificate of the token has at most 3072 bytes");
    }
    static_cast<void>(certificateDetails(der));
}

} // namespace

CertificateStore::CertificateStore(const TokenFolder& token)
    : records_(token.path() / "certificates", kForm) {}

StoredCertificate CertificateStore::put(BytesView keyId, std::string label, BytesView der) const {
    requireStorable(label, der);
    const std::vector<StoredCertificate> all = list();
    const auto isSame = [&](const StoredCertificate& it) { return std::ranges::equal(it.der, der); };
    StoredCertificate certificate;
    certificate.der.assign(der.begin(), der.end());
    certificate.keyId.assign(keyId.begin(), keyId.end());
    if (const auto same = std::ranges::find_if(all, isSame); keyId.empty() && same != all.end())
        certificate.keyId = same->keyId;
    records_.introduce(certificate, std::move(label), all);
    if (const auto replaced = find(certificate.keyId)) certificate.sequence = replaced->sequence;
    records_.write(certificate, Overwrite::Allowed);
    for (const StoredCertificate& it : all) {
        if (isSame(it) && it.keyId != certificate.keyId) records_.remove(it.keyId);
    }
    return certificate;
}

} // namespace veltra::softtoken
