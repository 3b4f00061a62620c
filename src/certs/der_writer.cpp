#include "certs/der_writer.h"

#include <array>

namespace veltra {

namespace {

void appendLength(Bytes& out, std::size_t length) {
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
        return;
    }
    unsigned count = 0;
    for (std::size_t rest = length; rest != 0; rest >>= 8)
        ++count;
    out.push_back(static_cast<unsigned char>(0x80 | count));
    while (count-- > 0)
        out.push_back(static_cast<unsigned char>(length >> (8 * count)));
}

} // namespace

Bytes derElement(DerTag tag, std::initializer_list<std::span<const unsigned char>> contents) {
    std::size_t length = 0;
    for (const auto& part : contents)
        length += part.size();
    Bytes out;
    out.reserve(length + 2 + sizeof(length));
    out.push_back(static_cast<unsigned char>(tag));
    appendLength(out, length);
    for (const auto& part : contents)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes derUnsignedInteger(std::span<const unsigned char> bigEndian) {
    static constexpr std::array<unsigned char, 1> kZero = {0};
    const bool needsZero = !bigEndian.empty() && (bigEndian.front() & 0x80) != 0;
    return derElement(DerTag::Integer, {std::span(kZero).first(needsZero ? 1 : 0), bigEndian});
}

} // namespace veltra
