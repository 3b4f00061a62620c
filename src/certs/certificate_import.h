#pragma once

#include "foundation/device_library.h"
#include "token/pin.h"

#include <string>

namespace veltra {

/// Stores a certificate on the token, in front of it the certificate authorities that issued it as far as
/// they are found in the CA folder, and gives it a label if it has none; a key pair of it without a label
/// gets the same one. `certificate`: DER, key and credential identifier filled by the caller; the label and
/// the key identifier are updated. Returns 0, or the code of the library call that failed; what was imported
/// before a failure stays on the token.
int importCertificateWithChain(const std::string& serial, const Pin& pin, VeltraCertificate& certificate,
                               void* libraryContext);

/// The text behind the first "CN=" that is followed by at least one character other than a comma or a line
/// end, up to the next of those; empty when there is none.
std::string commonNameOf(const std::string& distinguishedName);

} // namespace veltra
