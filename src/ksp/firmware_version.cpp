#include "ksp/firmware_version.h"

#include <array>
#include <cstdint>
#include <limits>

namespace veltra {

namespace {

// The leading digits of the next part, which is taken off `version` together with its dot. A number too long
// to hold counts as a very large one.
std::uint64_t takePart(std::string_view& version) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max() / 10 - 1;
    const std::size_t dot = version.find('.');
    const std::string_view part = version.substr(0, dot);
    version.remove_prefix(dot == std::string_view::npos ? version.size() : dot + 1);
    std::uint64_t number = 0;
    for (const char digit : part) {
        if (digit < '0' || digit > '9') break;
        number = number < kLargest ? number * 10 + static_cast<std::uint64_t>(digit - '0') : kLargest;
    }
    return number;
}

} // namespace

bool isFirmware2OrNewer(std::string_view version) {
    constexpr std::array<std::uint64_t, 3> kNeeded = {2, 0, 0};
    for (const std::uint64_t needed : kNeeded) {
        const std::uint64_t part = takePart(version);
        if (part != needed) return part > needed;
    }
    return true;
}

} // namespace veltra
