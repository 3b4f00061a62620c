// KSPIsAlgSupported and KSPEnumAlgorithms. Keys of algorithms that are not listed here (AES, the ECDH curves)
// can be created and used all the same: deliberate.

#include "ksp/caller_block.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_provider.h"

#include <algorithm>
#include <array>
#include <vector>

namespace veltra {

namespace {

struct Algorithm {
    std::string_view name;
    DWORD interfaceClass;
    DWORD operations;
};

constexpr std::array<Algorithm, 9> kAlgorithms = {{
    {"RSA", BCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE,
     BCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | BCRYPT_SIGNATURE_OPERATION},
    {"ECDSA_P256", BCRYPT_SIGNATURE_INTERFACE, BCRYPT_SIGNATURE_OPERATION},
    {"ECDSA_P384", BCRYPT_SIGNATURE_INTERFACE, BCRYPT_SIGNATURE_OPERATION},
    {"ECDSA_P521", BCRYPT_SIGNATURE_INTERFACE, BCRYPT_SIGNATURE_OPERATION},
    {"SHA1", BCRYPT_HASH_INTERFACE, BCRYPT_HASH_OPERATION},
    {"SHA224", BCRYPT_HASH_INTERFACE, BCRYPT_HASH_OPERATION},
    {"SHA256", BCRYPT_HASH_INTERFACE, BCRYPT_HASH_OPERATION},
    {"SHA384", BCRYPT_HASH_INTERFACE, BCRYPT_HASH_OPERATION},
    {"SHA512", BCRYPT_HASH_INTERFACE, BCRYPT_HASH_OPERATION},
}};

std::vector<Algorithm> algorithmsFor(DWORD operations) {
    std::vector<Algorithm> selected;
    std::ranges::copy_if(kAlgorithms, std::back_inserter(selected), [&](const Algorithm& row) {
        return operations == 0 || (row.operations & operations) != 0;
    });
    return selected;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE, LPCWSTR pszAlgId, DWORD) {
    return kspEntry("KSPIsAlgSupported", [&] {
        if (pszAlgId == nullptr) return refuse(NTE_INVALID_PARAMETER, "KSPIsAlgSupported: pszAlgId is null");
        const std::string name = fromWide(pszAlgId);
        if (std::ranges::none_of(kAlgorithms, [&](const Algorithm& row) { return row.name == name; })) {
            return refuse(NTE_NOT_SUPPORTED, "KSPIsAlgSupported: algorithm not supported");
        }
        return kSuccess;
    });
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                         DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList, DWORD) {
    return kspEntry("KSPEnumAlgorithms", [&] {
        if (liveProvider(hProvider) == nullptr) return refuseProvider("KSPEnumAlgorithms");
        if (pdwAlgCount == nullptr || ppAlgList == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null");
        }
        const std::vector<Algorithm> rows = algorithmsFor(dwAlgOperations);
        std::size_t textBytes = 0;
        for (const Algorithm& row : rows)
            textBytes += wideSize(row.name);
        CallerBlock<NCryptAlgorithmName> block(rows.size(), textBytes);
        if (!block) return refuse(NTE_NO_MEMORY, "KSPEnumAlgorithms: failed to allocate algorithm list");
        for (std::size_t i = 0; i < rows.size(); ++i) {
            block[i] = {.pszName = block.addText(rows[i].name),
                        .dwClass = rows[i].interfaceClass,
                        .dwAlgOperations = rows[i].operations,
                        .dwFlags = 0};
        }
        *ppAlgList = block.handOut();
        *pdwAlgCount = static_cast<DWORD>(rows.size());
        Utils::debug("KSP: Enumerated ", rows.size(), " algorithms");
        return kSuccess;
    });
}
