#pragma once

#include "foundation/device_library.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

/// A copy of the token's certificates, in the token's order. A record whose length does not fit its own
/// buffer is left out.
std::vector<VeltraCertificate> certificatesOf(const std::string& serial, void* libraryContext);

/// A copy of the certificate of a key, or nothing.
std::optional<VeltraCertificate> certificateOfKey(const std::string& serial,
                                                  std::span<const unsigned char, kKeyIdLength> keyId,
                                                  void* libraryContext);

/// The same, after the device library has read the token again.
std::optional<VeltraCertificate> freshCertificateOfKey(const std::string& serial,
                                                       std::span<const unsigned char, kKeyIdLength> keyId,
                                                       void* libraryContext);

/// What names a key in the record of its certificate.
struct CertifiedKey {
    std::span<const unsigned char, kKeyIdLength> keyId;
    std::span<const unsigned char> credentialId; ///< at most kCredentialIdCapacity bytes
    std::string_view label;                      ///< at most kLabelMaxLength characters
};

/// The record that stores `der`, at most kCertificateCapacity bytes, as the certificate of a key.
VeltraCertificate certificateRecordFor(const CertifiedKey& key, std::span<const unsigned char> der);

/// The DER bytes in a record whose length was checked.
inline std::span<const unsigned char> derOf(const VeltraCertificate& certificate) {
    return {certificate.der, certificate.derLength};
}

} // namespace veltra
