#pragma once

#include "foundation/device_library.h"
#include "foundation/library_buffer.h"

#include <array>
#include <optional>
#include <span>
#include <string>

namespace veltra {

/// The library's type code of an AES key of this length in bits (128, 192 or 256); nothing for
/// another length.
std::optional<std::uint32_t> aesKeyTypeForBits(std::uint32_t bits);

/// Unwraps `wrapped` with the first AES key of the token that can, in the token's order, into `unwrapped`.
/// The wrapping scheme is the library's. Returns the identifier of that key, or nothing when no key fits.
std::optional<std::array<unsigned char, kKeyIdLength>>
unwrapWithAnyKey(const std::string& serial, void* libraryContext, std::span<const unsigned char> wrapped,
                 LibraryBuffer& unwrapped);

} // namespace veltra
