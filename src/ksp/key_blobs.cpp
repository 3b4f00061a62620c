#include "ksp/key_blobs.h"

#include "foundation/device_library_contract.h"

#include <algorithm>
#include <array>

namespace veltra {

namespace {

constexpr std::array<EcBlobKind, 6> kEcBlobKinds = {{
    {BCRYPT_ECDH_PUBLIC_P256_MAGIC, kKeyTypeEcP256, kUsageEncrypt},
    {BCRYPT_ECDSA_PUBLIC_P256_MAGIC, kKeyTypeEcP256, kUsageSign},
    {BCRYPT_ECDH_PUBLIC_P384_MAGIC, kKeyTypeEcP384, kUsageEncrypt},
    {BCRYPT_ECDSA_PUBLIC_P384_MAGIC, kKeyTypeEcP384, kUsageSign},
    {BCRYPT_ECDH_PUBLIC_P521_MAGIC, kKeyTypeEcP521, kUsageEncrypt},
    {BCRYPT_ECDSA_PUBLIC_P521_MAGIC, kKeyTypeEcP521, kUsageSign},
}};

const EcBlobKind* findRow(auto matches) {
    const auto found = std::ranges::find_if(kEcBlobKinds, matches);
    return found == kEcBlobKinds.end() ? nullptr : &*found;
}

} // namespace

const EcBlobKind* findEcBlobKind(ULONG magic) {
    return findRow([&](const EcBlobKind& row) { return row.magic == magic; });
}

ULONG ecBlobMagic(std::uint32_t keyType, std::uint32_t keyUsage) {
    const std::uint32_t usage = keyUsage == kUsageEncrypt ? kUsageEncrypt : kUsageSign;
    const EcBlobKind* row =
        findRow([&](const EcBlobKind& kind) { return kind.keyType == keyType && kind.keyUsage == usage; });
    return row == nullptr ? 0 : row->magic;
}

} // namespace veltra
