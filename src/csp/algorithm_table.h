#pragma once

#include "foundation/windows.h"

#include <span>

namespace veltra {

/// One algorithm that the provider reports; lengths in bits.
struct ReportedAlgorithm {
    ALG_ID algId;
    DWORD minLength;
    DWORD maxLength;
    DWORD defaultLength;
    DWORD protocols; ///< CRYPT_FLAG_* bits
    const char* shortName;
    const char* longName;
};

/// The algorithms of a FIPS 140-2 token, or those of every other token and of none.
std::span<const ReportedAlgorithm> reportedAlgorithms(bool fips1402);

} // namespace veltra
