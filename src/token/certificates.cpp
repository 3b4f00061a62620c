#include "token/certificates.h"

#include <algorithm>

namespace veltra {

namespace {

bool isWellFormed(const VeltraCertificate& certificate) {
    return certificate.derLength <= kCertificateCapacity;
}

} // namespace

std::vector<VeltraCertificate> certificatesOf(const std::string& serial, void* libraryContext) {
    std::vector<VeltraCertificate> certificates =
        deviceLibrary().veltra_getCertificateList(serial.c_str(), libraryContext);
    std::erase_if(certificates, [](const VeltraCertificate& it) { return !isWellFormed(it); });
    return certificates;
}

std::optional<VeltraCertificate> certificateOfKey(const std::string& serial,
                                                  std::span<const unsigned char, kKeyIdLength> keyId,
                                                  void* libraryContext) {
    const VeltraCertificate* found =
        deviceLibrary().veltra_findCertificateForKey(serial.c_str(), keyId.data(), libraryContext);
    if (found == nullptr) return std::nullopt;
    // Copied before it is checked: the record is the library's, and another thread may have it read again.
    const VeltraCertificate copy = *found;
    if (!isWellFormed(copy)) return std::nullopt;
    return copy;
}

std::optional<VeltraCertificate> freshCertificateOfKey(const std::string& serial,
                                                       std::span<const unsigned char, kKeyIdLength> keyId,
                                                       void* libraryContext) {
    deviceLibrary().veltra_initDevice(serial.c_str(), true, libraryContext);
    return certificateOfKey(serial, keyId, libraryContext);
}

VeltraCertificate certificateRecordFor(const CertifiedKey& key, std::span<const unsigned char> der) {
    VeltraCertificate record{};
    std::ranges::copy(key.keyId, record.keyId);
    std::ranges::copy(der, record.der);
    record.derLength = static_cast<std::uint32_t>(der.size());
    std::ranges::copy(key.credentialId, record.credentialId);
    record.credentialIdLength = static_cast<std::uint32_t>(key.credentialId.size());
    std::ranges::copy(key.label, record.label);
    return record;
}

} // namespace veltra
