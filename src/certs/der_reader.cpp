#include "certs/der_reader.h"

#include <cstdint>

namespace veltra {

namespace {

constexpr std::size_t kLongestLengthField = 4; // bytes; nothing that is read here is longer than 4 GB

struct DerLength {
    std::uint64_t contents;
    std::size_t field; ///< bytes that the length itself takes
};

// `bytes` begin with the length field.
std::optional<DerLength> readLength(std::span<const unsigned char> bytes) {
    if (bytes.empty()) return std::nullopt;
    const unsigned char first = bytes.front();
    if (first < 0x80) return DerLength{.contents = first, .field = 1};
    const std::size_t count = first & 0x7Fu;
    if (count == 0 || count > kLongestLengthField || bytes.size() <= count) return std::nullopt;
    std::uint64_t contents = 0;
    for (const unsigned char byte : bytes.subspan(1, count))
        contents = contents << 8 | byte;
    const bool isShortest = bytes[1] != 0 && contents >= 0x80;
    if (!isShortest) return std::nullopt;
    return DerLength{.contents = contents, .field = 1 + count};
}

} // namespace

std::optional<std::span<const unsigned char>> DerReader::read(DerTag tag) {
    if (rest_.empty() || rest_.front() != static_cast<unsigned char>(tag)) return std::nullopt;
    const std::span<const unsigned char> behindTag = rest_.subspan(1);
    const std::optional<DerLength> length = readLength(behindTag);
    if (!length || length->contents > behindTag.size() - length->field) return std::nullopt;
    const auto contentsLength = static_cast<std::size_t>(length->contents);
    rest_ = behindTag.subspan(length->field + contentsLength);
    return behindTag.subspan(length->field, contentsLength);
}

std::optional<std::span<const unsigned char>> readSingleElement(std::span<const unsigned char> bytes,
                                                                DerTag tag) {
    DerReader reader(bytes);
    const auto contents = reader.read(tag);
    return reader.atEnd() ? contents : std::nullopt;
}

} // namespace veltra
