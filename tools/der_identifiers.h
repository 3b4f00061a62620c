#pragma once

#include "certs/der_writer.h"

#include <string_view>

namespace veltra {

/// DER of an OBJECT IDENTIFIER from its dotted text, such as "1.2.840.113549.1.1.1", which must be
/// well-formed.
Bytes derObjectIdentifier(std::string_view dotted);

/// What an AlgorithmIdentifier (RFC 5280) has beside its name: RSA algorithms have NULL, the others nothing.
enum class AlgorithmParameters { Null, Absent };

Bytes derAlgorithmIdentifier(std::string_view dotted, AlgorithmParameters parameters);

} // namespace veltra
