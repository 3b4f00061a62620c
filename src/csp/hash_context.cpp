#include "csp/hash_context.h"

#include "token/device_hash.h"

#include <algorithm>
#include <array>

namespace veltra {

namespace {

constexpr std::array<HashAlgorithm, 4> kHashAlgorithms = {{
    {CALG_SHA1, kMechanismSha1, 20, 64},
    {CALG_SHA_256, kMechanismSha256, 32, 64},
    {CALG_SHA_384, kMechanismSha384, 48, 128},
    {CALG_SHA_512, kMechanismSha512, 64, 128},
}};

const HashAlgorithm* findRow(auto matches) {
    const auto found = std::ranges::find_if(kHashAlgorithms, matches);
    return found == kHashAlgorithms.end() ? nullptr : &*found;
}

} // namespace

const HashAlgorithm* findHashAlgorithm(ALG_ID algId) {
    return findRow([&](const HashAlgorithm& row) { return row.algId == algId; });
}

const HashAlgorithm* findHashMechanism(std::uint32_t mechanism) {
    return findRow([&](const HashAlgorithm& row) { return row.mechanism == mechanism; });
}

int startDeviceHash(const CSP_CONTEXT& context, std::uint32_t mechanism, void** deviceHash) {
    return startDeviceHash(context.serial, mechanism, deviceHash, context.libraryContext);
}

int finishDeviceHash(const CSP_CONTEXT& context, void* deviceHash, unsigned char* digest,
                     std::uint32_t capacity, std::uint32_t& length) {
    SecretBytes<kHashValueCapacity> written;
    const int code = finishDeviceHash(deviceHash, {written.data(), capacity}, length, context.libraryContext);
    if (code == kDeviceOk) std::copy_n(written.data(), length, digest);
    return code;
}

} // namespace veltra
