#include "foundation/wide_text.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

namespace veltra {

namespace {

std::string toUtf8(std::span<const WCHAR> text) {
    if (text.empty() || text.size() > INT_MAX) return {};
    const auto length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(std::max(size, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, out.data(), size, nullptr, nullptr);
    return out;
}

} // namespace

std::string fromWide(LPCWSTR text) {
    if (text == nullptr) return {};
    std::size_t length = 0;
    while (text[length] != 0)
        ++length;
    return toUtf8({text, length});
}

std::string fromWideBytes(std::span<const unsigned char> bytes) {
    if (bytes.size() < sizeof(WCHAR)) return {};
    std::vector<WCHAR> characters(bytes.size() / sizeof(WCHAR));
    std::memcpy(characters.data(), bytes.data(), characters.size() * sizeof(WCHAR));
    const auto end = std::ranges::find(characters, WCHAR{0});
    return toUtf8({characters.begin(), end});
}

void writeWide(std::string_view ascii, void* out) {
    auto* bytes = static_cast<unsigned char*>(out);
    for (std::size_t i = 0; i <= ascii.size(); ++i) {
        const auto character = static_cast<WCHAR>(i < ascii.size() ? ascii[i] : '\0');
        std::memcpy(bytes + i * sizeof(WCHAR), &character, sizeof(character));
    }
}

} // namespace veltra
