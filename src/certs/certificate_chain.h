#pragma once

#include "certs/der_writer.h"
#include "foundation/device_library_contract.h"
#include "foundation/windows.h"

#include <vector>

namespace veltra {

/// Orders the certificates of a token into a chain: the leaf, then each certificate whose subject is the
/// issuer of the one before, up to a self-signed one or as far as the token has them.
std::vector<VeltraCertificate> buildTokenChain(const VeltraCertificate& leaf,
                                               const std::vector<VeltraCertificate>& tokenCertificates);

/// Has the platform build the chain of the first record, with the others as its additional certificates, and
/// writes it as a certs-only message: the DER of a SignedData (RFC 5652) without signers and content, the
/// certificates root first and leaf last. Returns 0, or logs why it fails and returns the code for the
/// last error: NTE_NO_KEY for no record, NTE_BAD_KEY for a leaf that does not parse, otherwise the
/// platform's.
DWORD encodeCertificateChain(const std::vector<VeltraCertificate>& chain, Bytes& message);

} // namespace veltra
