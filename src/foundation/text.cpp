#include "foundation/text.h"

#include <algorithm>
#include <cstring>

namespace veltra {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

unsigned hexDigitValue(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
    if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a') + 10;
    if (digit >= 'A' && digit <= 'F') return static_cast<unsigned>(digit - 'A') + 10;
    return 0;
}

char lowerCase(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

} // namespace

std::string toDecimal(std::uint32_t value) {
    return std::to_string(value);
}

std::string toDecimal(std::uint64_t value) {
    return std::to_string(value);
}

std::string toHex8(std::uint32_t value) {
    std::string out(8, '0');
    for (std::size_t i = out.size(); i-- > 0; value >>= 4)
        out[i] = kHexDigits[value & 0xF];
    return out;
}

std::string toHexAddress(std::uintptr_t value) {
    std::string out;
    do {
        out.insert(out.begin(), kHexDigits[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return out;
}

std::string toHex(std::span<const unsigned char> bytes) {
    std::string out(bytes.size() * 2, '\0');
    writeHex(bytes, out.data());
    return out;
}

void writeHex(std::span<const unsigned char> bytes, char* out) {
    for (const unsigned char byte : bytes) {
        *out++ = kHexDigits[byte >> 4];
        *out++ = kHexDigits[byte & 0xF];
    }
}

std::vector<unsigned char> fromHex(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::vector<unsigned char> out;
    out.reserve(text.size() / 2 + 1);
    if (text.size() % 2 != 0) {
        out.push_back(static_cast<unsigned char>(hexDigitValue(text.front())));
        text.remove_prefix(1);
    }
    for (; !text.empty(); text.remove_prefix(2)) {
        out.push_back(static_cast<unsigned char>((hexDigitValue(text[0]) << 4) | hexDigitValue(text[1])));
    }
    return out;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, {}, lowerCase, lowerCase);
}

std::string_view boundedText(const char* text, std::size_t capacity) {
    const void* end = std::memchr(text, '\0', capacity);
    return {text, end ? static_cast<std::size_t>(static_cast<const char*>(end) - text) : capacity};
}

} // namespace veltra
