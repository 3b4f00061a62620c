#pragma once

#include "token_key.h"

namespace veltra {

/// The two forms of an ECDSA signature: r and s side by side, each as long as the curve's field, and the DER
/// structure Ecdsa-Sig-Value (RFC 3279, 2.2.3), which other software reads.
Bytes ecdsaSignatureAsDer(const Bytes& sideBySide);

/// `bits` of the curve's field. Anything but a signature of such a key throws a CommandError.
Bytes ecdsaSignatureFromDer(const Bytes& der, DWORD bits);

} // namespace veltra
