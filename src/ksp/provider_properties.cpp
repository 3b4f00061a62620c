// KSPGetProviderProperty and KSPSetProviderProperty.

#include "foundation/provider_name.h"
#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/property_value.h"
#include "ksp/settable_properties.h"

namespace veltra {

namespace {

// The version and the longest name are the same number: deliberate.
constexpr DWORD kVersion = 0x100;
constexpr DWORD kMaxNameLength = 256;

SECURITY_STATUS getProviderProperty(const std::string& name, const PropertyOutput& out) {
    if (name == "Name") return answerText(out, kProviderName);
    if (name == "Impl Type") return answerDword(out, kImplHardwareFlag | kImplRemovableFlag);
    if (name == "Version") return answerDword(out, kVersion);
    if (name == "Algorithm Name") return answerText(out, "RSA");
    if (name == "Max Name Length") return answerDword(out, kMaxNameLength);
    if (name == "Security Descr Support") return answerDword(out, 0);
    if (name == "Use Count") {
        return refuse(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported");
    }
    return refuse(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: unsupported property");
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD) {
    return kspEntry("KSPGetProviderProperty", [&] {
        if (liveProvider(hProvider) == nullptr) return refuseProvider("KSPGetProviderProperty");
        if (pszProperty == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPGetProviderProperty: pszProperty or pcbResult is null");
        }
        return getProviderProperty(fromWide(pszProperty),
                                   {.data = pbOutput, .capacity = cbOutput, .size = pcbResult});
    });
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                              PBYTE pbInput, DWORD cbInput, DWORD) {
    return kspEntry("KSPSetProviderProperty", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPSetProviderProperty");
        if (pszProperty == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPSetProviderProperty: pszProperty is null");
        }
        const std::string name = fromWide(pszProperty);
        if (name == kWindowHandleProperty) return setParentWindow(*provider, pbInput, cbInput);
        if (name == kPinProperty) return setPin(*provider, "KSPSetProviderProperty", pbInput);
        return refuse(NTE_NOT_SUPPORTED, "KSPSetProviderProperty: unsupported property");
    });
}
