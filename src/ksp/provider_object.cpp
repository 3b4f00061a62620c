// KSPOpenProvider, KSPFreeProvider, KSPPromptUser, KSPNotifyChangeKey and KSPFreeBuffer.

#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "token/device_monitor.h"
#include "token/token_session.h"

#include <new>

namespace veltra {

namespace {

// A token that refuses its initialisation does not fail the open.
void bindToFirstToken(KSP_PROVIDER& provider, const std::vector<std::string>& serials) {
    provider.bindTo(serials.front());
    provider.firmwareVersion = readTokenInfo(serials.front(), provider.libraryContext).firmwareVersion;
    Utils::debug("KSP: Provider firmware=", provider.firmwareVersion);
    initialiseTokens(serials, provider.libraryContext, "KSP: ");
}

SECURITY_STATUS openProvider(NCRYPT_PROV_HANDLE* phProvider) {
    std::shared_ptr<KSP_PROVIDER> provider(new (std::nothrow) KSP_PROVIDER);
    if (!provider) return refuse(NTE_NO_MEMORY, "KSPOpenProvider: failed to allocate provider");
    initialiseLibrary();
    startDeviceMonitor();
    const std::vector<std::string> serials = connectedSerials(provider->libraryContext);
    // Without a token the provider is unbound, also when one is plugged in later, until KSPOpenKey finds a
    // key on it.
    const bool hasToken = !serials.empty();
    if (hasToken) bindToFirstToken(*provider, serials);
    *phProvider = LiveRecords<KSP_PROVIDER>::add(std::move(provider));
    Utils::debug(hasToken ? "KSP: Provider opened successfully"
                          : "KSP: No token connected, opening provider without device");
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR, DWORD) {
    return kspEntry("KSPOpenProvider", [&] {
        if (phProvider == nullptr)
            return refuse(NTE_INVALID_PARAMETER, "KSPOpenProvider: phProvider is null");
        return openProvider(phProvider);
    });
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) {
    return kspEntry("KSPFreeProvider", [&] {
        if (LiveRecords<KSP_PROVIDER>::take(hProvider) == nullptr) {
            return refuse(NTE_INVALID_HANDLE, "KSPFreeProvider: provider handle is null");
        }
        return kSuccess;
    });
}

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD) {
    return kspEntry("KSPPromptUser", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPPromptUser");
        if (!ensureUserVerified(provider->serial(), provider->libraryContext)) {
            return refuse(NTE_FAIL, "KSPPromptUser: password validation failed");
        }
        return kSuccess;
    });
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE*, DWORD) {
    return kspEntry("KSPNotifyChangeKey",
                    [] { return refuse(NTE_NOT_SUPPORTED, "KSPNotifyChangeKey: not supported"); });
}

// What was not handed out is left alone, and so is a block that was released before.
SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput) {
    return kspEntry("KSPFreeBuffer", [&] {
        LiveRecords<void>::take(reinterpret_cast<std::uintptr_t>(pvInput)).reset();
        return kSuccess;
    });
}
