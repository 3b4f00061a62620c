#include "der_identifiers.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <span>
#include <vector>

namespace veltra {
namespace {

constexpr std::array<unsigned char, 2> kNull = {0x05, 0x00};

std::vector<std::uint32_t> componentsOf(std::string_view dotted) {
    std::vector<std::uint32_t> components;
    while (!dotted.empty()) {
        const std::string_view component = dotted.substr(0, dotted.find('.'));
        std::from_chars(component.data(), component.data() + component.size(), components.emplace_back());
        dotted.remove_prefix(std::min(dotted.size(), component.size() + 1));
    }
    return components;
}

/// Seven bits a byte, the highest first; every byte but the last has its top bit set (X.690, 8.19.2).
void appendBase128(Bytes& out, std::uint32_t value) {
    Bytes digits = {static_cast<unsigned char>(value & 0x7F)};
    for (value >>= 7; value != 0; value >>= 7) {
        digits.push_back(static_cast<unsigned char>(0x80 | (value & 0x7F)));
    }
    out.insert(out.end(), digits.rbegin(), digits.rend());
}

} // namespace

Bytes derObjectIdentifier(std::string_view dotted) {
    const std::vector<std::uint32_t> components = componentsOf(dotted);
    Bytes content;
    appendBase128(content, 40 * components.at(0) + components.at(1)); // X.690, 8.19.4
    for (const std::uint32_t component : std::span(components).subspan(2)) {
        appendBase128(content, component);
    }
    return derElement(DerTag::ObjectIdentifier, {content});
}

Bytes derAlgorithmIdentifier(std::string_view dotted, AlgorithmParameters parameters) {
    const std::span<const unsigned char> null = kNull;
    return derElement(
        DerTag::Sequence,
        {derObjectIdentifier(dotted), null.first(parameters == AlgorithmParameters::Null ? null.size() : 0)});
}

} // namespace veltra
