#pragma once

#include "foundation/device_library.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace veltra {

/// A copy of the token's certificates, in the token's order. A record whose length does not fit its own
/// buffer is left out.
std::vector<VeltraCertificate> certificatesOf(const std::string& serial, void* libraryContext);

/// A copy of the certificate of a key, or nothing.
std::optional<VeltraCertificate> certificateOfKey(const std::string& serial,
                                                  std::span<const unsigned char, kKeyIdLength> keyId,
                                                  void* libraryContext);

/// The DER bytes in a record whose length was checked.
inline std::span<const unsigned char> derOf(const VeltraCertificate& certificate) {
    return {certificate.der, certificate.derLength};
}

} // namespace veltra
