#pragma once

#include "foundation/windows.h"
#include "token/aes_keys.h"

namespace veltra {

/// Key length in bits of a CryptoAPI AES algorithm; 0 for every other algorithm.
constexpr DWORD aesKeyBits(ALG_ID algId) {
    switch (algId) {
    case CALG_AES_128:
        return 128;
    case CALG_AES_192:
        return 192;
    case CALG_AES_256:
        return 256;
    default:
        return 0;
    }
}

/// The library's AES type code of a CryptoAPI algorithm; nothing for every other algorithm.
inline std::optional<std::uint32_t> aesKeyTypeOf(ALG_ID algId) {
    return aesKeyTypeForBits(aesKeyBits(algId));
}

} // namespace veltra
