#include "csp/hmac.h"

#include "foundation/device_library.h"

#include <algorithm>

namespace veltra {

namespace {

constexpr unsigned char kInnerPad = 0x36;
constexpr unsigned char kOuterPad = 0x5C;

using Block = SecretBytes<kMaxBlockLength>;

int update(const CSP_CONTEXT& context, void* deviceHash, const unsigned char* data, std::uint32_t length) {
    return deviceLibrary().veltra_updateHash(deviceHash, data, static_cast<int>(length),
                                             context.libraryContext);
}

// Digests a key that is longer than the block into the block. Returns whether the library did it.
bool digestKey(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, const HashAlgorithm& algorithm,
               Block& block) {
    void* deviceHash = nullptr;
    std::uint32_t length = 0;
    return startDeviceHash(context, algorithm.mechanism, &deviceHash) == kDeviceOk &&
           update(context, deviceHash, hash.hmacKey.data(), hash.hmacKeyLength) == kDeviceOk &&
           finishDeviceHash(context, deviceHash, block.data(), algorithm.digestLength, length) == kDeviceOk;
}

void xorInto(Block& out, const Block& key, std::uint32_t length, unsigned char pad) {
    std::transform(key.data(), key.data() + length, out.data(),
                   [pad](unsigned char byte) { return static_cast<unsigned char>(byte ^ pad); });
}

} // namespace

Outcome setUpHmac(const CSP_CONTEXT& context, HASH_CONTEXT& hash, const HMAC_INFO& info) {
    const HashAlgorithm* algorithm = findHashAlgorithm(info.HashAlgid);
    if (algorithm == nullptr) {
        return refuse(NTE_BAD_ALGID,
                      concat("CPSetHashParam: unsupported HMAC inner hash 0x", toHex8(info.HashAlgid)));
    }
    Block key;
    if (hash.hmacKeyLength > algorithm->blockLength) {
        if (!digestKey(context, hash, *algorithm, key)) return failure(NTE_FAIL);
    } else {
        std::copy_n(hash.hmacKey.data(), hash.hmacKeyLength, key.data());
    }
    Block innerPad;
    xorInto(innerPad, key, algorithm->blockLength, kInnerPad);

    void* deviceHash = nullptr;
    if (const int code = startDeviceHash(context, algorithm->mechanism, &deviceHash); code != kDeviceOk) {
        return refuse(NTE_FAIL,
                      concat("CPSetHashParam: veltra_initHash failed for HMAC inner hash, ret=", code));
    }
    if (const int code = update(context, deviceHash, innerPad.data(), algorithm->blockLength);
        code != kDeviceOk) {
        return refuse(NTE_FAIL, concat("CPSetHashParam: veltra_updateHash failed for HMAC ipad, ret=", code));
    }
    hash.hmacInfo = info;
    hash.hashSize = algorithm->digestLength;
    hash.mechanism = hash.innerMechanism = algorithm->mechanism;
    xorInto(hash.hmacKey, key, algorithm->blockLength, kOuterPad);
    hash.hmacKeyLength = algorithm->blockLength;
    hash.deviceHash = deviceHash;
    Utils::debug("CPSetHashParam: HMAC initialized with inner hash algo=", hash.mechanism);
    return success();
}

Outcome finishHmac(const CSP_CONTEXT& context, HASH_CONTEXT& hash, std::uint32_t& length) {
    const auto refuseStep = [](const char* step, int code) {
        return refuse(NTE_FAIL, concat("CPGetHashParam: HMAC outer ", step, " failed, ret=", code));
    };
    hash.deviceHash = nullptr; // the inner hash is consumed
    SecretBytes<kHashValueCapacity> inner;
    std::copy_n(hash.hashValue.begin(), length, inner.data());
    void* outer = nullptr;
    if (const int code = startDeviceHash(context, hash.mechanism, &outer); code != kDeviceOk) {
        return refuseStep("veltra_initHash", code);
    }
    if (const int code = update(context, outer, hash.hmacKey.data(), hash.hmacKeyLength); code != kDeviceOk) {
        return refuseStep("opad update", code);
    }
    if (const int code = update(context, outer, inner.data(), length); code != kDeviceOk) {
        return refuseStep("inner-result update", code);
    }
    if (const int code = finishDeviceHash(context, outer, hash.hashValue.data(), hash.hashSize, length);
        code != kDeviceOk) {
        return refuseStep("veltra_finalHash", code);
    }
    wipe(hash.hmacKey.data(), kMaxBlockLength);
    hash.hmacKeyLength = 0;
    Utils::debug("CPGetHashParam: HMAC finalized successfully");
    return success();
}

} // namespace veltra
