#include "rsa_padding.h"

#include <algorithm>

namespace veltra::softtoken {

namespace {

/// Where the message begins, if the padding is right. Computed without branches on secret bytes.
struct Padding {
    bool valid;
    std::size_t messageStart;
};

/// 1 for zero, 0 for any other byte.
unsigned isZero(unsigned byte) {
    return (byte - 1u) >> 31;
}

/// Looks for the first byte from `start` on that is zero (`wanted` 1) or is not (`wanted` 0); `found` is 0
/// when there is none.
std::size_t findFirst(BytesView bytes, std::size_t start, unsigned wanted, unsigned& found) {
    std::size_t position = 0;
    found = 0;
    for (std::size_t i = start; i < bytes.size(); ++i) {
        const unsigned hit = (isZero(bytes[i]) ^ wanted ^ 1u) & (found ^ 1u);
        position += hit * i;
        found |= hit;
    }
    return position;
}

Padding findPkcs1(BytesView block) {
    constexpr std::size_t kShortestFiller = 8;
    unsigned found = 0;
    const std::size_t end = findFirst(block, 2, 1, found);
    const unsigned wrong = block[0] | (block[1] ^ 2u) | (found ^ 1u);
    return {wrong == 0 && end >= 2 + kShortestFiller, end + 1};
}

/// target ^= MGF1(seed) (RFC 8017, B.2.1).
void applyMask(int hash, BytesView seed, std::span<unsigned char> target) {
    const std::size_t hashLength = gcry_md_get_algo_dlen(hash);
    SecureBytes input(seed.begin(), seed.end());
    input.resize(seed.size() + 4);
    SecureBytes mask(hashLength);
    for (std::size_t i = 0; i < target.size(); ++i) {
        if (i % hashLength == 0) {
            const std::size_t counter = i / hashLength; // below 256 for every key length
            input.back() = static_cast<unsigned char>(counter);
            gcry_md_hash_buffer(hash, mask.data(), input.data(), input.size());
        }
        target[i] ^= mask[i % hashLength];
    }
}

/// Unmasks `block`.
Padding findOaep(int hash, SecureBytes& block) {
    const std::size_t hashLength = gcry_md_get_algo_dlen(hash);
    if (block.size() < 2 * hashLength + 2) return {false, 0};
    const std::span<unsigned char> seed = std::span(block).subspan(1, hashLength);
    const std::span<unsigned char> data = std::span(block).subspan(1 + hashLength);
    applyMask(hash, data, seed);
    applyMask(hash, seed, data);
    Bytes label(hashLength);
    gcry_md_hash_buffer(hash, label.data(), "", 0);
    unsigned found = 0;
    const std::size_t separator = findFirst(block, 1 + 2 * hashLength, 0, found);
    const unsigned labelRight = equalConstantTime(data.first(hashLength), label) ? 1 : 0;
    const unsigned wrong = block[0] | (block[separator] ^ 1u) | (found ^ 1u) | (labelRight ^ 1u);
    return {wrong == 0, separator + 1};
}

} // namespace

std::optional<SecureBytes> removePadding(BytesView block) {
    constexpr int kHashes[] = {GCRY_MD_SHA1, GCRY_MD_SHA256, GCRY_MD_SHA384, GCRY_MD_SHA512, GCRY_MD_NONE};
    std::optional<SecureBytes> message;
    for (const int hash : kHashes) {
        SecureBytes copy(block.begin(), block.end());
        const Padding padding = hash == GCRY_MD_NONE ? findPkcs1(copy) : findOaep(hash, copy);
        if (!padding.valid || message) continue;
        message.emplace(copy.begin() + static_cast<std::ptrdiff_t>(padding.messageStart), copy.end());
    }
    return message;
}

} // namespace veltra::softtoken
