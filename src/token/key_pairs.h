#pragma once

#include "foundation/device_library.h"

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

/// A copy of the token's key pair list, in the token's order. A length in a record that does not fit
/// its own buffer is reported and counts as 0.
std::vector<VeltraKeyPair> keyPairsOf(const std::string& serial, void* libraryContext);

/// The same, but copies only the pairs that are `wanted`, which looks at nothing but the record: a token may
/// have many keys, and most callers look for one.
std::vector<VeltraKeyPair> keyPairsOf(const std::string& serial, void* libraryContext,
                                      const std::function<bool(const VeltraKeyPair&)>& wanted);

/// The first of these tokens that has a pair which is `wanted`. A token that cannot be read is reported, in a
/// line that begins with `logPrefix`, and hides no key of another one; what it threw is thrown on when no
/// other one has the key, which may be there.
std::optional<std::string> tokenWithKeyPair(const std::vector<std::string>& serials, void* libraryContext,
                                            const std::function<bool(const VeltraKeyPair&)>& wanted,
                                            const char* logPrefix);

/// The names of all key pairs, in the token's order.
std::vector<std::string> keyNamesOf(const std::string& serial, void* libraryContext);

/// Makes lengths that do not fit their buffers 0 in a record that the device library filled. Returns whether
/// the public key fits; the credential identifier is only carried.
bool clearImpossibleLengths(VeltraKeyPair& pair);

/// Lets the token make a key pair with its stored PIN. `pair`: type and usage filled by the caller; on
/// success it is the token's record. Returns the library's code; a record whose public key does not fit is
/// reported under the name of the entry point and counts as a failure.
int generateKeyPair(const char* entryPoint, const std::string& serial, VeltraKeyPair& pair,
                    void* libraryContext);

/// The name of a key in both front ends: its identifier as 32 upper-case hexadecimal characters.
std::string keyName(std::span<const unsigned char, kKeyIdLength> keyId);

/// Whether keyName(keyId) is `name`, without making a text of it.
bool hasKeyName(std::span<const unsigned char, kKeyIdLength> keyId, std::string_view name);
bool hasKeyNameIgnoringCase(std::span<const unsigned char, kKeyIdLength> keyId, std::string_view name);

/// Puts a label of at most kLabelMaxLength characters, what is longer cut, into the field of a record.
void copyLabel(std::string_view label, std::span<char, kLabelCapacity> field);

/// The first pair with this identifier, or null.
const VeltraKeyPair* findKeyPair(const std::vector<VeltraKeyPair>& pairs,
                                 std::span<const unsigned char, kKeyIdLength> keyId);

/// Key length in bits of a key type code; 0 for an unknown code.
std::uint32_t keyBitsOf(std::uint32_t keyType);

/// The type code of an RSA key of 1024, 2048, 3072 or 4096 bits; nothing for another length.
std::optional<std::uint32_t> rsaKeyTypeForBits(std::uint32_t bits);

bool isRsaKeyType(std::uint32_t keyType);
bool isEcKeyType(std::uint32_t keyType);

} // namespace veltra
