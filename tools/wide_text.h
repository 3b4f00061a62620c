#pragma once

#include <string>
#include <string_view>

namespace veltra {

/// UTF-8 to UTF-16 and back. A sequence that is not valid becomes U+FFFD.
std::wstring toWide(std::string_view utf8);
std::string toUtf8(std::wstring_view wide);

/// A name or path as messages show it: UTF-8 in single quotation marks.
std::string inQuotes(std::wstring_view name);

/// True when the system's narrow code page can hold the text. CryptoAPI hands container names to a provider
/// in that code page, where a character that it lacks would silently become another one.
bool fitsNarrowCodePage(std::wstring_view text);

} // namespace veltra
