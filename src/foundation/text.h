#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace veltra {

/// Unsigned decimal text of a 32-bit or 64-bit value. Log lines print every number this way.
std::string toDecimal(std::uint32_t value);
std::string toDecimal(std::uint64_t value);

/// Eight upper-case hexadecimal digits, as "%08X".
std::string toHex8(std::uint32_t value);

/// Upper-case hexadecimal digits of an address, without leading zeros.
std::string toHexAddress(std::uintptr_t value);

/// Two upper-case hexadecimal characters per byte, high nibble first.
std::string toHex(std::span<const unsigned char> bytes);

/// The same into a buffer of two characters per byte, without a terminating zero.
void writeHex(std::span<const unsigned char> bytes, char* out);

/// Bytes of hexadecimal text. A leading "0x" or "0X" is dropped, an odd number of digits gets a "0" in front,
/// and a character that is no digit counts as 0: the conversion never fails.
std::vector<unsigned char> fromHex(std::string_view text);

/// Compares two texts, ignoring the case of the letters A to Z.
bool equalsIgnoringCase(std::string_view left, std::string_view right);

/// The text at `text`, for records whose texts need not be terminated: at most `capacity` characters, cut at
/// the first NUL.
std::string_view boundedText(const char* text, std::size_t capacity);

namespace detail {

inline void appendPart(std::string& out, std::string_view part) {
    out.append(part);
}

template <std::integral Number>
requires(!std::same_as<Number, bool> && !std::same_as<Number, char>) void appendPart(std::string& out,
                                                                                     Number number) {
    if constexpr (sizeof(Number) <= sizeof(std::uint32_t)) {
        out.append(toDecimal(static_cast<std::uint32_t>(number)));
    } else {
        out.append(toDecimal(static_cast<std::uint64_t>(number)));
    }
}

template <class Pointee>
requires(!std::same_as<std::remove_cv_t<Pointee>, char>) void appendPart(std::string& out, Pointee* pointer) {
    out.append(toDecimal(std::uint64_t{reinterpret_cast<std::uintptr_t>(pointer)}));
}

} // namespace detail

/// Joins texts, numbers and pointers into one log message; numbers and pointers in unsigned decimal.
template <class... Parts>
std::string concat(const Parts&... parts) {
    std::string out;
    (detail::appendPart(out, parts), ...);
    return out;
}

} // namespace veltra
