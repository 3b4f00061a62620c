#pragma once

#include "foundation/device_library_contract.h"

#include <cstdint>
#include <vector>

namespace veltra {

/// The cursor that KSPEnumKeys hands out; released, like a caller's block, by KSPFreeBuffer.
struct KSP_ENUM_STATE {
    std::uint32_t next = 0;              ///< index of the next key
    std::vector<VeltraKeyPair> keyPairs; ///< the token's list at the first call
};

} // namespace veltra
