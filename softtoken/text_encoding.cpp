#include "text_encoding.h"

#include "failure.h"

#include "foundation/windows.h"

#include <limits>

namespace veltra::softtoken {

namespace {

int intLength(std::size_t length) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int>::max() / 4)) {
        throw TokenError(Failure::BadArgument, "a text is too long");
    }
    return static_cast<int>(length);
}

std::string toCodePage(std::wstring_view text, UINT codePage) {
    const int length = intLength(text.size());
    std::string result;
    result.resize(static_cast<std::size_t>(
        WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr)));
    WideCharToMultiByte(codePage, 0, text.data(), length, result.data(), intLength(result.size()), nullptr,
                        nullptr);
    return result;
}

} // namespace

std::string toUtf8(std::wstring_view text) {
    return toCodePage(text, CP_UTF8);
}

std::wstring fromSystemCodePage(std::string_view text) {
    const int length = intLength(text.size());
    std::wstring result;
    result.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0)));
    MultiByteToWideChar(CP_ACP, 0, text.data(), length, result.data(), intLength(result.size()));
    return result;
}

std::string toSystemCodePage(std::wstring_view text) {
    return toCodePage(text, CP_ACP);
}

} // namespace veltra::softtoken
