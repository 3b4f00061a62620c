#pragma once

#include <string>
#include <string_view>

namespace veltra::softtoken {

/// UTF-8, with replacement characters for what is not UTF-16.
std::string toUtf8(std::wstring_view text);

/// The narrow texts of the contract's file functions are in the system's code page, as the narrow functions
/// of the platform give them.
std::wstring fromSystemCodePage(std::string_view text);
std::string toSystemCodePage(std::wstring_view text);

} // namespace veltra::softtoken
