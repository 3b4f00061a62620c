#include "certificate_store.h"

#include "record_folder.h"
#include "x509.h"

namespace veltra::softtoken {

namespace fs = std::filesystem;

namespace {

constexpr const char* kExtension = ".certificate";

Expression toExpression(const StoredCertificate& certificate) {
    return Expression::build("(certificate %S %S %S %S)",
                             Expression::field("key-id", certificate.keyId).get(),
                             Expression::field("label", bytesOf(certificate.label)).get(),
                             Expression::field("sequence", certificate.sequence).get(),
                             Expression::field("der", certificate.der).get());
}

StoredCertificate fromExpression(const Expression& record) {
    StoredCertificate certificate;
    certificate.keyId = record.bytes("key-id");
    certificate.label = record.text("label");
    certificate.sequence = record.number("sequence");
    certificate.der = record.bytes("der");
    if (certificate.keyId.size() != kKeyIdLength || certificate.der.size() > kCertificateCapacity ||
        certificate.label.size() > kLabelMaxLength) {
        throw TokenError(Failure::Damaged, "a certificate has impossible fields");
    }
    return certificate;
}

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

std::vector<StoredCertificate> CertificateStore::list() const {
    return readRecordFolder(folder_, kExtension, "certificate", fromExpression);
}

std::optional<StoredCertificate> CertificateStore::find(BytesView keyId) const {
    const std::optional<Expression> record = readRecord(file(keyId), "certificate");
    if (!record) return std::nullopt;
    return fromExpression(*record);
}

StoredCertificate CertificateStore::put(BytesView keyId, std::string label, BytesView der) const {
    requireStorable(label, der);
    const std::vector<StoredCertificate> all = list();
    const auto same = std::ranges::find_if(
        all, [&](const StoredCertificate& it) { return std::ranges::equal(it.der, der); });
    StoredCertificate certificate;
    certificate.der.assign(der.begin(), der.end());
    if (!keyId.empty()) {
        certificate.keyId.assign(keyId.begin(), keyId.end());
    } else {
        certificate.keyId = same != all.end() ? same->keyId : randomBytes(kKeyIdLength);
    }
    certificate.label = label.empty() ? defaultLabel("Certificate-", certificate.keyId) : std::move(label);
    const std::optional<StoredCertificate> replaced = find(certificate.keyId);
    certificate.sequence = replaced ? replaced->sequence : nextSequence(all);
    makeFolder(folder_);
    writeRecord(file(certificate.keyId), toExpression(certificate), Overwrite::Allowed);
    if (same != all.end() && same->keyId != certificate.keyId) removeFile(file(same->keyId));
    return certificate;
}

fs::path CertificateStore::file(BytesView keyId) const {
    return folder_ / (toHex(keyId) + kExtension);
}

} // namespace veltra::softtoken
