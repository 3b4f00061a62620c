#include "certs/public_key_blob.h"

#include <algorithm>
#include <cstring>

namespace veltra {

namespace {

constexpr DWORD kPublicExponent = 65537;

struct PublicKeyBlobStart {
    BLOBHEADER header;
    RSAPUBKEY key;
};
static_assert(sizeof(PublicKeyBlobStart) == kPublicKeyBlobModulusOffset);

} // namespace

RSAPUBKEY publicKeyBlobHeader(std::span<const unsigned char> blob) {
    RSAPUBKEY key{};
    std::memcpy(&key, blob.subspan(sizeof(BLOBHEADER)).data(), sizeof(key));
    return key;
}

void copyPublicKeyBlobModulus(std::span<const unsigned char> blob, std::span<unsigned char> modulus) {
    std::ranges::reverse_copy(blob.subspan(kPublicKeyBlobModulusOffset, modulus.size()), modulus.begin());
}

std::array<unsigned char, 3> exponentBytes(DWORD exponent) {
    return {static_cast<unsigned char>(exponent >> 16), static_cast<unsigned char>(exponent >> 8),
            static_cast<unsigned char>(exponent)};
}

Bytes makePublicKeyBlob(std::span<const unsigned char> modulus, ALG_ID algId) {
    const PublicKeyBlobStart start = {
        .header = {.bType = PUBLICKEYBLOB, .bVersion = CUR_BLOB_VERSION, .reserved = 0, .aiKeyAlg = algId},
        .key = {.magic = kRsa1Magic,
                .bitlen = static_cast<DWORD>(modulus.size() * 8),
                .pubexp = kPublicExponent}};
    Bytes blob(sizeof(start) + modulus.size());
    std::memcpy(blob.data(), &start, sizeof(start));
    std::ranges::reverse_copy(modulus, blob.begin() + sizeof(start));
    return blob;
}

} // namespace veltra
