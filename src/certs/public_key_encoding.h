#pragma once

#include "certs/der_writer.h"

#include <span>
#include <string_view>

namespace veltra {

/// SubjectPublicKeyInfo (RFC 5280, rsaEncryption) of an RSA public key.
/// `modulus`, `exponent`: unsigned big-endian bytes; leading zero bytes are kept.
Bytes rsaSubjectPublicKeyInfo(std::span<const unsigned char> modulus,
                              std::span<const unsigned char> exponent);

/// The same from hexadecimal text. An optional "0x" is dropped, an odd number of digits gets a leading "0",
/// and a character that is no digit counts as 0, so there is no failure.
Bytes publicKeyToDer(std::string_view modulusHex, std::string_view exponentHex);

/// Debug lines that say which of the two forms an RSA public key had.
struct PublicKeyFormLines {
    const char* alreadyDer;
    const char* rawModulus;
};

/// An RSA public key in the form that the device library wants, DER. The token gives either a bare big-endian
/// modulus (its exponent is 65537) or DER; only the first byte tells: an empty key and one that begins with
/// 0x30 are passed on unchanged and unchecked, a modulus that happens to begin with 0x30 included.
Bytes rsaPublicKeyAsDer(std::span<const unsigned char> publicKey, const PublicKeyFormLines& lines);

/// A bare big-endian modulus with the exponent 65537 as DER, whatever its first byte.
Bytes rawModulusAsDer(std::span<const unsigned char> modulus);

/// The bare big-endian modulus of an RSA public key in either form. DER is a SubjectPublicKeyInfo or an
/// RSAPublicKey (RFC 8017), and loses the modulus's leading zero bytes; what does not parse as either is the
/// modulus itself. Refers to `publicKey`.
std::span<const unsigned char> rsaModulusOf(std::span<const unsigned char> publicKey);

} // namespace veltra
