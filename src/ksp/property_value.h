#pragma once

#include "foundation/cng.h"

#include <span>
#include <string_view>

namespace veltra {

/// Where the caller of a property query wants its value.
struct PropertyOutput {
    PBYTE data;
    DWORD capacity;
    DWORD* size;
};

// Each of these answers a property query: the needed size goes out first; without a buffer that is all; a
// buffer that is too small is NTE_BUFFER_TOO_SMALL and stays as it was.

SECURITY_STATUS answerBytes(const PropertyOutput& out, std::span<const unsigned char> value);
SECURITY_STATUS answerDword(const PropertyOutput& out, DWORD value);

/// As zero-terminated wide text.
SECURITY_STATUS answerText(const PropertyOutput& out, std::string_view ascii);

/// The bytes of a platform structure or handle.
template <class Value>
SECURITY_STATUS answerValue(const PropertyOutput& out, const Value& value) {
    return answerBytes(out, {reinterpret_cast<const unsigned char*>(&value), sizeof(value)});
}

} // namespace veltra
