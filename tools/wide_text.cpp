#include "wide_text.h"

#include "foundation/windows.h"

namespace veltra {

std::wstring toWide(std::string_view utf8) {
    const int length = static_cast<int>(utf8.size());
    std::wstring wide(
        static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), static_cast<int>(wide.size()));
    return wide;
}

std::string toUtf8(std::wstring_view wide) {
    const int length = static_cast<int>(wide.size());
    std::string utf8(static_cast<std::size_t>(
                         WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr)),
                     '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), static_cast<int>(utf8.size()), nullptr,
                        nullptr);
    return utf8;
}

std::string inQuotes(std::wstring_view name) {
    std::string text = "'";
    text += toUtf8(name);
    text += "'";
    return text;
}

bool fitsNarrowCodePage(std::wstring_view text) {
    BOOL replaced = FALSE;
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), static_cast<int>(text.size()), nullptr, 0,
                        nullptr, &replaced);
    return !replaced;
}

} // namespace veltra
