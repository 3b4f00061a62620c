#include "token/pin.h"

#include "foundation/secret.h"

#include <algorithm>

namespace veltra {

Pin::Pin(std::string_view text, std::size_t maxLength) {
    const std::size_t length = std::min({text.size(), maxLength, kMaxLength});
    std::copy_n(text.begin(), length, text_.begin());
}

Pin::~Pin() {
    wipe(text_.data(), text_.size());
}

} // namespace veltra
