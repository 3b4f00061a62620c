#include "token/aes_keys.h"

#include "token/device_state.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace veltra {

namespace {

/// A copy of the library's key list, wiped when it goes out of scope: a library may put key material into it.
struct CopiedKeys {
    explicit CopiedKeys(std::vector<VeltraSymmetricKey> list) : records(std::move(list)) {}
    CopiedKeys(const CopiedKeys&) = delete;
    CopiedKeys& operator=(const CopiedKeys&) = delete;
    ~CopiedKeys() { wipe(records.data(), records.size() * sizeof(VeltraSymmetricKey)); }

    std::vector<VeltraSymmetricKey> records;
};

bool isOfAesType(const VeltraSymmetricKey& key) {
    return key.keyType == kKeyTypeAes128 || key.keyType == kKeyTypeAes192Or256;
}

} // namespace

std::optional<std::uint32_t> aesKeyTypeForBits(std::uint32_t bits) {
    switch (bits) {
    case 128:
        return kKeyTypeAes128;
    case 192:
    case 256:
        return kKeyTypeAes192Or256;
    default:
        return std::nullopt;
    }
}

bool SymmetricKeyRecord::setMaterial(std::span<const unsigned char> material) {
    if (material.size() > kSymmetricKeyCapacity) return false;
    std::ranges::copy(material, key.key);
    key.keyLength = static_cast<std::uint32_t>(material.size());
    return true;
}

int storeAesKey(const std::string& serial, SymmetricKeyRecord& record, void* libraryContext) {
    const Pin pin = getPin(serial);
    const int code =
        deviceLibrary().veltra_importAesKey(serial.c_str(), pin.c_str(), &record.key, libraryContext);
    // Only carried: an impossible length does not undo the import. Nobody reads the key's own length.
    if (record.key.credentialIdLength > kCredentialIdCapacity) record.key.credentialIdLength = 0;
    return code;
}

std::optional<std::array<unsigned char, kKeyIdLength>>
unwrapWithAnyKey(const std::string& serial, void* libraryContext, WrappingKeys tried,
                 std::span<const unsigned char> wrapped, LibraryBuffer& unwrapped) {
    const CopiedKeys keys(deviceLibrary().veltra_getAesKeyList(serial.c_str(), libraryContext));
    for (const VeltraSymmetricKey& key : keys.records) {
        if (tried == WrappingKeys::OfAesType && !isOfAesType(key)) continue;
        const int code = unwrapped.fill([&](unsigned char** out, int* outLength) {
            return deviceLibrary().veltra_decrypt_aes(
                serial.c_str(), key.keyId, static_cast<int>(kKeyIdLength), wrapped.data(),
                static_cast<int>(wrapped.size()), out, outLength, key.flag != 0, nullptr, 0, libraryContext);
        });
        if (code != kDeviceOk) continue;
        std::array<unsigned char, kKeyIdLength> keyId{};
        std::ranges::copy(key.keyId, keyId.begin());
        return keyId;
    }
    return std::nullopt;
}

} // namespace veltra
