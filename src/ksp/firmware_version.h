#pragma once

#include <string_view>

namespace veltra {

/// Whether a dotted firmware version is "2.0.0" or newer, which PSS signatures and key agreement need. Parts
/// are compared as numbers; a missing part counts as 0, and of a part that is not a number its leading digits
/// count.
bool isFirmware2OrNewer(std::string_view version);

} // namespace veltra
