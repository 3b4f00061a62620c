#pragma once

#include "foundation/windows.h"

#include <span>
#include <string>
#include <string_view>

namespace veltra {

// CNG speaks wide text. Inside the provider names are UTF-8, in which the names that it knows are plain ASCII
// and two different names stay different, but for unpaired surrogates, which all become U+FFFD. The C
// library's wide functions are not used: they need not agree with the platform on the width of a wide
// character.

/// A zero-terminated wide text as UTF-8; empty for null.
std::string fromWide(LPCWSTR text);

/// The same from bytes that may be unaligned, unterminated or of odd length: up to the first wide zero or the
/// last whole character.
std::string fromWideBytes(std::span<const unsigned char> bytes);

/// Bytes of `ascii` as zero-terminated wide text.
constexpr std::size_t wideSize(std::string_view ascii) {
    return (ascii.size() + 1) * sizeof(WCHAR);
}

/// Writes `ascii` as zero-terminated wide text: wideSize(ascii) bytes, which need no alignment.
void writeWide(std::string_view ascii, void* out);

} // namespace veltra
