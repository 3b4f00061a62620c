#include "ecdsa_signature.h"

#include "error_text.h"
#include "public_keys.h"

#include "certs/der_writer.h"

#include <algorithm>
#include <cstddef>

namespace veltra {
namespace {

Bytes derInteger(std::span<const unsigned char> bigEndian) {
    const auto first = std::ranges::find_if(bigEndian, [](unsigned char byte) { return byte != 0; });
    const auto zeros =
        std::min<std::size_t>(static_cast<std::size_t>(first - bigEndian.begin()), bigEndian.size() - 1);
    return derUnsignedInteger(bigEndian.subspan(zeros));
}

/// Appends a little-endian number as `length` big-endian bytes; false if it is longer.
bool appendNumber(Bytes& out, const CRYPT_UINT_BLOB& littleEndian, std::size_t length) {
    Bytes number(littleEndian.pbData, littleEndian.pbData + littleEndian.cbData);
    while (number.size() > length && number.back() == 0) {
        number.pop_back();
    }
    if (number.size() > length) return false;
    number.resize(length);
    out.insert(out.end(), number.rbegin(), number.rend());
    return true;
}

} // namespace

Bytes ecdsaSignatureAsDer(const Bytes& sideBySide) {
    const std::span<const unsigned char> both = sideBySide;
    return derElement(DerTag::Sequence,
                      {derInteger(both.first(both.size() / 2)), derInteger(both.subspan(both.size() / 2))});
}

Bytes ecdsaSignatureFromDer(const Bytes& der, DWORD bits) {
    const Curve* curve = findCurve(bits);
    if (curve == nullptr) {
        throw CommandError("--der is for EC keys", kExitUsage);
    }
    constexpr const char* kNoSignature = "the signature file is not an ECDSA signature in DER";
    const auto decode = [&](void* decoded, DWORD* length) {
        require(CryptDecodeObject(X509_ASN_ENCODING, X509_ECC_SIGNATURE, der.data(),
                                  static_cast<DWORD>(der.size()), 0, decoded, length),
                kNoSignature);
    };
    DWORD length = 0;
    decode(nullptr, &length);
    std::vector<std::max_align_t> buffer(length / sizeof(std::max_align_t) + 1);
    decode(buffer.data(), &length);
    const auto* signature = reinterpret_cast<const CERT_ECC_SIGNATURE*>(buffer.data());
    Bytes sideBySide;
    if (!appendNumber(sideBySide, signature->r, curve->fieldLength) ||
        !appendNumber(sideBySide, signature->s, curve->fieldLength)) {
        throw CommandError(kNoSignature);
    }
    return sideBySide;
}

} // namespace veltra
