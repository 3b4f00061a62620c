// A small stand-in for the system's ncrypt.dll, for test programs that are written as applications are: those
// NCrypt* functions that they call, by their documented contracts. It finds the provider's DLL beside the
// program instead of in the system's configuration, gets its function table, and forwards each call with the
// handles that the provider made. Like the system, it keeps a provider open until its last key, secret and
// buffer is freed, and refuses handles that it did not give out.

#include "foundation/win_handle.h"
#include "ksp/key_storage_interface.h"

#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace {

using veltra::UniqueModule;
using Functions = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;

constexpr std::wstring_view kProviderName = L"Veltra Cryptographic Provider CSP";

/// An open provider, shared by its handle and the keys that were made with it.
struct Provider {
    UniqueModule module;
    Functions* functions = nullptr;
    NCRYPT_PROV_HANDLE inner = 0;

    Provider() = default;
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;
    ~Provider() {
        if (inner != 0) functions->FreeProvider(inner);
    }
};

enum class Kind { Provider, Key, Secret };

/// What a handle that was given out stands for. It is the provider's own.
struct Object {
    std::shared_ptr<Provider> provider;
    Kind kind = Kind::Provider;
};

std::mutex mutex;
std::map<NCRYPT_HANDLE, Object> objects;
std::map<void*, std::shared_ptr<Provider>> givenBuffers; // which provider has to free them

/// Null unless the handle is live and of this kind.
std::shared_ptr<Provider> providerOf(NCRYPT_HANDLE handle, Kind kind) {
    const std::lock_guard lock(mutex);
    const auto found = objects.find(handle);
    return found != objects.end() && found->second.kind == kind ? found->second.provider : nullptr;
}

SECURITY_STATUS loadProvider(Provider& provider, LPCWSTR name, DWORD flags) {
    provider.module.reset(LoadLibraryW(L"VeltraCSP.dll"));
    if (!provider.module) return NTE_PROV_DLL_NOT_FOUND;
    const auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(provider.module.get(), "GetKeyStorageInterface")));
    if (getInterface == nullptr) return NTE_PROVIDER_DLL_FAIL;
    const SECURITY_STATUS status = getInterface(name, &provider.functions, flags);
    if (status != ERROR_SUCCESS) return status;
    if (provider.functions->Version.MajorVersion != 1) return NTE_PROVIDER_DLL_FAIL;
    return provider.functions->OpenProvider(&provider.inner, name, flags);
}

/// Forwards what takes a provider and a key, or a secret.
template <auto Function, Kind Handle = Kind::Key, class... Arguments>
SECURITY_STATUS withKey(NCRYPT_HANDLE handle, Arguments... arguments) {
    const auto provider = providerOf(handle, Handle);
    if (provider == nullptr) return NTE_INVALID_HANDLE;
    return (provider->functions->*Function)(provider->inner, handle, arguments...);
}

/// Forwards what takes a provider.
template <auto Function, class... Arguments>
SECURITY_STATUS withProvider(NCRYPT_HANDLE handle, Arguments... arguments) {
    const auto provider = providerOf(handle, Kind::Provider);
    if (provider == nullptr) return NTE_INVALID_HANDLE;
    return (provider->functions->*Function)(provider->inner, arguments...);
}

/// Remembers the object that a call with `parent` made.
SECURITY_STATUS give(SECURITY_STATUS status, NCRYPT_HANDLE parent, const NCRYPT_HANDLE* made, Kind kind) {
    if (status != ERROR_SUCCESS) return status;
    const std::lock_guard lock(mutex);
    objects[*made] = {.provider = objects[parent].provider, .kind = kind};
    return status;
}

} // namespace

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                 DWORD dwFlags) {
    if (phProvider == nullptr || pszProviderName == nullptr || pszProviderName != kProviderName) {
        return NTE_INVALID_PARAMETER;
    }
    auto provider = std::make_shared<Provider>();
    const SECURITY_STATUS status = loadProvider(*provider, pszProviderName, dwFlags);
    if (status != ERROR_SUCCESS) return status;
    const std::lock_guard lock(mutex);
    *phProvider = provider->inner;
    objects[*phProvider] = {.provider = std::move(provider)};
    return status;
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                     LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags) {
    return give(withProvider<&Functions::OpenKey>(hProvider, phKey, pszKeyName, dwLegacyKeySpec, dwFlags),
                hProvider, phKey, Kind::Key);
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags) {
    return give(withProvider<&Functions::CreatePersistedKey>(hProvider, phKey, pszAlgId, pszKeyName,
                                                             dwLegacyKeySpec, dwFlags),
                hProvider, phKey, Kind::Key);
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                       NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) {
    return give(withProvider<&Functions::ImportKey>(hProvider, hImportKey, pszBlobType, pParameterList, phKey,
                                                    pbData, cbData, dwFlags),
                hProvider, phKey, Kind::Key);
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return withKey<&Functions::FinalizeKey>(hKey, dwFlags);
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    if (providerOf(hObject, Kind::Provider) != nullptr) {
        return withProvider<&Functions::GetProviderProperty>(hObject, pszProperty, pbOutput, cbOutput,
                                                             pcbResult, dwFlags);
    }
    return withKey<&Functions::GetKeyProperty>(hObject, pszProperty, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags) {
    if (providerOf(hObject, Kind::Provider) != nullptr) {
        return withProvider<&Functions::SetProviderProperty>(hObject, pszProperty, pbInput, cbInput, dwFlags);
    }
    return withKey<&Functions::SetKeyProperty>(hObject, pszProperty, pbInput, cbInput, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                      DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                      DWORD* pcbResult, DWORD dwFlags) {
    return withKey<&Functions::SignHash>(hKey, pPaddingInfo, pbHashValue, cbHashValue, pbSignature,
                                         cbSignature, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                             DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                             DWORD dwFlags) {
    return withKey<&Functions::VerifySignature>(hKey, pPaddingInfo, pbHashValue, cbHashValue, pbSignature,
                                                cbSignature, dwFlags);
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withKey<&Functions::Encrypt>(hKey, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult,
                                        dwFlags);
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withKey<&Functions::Decrypt>(hKey, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult,
                                        dwFlags);
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                       DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withKey<&Functions::ExportKey>(hKey, hExportKey, pszBlobType, pParameterList, pbOutput, cbOutput,
                                          pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                      NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags) {
    const auto provider = providerOf(hProvider, Kind::Provider);
    if (provider == nullptr) return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status =
        provider->functions->EnumKeys(provider->inner, pszScope, ppKeyName, ppEnumState, dwFlags);
    const std::lock_guard lock(mutex);
    if (*ppEnumState != nullptr) givenBuffers[*ppEnumState] = provider;
    if (status == ERROR_SUCCESS) givenBuffers[*ppKeyName] = provider;
    return status;
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput) {
    std::unique_lock lock(mutex);
    const auto node = givenBuffers.extract(pvInput);
    lock.unlock();
    return node.empty() ? NTE_INVALID_PARAMETER : node.mapped()->functions->FreeBuffer(pvInput);
}

SECURITY_STATUS WINAPI NCryptSecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                             NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags) {
    return give(withKey<&Functions::SecretAgreement>(hPrivKey, hPubKey, phAgreedSecret, dwFlags), hPrivKey,
                phAgreedSecret, Kind::Secret);
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                       NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                       DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags) {
    return withKey<&Functions::DeriveKey, Kind::Secret>(hSharedSecret, pwszKDF, pParameterList, pbDerivedKey,
                                                        cbDerivedKey, pcbResult, dwFlags);
}

// Frees the handle too when it succeeds.
SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    const SECURITY_STATUS status = withKey<&Functions::DeleteKey>(hKey, dwFlags);
    return status == ERROR_SUCCESS ? NCryptFreeObject(hKey) : status;
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE hObject) {
    std::unique_lock lock(mutex);
    const auto node = objects.extract(hObject);
    lock.unlock();
    if (node.empty()) return NTE_INVALID_HANDLE;
    const auto& [provider, kind] = node.mapped();
    // A provider goes with the last object that was made with it.
    if (kind == Kind::Provider) return ERROR_SUCCESS;
    const auto free = kind == Kind::Key ? provider->functions->FreeKey : provider->functions->FreeSecret;
    return free(provider->inner, hObject);
}
