#include "ksp/property_value.h"

#include "foundation/wide_text.h"

#include <algorithm>
#include <vector>

namespace veltra {

SECURITY_STATUS answerBytes(const PropertyOutput& out, std::span<const unsigned char> value) {
    *out.size = static_cast<DWORD>(value.size());
    if (out.data == nullptr) return kSuccess;
    if (out.capacity < value.size()) return NTE_BUFFER_TOO_SMALL;
    std::ranges::copy(value, out.data);
    return kSuccess;
}

SECURITY_STATUS answerDword(const PropertyOutput& out, DWORD value) {
    return answerValue(out, value);
}

SECURITY_STATUS answerText(const PropertyOutput& out, std::string_view ascii) {
    std::vector<unsigned char> wide(wideSize(ascii));
    writeWide(ascii, wide.data());
    return answerBytes(out, wide);
}

} // namespace veltra
