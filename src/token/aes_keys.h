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

/// A record for the token's AES key store, wiped when it goes out of scope.
struct SymmetricKeyRecord {
    VeltraSymmetricKey key{};

    SymmetricKeyRecord() = default;
    SymmetricKeyRecord(const SymmetricKeyRecord&) = delete;
    SymmetricKeyRecord& operator=(const SymmetricKeyRecord&) = delete;
    ~SymmetricKeyRecord() { wipe(&key, sizeof(key)); }

    /// Takes 0 to 32 bytes; false for more.
    [[nodiscard]] bool setMaterial(std::span<const unsigned char> material);
};

/// Stores the key on the token with its stored PIN. On success the record is the token's; the length of its
/// credential identifier fits, that of its key is not checked. Returns the library's code.
int storeAesKey(const std::string& serial, SymmetricKeyRecord& record, void* libraryContext);

/// Which keys of the token's AES key list are tried as wrapping keys.
enum class WrappingKeys { Listed, OfAesType };

/// Unwraps `wrapped` with the first of these keys that can, in the token's order, into `unwrapped`. The
/// wrapping scheme is the library's. Returns the identifier of that key, or nothing when no key fits.
std::optional<std::array<unsigned char, kKeyIdLength>>
unwrapWithAnyKey(const std::string& serial, void* libraryContext, WrappingKeys tried,
                 std::span<const unsigned char> wrapped, LibraryBuffer& unwrapped);

} // namespace veltra
