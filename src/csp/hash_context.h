#pragma once

#include "csp/entry_guard.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "foundation/live_records.h"
#include "foundation/secret.h"

#include <array>
#include <cstdint>

namespace veltra {

/// One digest that the token computes, and what HMAC needs to know of it.
struct HashAlgorithm {
    ALG_ID algId;
    std::uint32_t mechanism;    ///< HashMechanism
    std::uint32_t digestLength; ///< bytes
    std::uint32_t blockLength;  ///< bytes, of HMAC
};

inline constexpr std::size_t kMaxBlockLength = 128;
inline constexpr std::size_t kHashValueCapacity = 256;

/// Room offered to the token for a digest that signing or derivation finishes, whatever the algorithm.
inline constexpr std::uint32_t kDigestBufferLength = 128;

/// Rows of the mechanism table; null when there is none.
const HashAlgorithm* findHashAlgorithm(ALG_ID algId);
const HashAlgorithm* findHashMechanism(std::uint32_t mechanism);

/// The record behind an HCRYPTHASH, made by CPCreateHash or CPDuplicateHash and freed by CPDestroyHash. Key
/// bytes in it are wiped with it. Not locked: one handle is used by one thread at a time.
struct HASH_CONTEXT {
    HASH_CONTEXT() = default;
    HASH_CONTEXT(const HASH_CONTEXT&) = delete;
    HASH_CONTEXT& operator=(const HASH_CONTEXT&) = delete;
    ~HASH_CONTEXT() { wipe(hashValue.data(), hashValue.size()); } // a key may have been derived from it

    std::uint32_t reserved = 0;
    std::uint32_t mechanism = 0;      ///< 0 until known: an HMAC object before HP_HMAC_INFO
    std::uint32_t innerMechanism = 0; ///< always the same as mechanism
    HMAC_INFO hmacInfo{};             ///< as the application set it; its strings are never used
    void* deviceHash = nullptr;       ///< not owned: the library has no call to release it
    std::uint8_t valid = 1;
    std::uint8_t isHmac = 0;
    std::uint8_t finalized = 0;
    std::array<unsigned char, kHashValueCapacity> hashValue{};
    std::uint32_t hashValueLength = 0;
    std::uint32_t hashSize = 0; ///< digest length in bytes
    /// At creation the raw HMAC key; after HP_HMAC_INFO the outer pad block; wiped when the MAC is finished.
    SecretBytes<kMaxBlockLength> hmacKey;
    std::uint32_t hmacKeyLength = 0;
    HCRYPTKEY hmacKeyHandle = 0; ///< the key object that supplied the key, only remembered
    ALG_ID algId = 0;
    KeySlot signingKey;               ///< the key that the first signature chose; it stays
    std::uint32_t signingKeyType = 0; ///< KeyType
};

/// The live hash object behind a handle, or null.
inline std::shared_ptr<HASH_CONTEXT> liveHash(HCRYPTHASH handle) {
    return LiveRecords<HASH_CONTEXT>::find(handle);
}

/// Finishes `deviceHash` into `digest`, a buffer of `capacity` bytes, at most kHashValueCapacity. On success
/// `length` is the number of bytes written; a length that does not fit `capacity` is a failure. A failure
/// leaves `digest` as it was. Returns the library's code.
int finishDeviceHash(const CSP_CONTEXT& context, void* deviceHash, unsigned char* digest,
                     std::uint32_t capacity, std::uint32_t& length);

/// Starts a device hash, which goes to `deviceHash`. Returns the library's code.
int startDeviceHash(const CSP_CONTEXT& context, std::uint32_t mechanism, void** deviceHash);

} // namespace veltra
