#include "registration/registration.h"

#include "foundation/cng.h"
#include "foundation/entry_frame.h"
#include "foundation/provider_name.h"
#include "foundation/win_handle.h"

#include <bit>
#include <utility>

namespace veltra {

namespace {

constexpr const WCHAR* kImageName = L"VeltraCSP.dll";
constexpr const WCHAR* kKeyStorageFunction = L"KEY_STORAGE"; // NCRYPT_KEY_STORAGE_ALGORITHM
constexpr ULONG kPriorityBottom = 0xFFFFFFFF;                // CRYPT_PRIORITY_BOTTOM
constexpr const WCHAR* kDefaultContext = nullptr;

/// The configuration functions of bcrypt.dll, which the toolchain's headers do not declare; null where
/// missing.
struct ConfigurationFunctions {
    explicit ConfigurationFunctions(HMODULE bcrypt) {
        bind(registerProvider, bcrypt, "BCryptRegisterProvider");
        bind(unregisterProvider, bcrypt, "BCryptUnregisterProvider");
        bind(addContextFunctionProvider, bcrypt, "BCryptAddContextFunctionProvider");
        bind(removeContextFunctionProvider, bcrypt, "BCryptRemoveContextFunctionProvider");
    }

    NTSTATUS(WINAPI* registerProvider)(LPCWSTR provider, ULONG flags, CRYPT_PROVIDER_REG* record) = nullptr;
    NTSTATUS(WINAPI* unregisterProvider)(LPCWSTR provider) = nullptr;
    NTSTATUS(WINAPI* addContextFunctionProvider)
    (ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider,
     ULONG position) = nullptr;
    NTSTATUS(WINAPI* removeContextFunctionProvider)
    (ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider) = nullptr;

private:
    template <class Function>
    static void bind(Function*& function, HMODULE bcrypt, const char* name) {
        function = std::bit_cast<Function*>(GetProcAddress(bcrypt, name));
    }
};

// Whatever is missing, in bcrypt.dll or in the configuration, need not be removed: the statuses do not count.
void removeEntries(const ConfigurationFunctions& bcrypt) {
    if (bcrypt.removeContextFunctionProvider != nullptr) {
        bcrypt.removeContextFunctionProvider(CRYPT_LOCAL, kDefaultContext, NCRYPT_KEY_STORAGE_INTERFACE,
                                             kKeyStorageFunction, kWideProviderName);
    }
    if (bcrypt.unregisterProvider != nullptr) bcrypt.unregisterProvider(kWideProviderName);
}

NTSTATUS addProvider(const ConfigurationFunctions& bcrypt) {
    // The records declare their texts as not const, but they are only read.
    PWSTR functions[] = {const_cast<PWSTR>(kKeyStorageFunction)};
    CRYPT_INTERFACE_REG keyStorage = {.dwInterface = NCRYPT_KEY_STORAGE_INTERFACE,
                                      .dwFlags = CRYPT_LOCAL,
                                      .cFunctions = 1,
                                      .rgpszFunctions = functions};
    PCRYPT_INTERFACE_REG interfaces[] = {&keyStorage};
    CRYPT_IMAGE_REG image = {
        .pszImage = const_cast<PWSTR>(kImageName), .cInterfaces = 1, .rgpInterfaces = interfaces};
    CRYPT_PROVIDER_REG provider = {.cAliases = 0, .rgpszAliases = nullptr, .pUM = &image, .pKM = nullptr};
    return bcrypt.registerProvider(kWideProviderName, 0, &provider);
}

NTSTATUS addToDefaultContext(const ConfigurationFunctions& bcrypt) {
    return bcrypt.addContextFunctionProvider(CRYPT_LOCAL, kDefaultContext, NCRYPT_KEY_STORAGE_INTERFACE,
                                             kKeyStorageFunction, kWideProviderName, kPriorityBottom);
}

HRESULT refuse(const char* message) {
    Utils::error(message);
    return E_FAIL;
}

// The number behind "0x" is a signed decimal one: deliberate.
HRESULT refuseWith(NTSTATUS status, const char* function) {
    Utils::error(function, " failed: 0x", std::to_string(status));
    return HRESULT_FROM_NT(status);
}

HRESULT registerServer(const ConfigurationFunctions& bcrypt) {
    if (bcrypt.registerProvider == nullptr || bcrypt.unregisterProvider == nullptr ||
        bcrypt.addContextFunctionProvider == nullptr) {
        return refuse("Failed to find BCrypt registration functions");
    }
    removeEntries(bcrypt);
    if (const NTSTATUS status = addProvider(bcrypt); status < 0) {
        return refuseWith(status, "BCryptRegisterProvider");
    }
    if (const NTSTATUS status = addToDefaultContext(bcrypt); status < 0) {
        return refuseWith(status, "BCryptAddContextFunctionProvider");
    }
    return S_OK;
}

/// Frame of both functions: `start` is their first log line.
template <class Body>
HRESULT registrationEntry(const char* name, const char* start, Body&& body) noexcept {
    Utils::debug(start);
    const ExceptionAnswers<HRESULT> answers = {.outOfMemory = E_OUTOFMEMORY, .unexpected = E_UNEXPECTED};
    return runGuarded(name, answers, std::forward<Body>(body));
}

} // namespace

} // namespace veltra

using namespace veltra;

HRESULT WINAPI DllRegisterServer() {
    return registrationEntry("DllRegisterServer", "DllRegisterServer: Registering KSP via CNG API", [] {
        UniqueModule module(LoadLibraryW(L"bcrypt.dll"));
        if (!module) return refuse("Failed to load bcrypt.dll");
        const HRESULT result = registerServer(ConfigurationFunctions(module.get()));
        module.reset();
        if (result == S_OK) Utils::debug("DllRegisterServer: KSP registered successfully");
        return result;
    });
}

HRESULT WINAPI DllUnregisterServer() {
    return registrationEntry("DllUnregisterServer", "DllUnregisterServer: Unregistering KSP via CNG API", [] {
        UniqueModule module(LoadLibraryW(L"bcrypt.dll"));
        if (!module) return refuse("DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll");
        removeEntries(ConfigurationFunctions(module.get()));
        module.reset();
        Utils::debug("DllUnregisterServer: KSP unregistered successfully");
        return S_OK;
    });
}
