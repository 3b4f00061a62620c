#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace veltra {

using Bytes = std::vector<unsigned char>;

/// DER tags that this product writes (X.690).
enum class DerTag : unsigned char {
    Integer = 0x02,
    BitString = 0x03,
    OctetString = 0x04,
    ObjectIdentifier = 0x06,
    Sequence = 0x30,
    Set = 0x31,
    Context0 = 0xA0, ///< [0], constructed
};

/// One DER element: tag, definite length, and the concatenation of `contents`.
Bytes derElement(DerTag tag, std::initializer_list<std::span<const unsigned char>> contents);

/// An INTEGER of unsigned big-endian bytes: a zero byte goes in front when the first byte's top bit is set;
/// leading zero bytes are kept.
Bytes derUnsignedInteger(std::span<const unsigned char> bigEndian);

} // namespace veltra
