#pragma once

#include "support/scripted_device_library.h"

#include "foundation/wide_text.h"

#include <initializer_list>

namespace veltra::test {

// What key blobs and wide names are put together of.

inline Bytes littleEndian(DWORD value) {
    return {static_cast<BYTE>(value), static_cast<BYTE>(value >> 8), static_cast<BYTE>(value >> 16),
            static_cast<BYTE>(value >> 24)};
}

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

inline Bytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

/// `words` as little-endian DWORDs.
inline Bytes dwords(std::initializer_list<DWORD> words) {
    Bytes out;
    for (const DWORD word : words)
        out = joined({out, littleEndian(word)});
    return out;
}

/// The bytes start, start + 1, ...
inline Bytes counting(std::size_t length, unsigned char start = 0) {
    Bytes out(length);
    for (std::size_t i = 0; i < length; ++i)
        out[i] = static_cast<unsigned char>(start + i);
    return out;
}

inline std::vector<WCHAR> wideText(std::string_view ascii) {
    std::vector<WCHAR> text(ascii.size() + 1);
    writeWide(ascii, text.data());
    return text;
}

/// The bytes of wideText(ascii).
inline Bytes wideBytes(std::string_view ascii) {
    Bytes bytes(wideSize(ascii));
    writeWide(ascii, bytes.data());
    return bytes;
}

} // namespace veltra::test
