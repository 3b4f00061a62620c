#include "token/key_pairs.h"

#include "foundation/text.h"
#include "foundation/utils.h"
#include "token/device_state.h"

#include <algorithm>
#include <array>
#include <exception>

namespace veltra {

namespace {

using KeyId = std::array<unsigned char, kKeyIdLength>;

bool publicKeyFits(const VeltraKeyPair& pair) {
    return pair.publicKeyLength <= kPublicKeyCapacity;
}

// The characters of a key's name.
std::array<char, 2 * kKeyIdLength> nameOf(std::span<const unsigned char, kKeyIdLength> keyId) {
    std::array<char, 2 * kKeyIdLength> name{};
    writeHex(keyId, name.data());
    return name;
}

std::string_view viewOf(const std::array<char, 2 * kKeyIdLength>& name) {
    return {name.data(), name.size()};
}

void reportImpossibleLength(std::span<const unsigned char, kKeyIdLength> keyId) {
    Utils::error("Key pair ", viewOf(nameOf(keyId)), " has an impossible public key length");
}

// Shows each pair of the token to `look`, which may copy it. The list is the library's: nothing is logged
// while it is read.
template <class Look>
void lookAtKeyPairs(const std::string& serial, void* libraryContext, Look look) {
    std::vector<KeyId> impossible;
    for (const VeltraKeyPair& pair : deviceLibrary().veltra_getKeyPairList(serial.c_str(), libraryContext)) {
        if (!publicKeyFits(pair)) std::ranges::copy(pair.keyId, impossible.emplace_back().begin());
        look(pair);
    }
    std::ranges::for_each(impossible, reportImpossibleLength);
}

} // namespace

std::vector<VeltraKeyPair> keyPairsOf(const std::string& serial, void* libraryContext) {
    std::vector<VeltraKeyPair> pairs = deviceLibrary().veltra_getKeyPairList(serial.c_str(), libraryContext);
    for (VeltraKeyPair& pair : pairs) {
        if (!clearImpossibleLengths(pair)) reportImpossibleLength(pair.keyId);
    }
    return pairs;
}

std::vector<VeltraKeyPair> keyPairsOf(const std::string& serial, void* libraryContext,
                                      const std::function<bool(const VeltraKeyPair&)>& wanted) {
    std::vector<VeltraKeyPair> copies;
    lookAtKeyPairs(serial, libraryContext, [&](const VeltraKeyPair& pair) {
        if (wanted(pair)) clearImpossibleLengths(copies.emplace_back(pair));
    });
    return copies;
}

std::optional<std::string> tokenWithKeyPair(const std::vector<std::string>& serials, void* libraryContext,
                                            const std::function<bool(const VeltraKeyPair&)>& wanted,
                                            const char* logPrefix) {
    std::exception_ptr unreadable;
    for (const std::string& serial : serials) {
        try {
            if (!keyPairsOf(serial, libraryContext, wanted).empty()) return serial;
        } catch (...) {
            Utils::error(logPrefix, "Key list of ", serial, " cannot be read");
            unreadable = std::current_exception();
        }
    }
    if (unreadable) std::rethrow_exception(unreadable);
    return std::nullopt;
}

std::vector<std::string> keyNamesOf(const std::string& serial, void* libraryContext) {
    std::vector<std::string> names;
    lookAtKeyPairs(serial, libraryContext,
                   [&](const VeltraKeyPair& pair) { names.push_back(keyName(pair.keyId)); });
    return names;
}

bool clearImpossibleLengths(VeltraKeyPair& pair) {
    if (pair.credentialIdLength > kCredentialIdCapacity) pair.credentialIdLength = 0;
    const bool fits = publicKeyFits(pair);
    if (!fits) pair.publicKeyLength = 0;
    return fits;
}

int generateKeyPair(const char* entryPoint, const std::string& serial, VeltraKeyPair& pair,
                    void* libraryContext) {
    const Pin pin = getPin(serial);
    const int code =
        deviceLibrary().veltra_generateKeyPair(serial.c_str(), pin.c_str(), &pair, libraryContext);
    if (code != kDeviceOk || clearImpossibleLengths(pair)) return code;
    Utils::error(entryPoint, ": the token reports an impossible public key length for its new key ",
                 viewOf(nameOf(pair.keyId)));
    return kDeviceBadLength;
}

std::string keyName(std::span<const unsigned char, kKeyIdLength> keyId) {
    return toHex(keyId);
}

bool hasKeyName(std::span<const unsigned char, kKeyIdLength> keyId, std::string_view name) {
    return viewOf(nameOf(keyId)) == name;
}

bool hasKeyNameIgnoringCase(std::span<const unsigned char, kKeyIdLength> keyId, std::string_view name) {
    return equalsIgnoringCase(viewOf(nameOf(keyId)), name);
}

void copyLabel(std::string_view label, std::span<char, kLabelCapacity> field) {
    const auto end = std::ranges::copy(label.substr(0, kLabelMaxLength), field.begin()).out;
    std::fill(end, field.end(), '\0');
}

const VeltraKeyPair* findKeyPair(const std::vector<VeltraKeyPair>& pairs,
                                 std::span<const unsigned char, kKeyIdLength> keyId) {
    const auto found = std::ranges::find_if(
        pairs, [&](const VeltraKeyPair& pair) { return std::ranges::equal(pair.keyId, keyId); });
    return found == pairs.end() ? nullptr : &*found;
}

std::uint32_t keyBitsOf(std::uint32_t keyType) {
    static constexpr std::array<std::uint32_t, 8> kBits = {0, 1024, 2048, 3072, 4096, 256, 384, 521};
    return keyType < kBits.size() ? kBits[keyType] : 0;
}

std::optional<std::uint32_t> rsaKeyTypeForBits(std::uint32_t bits) {
    for (std::uint32_t type = kKeyTypeRsa1024; type <= kKeyTypeRsa4096; ++type) {
        if (keyBitsOf(type) == bits) return type;
    }
    return std::nullopt;
}

bool isRsaKeyType(std::uint32_t keyType) {
    return keyType >= kKeyTypeRsa1024 && keyType <= kKeyTypeRsa4096;
}

bool isEcKeyType(std::uint32_t keyType) {
    return keyType >= kKeyTypeEcP256 && keyType <= kKeyTypeEcP521;
}

} // namespace veltra
