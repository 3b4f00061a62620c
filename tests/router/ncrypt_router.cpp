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

/// What a handle of the router stands for: a provider, or the provider's own handle of a key or a secret.
struct Object {
    std::shared_ptr<Provider> provider;
    NCRYPT_KEY_HANDLE key = 0;
    NCRYPT_SECRET_HANDLE secret = 0;
};

std::mutex mutex;
std::map<NCRYPT_HANDLE, Object> objects;                 // by the router's handles
std::map<void*, std::shared_ptr<Provider>> givenBuffers; // which provider has to free them
NCRYPT_HANDLE lastHandle = 0;

NCRYPT_HANDLE addObject(Object object) {
    const std::lock_guard lock(mutex);
    lastHandle += 0x10;
    objects.emplace(lastHandle, std::move(object));
    return lastHandle;
}

/// Without a provider unless the handle is live and of this kind.
Object find(NCRYPT_HANDLE handle, bool isKey, bool isSecret = false) {
    const std::lock_guard lock(mutex);
    const auto found = objects.find(handle);
    if (found == objects.end()) return {};
    const Object& object = found->second;
    return (object.key != 0) == isKey && (object.secret != 0) == isSecret ? object : Object();
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

/// Forwards what takes a provider and a key.
template <auto Function, class... Arguments>
SECURITY_STATUS withKey(NCRYPT_KEY_HANDLE handle, Arguments... arguments) {
    const Object key = find(handle, true);
    if (key.provider == nullptr) return NTE_INVALID_HANDLE;
    return (key.provider->functions->*Function)(key.provider->inner, key.key, arguments...);
}

/// Forwards what takes a provider, or a key and its provider.
template <auto OfProvider, auto OfKey, class... Arguments>
SECURITY_STATUS withObject(NCRYPT_HANDLE handle, Arguments... arguments) {
    const Object provider = find(handle, false);
    if (provider.provider == nullptr) return withKey<OfKey>(handle, arguments...);
    return (provider.provider->functions->*OfProvider)(provider.provider->inner, arguments...);
}

/// Runs `make(provider, place for the provider's handle)` and gives out a handle of the router for it.
template <class Make>
SECURITY_STATUS makeKey(NCRYPT_PROV_HANDLE handle, NCRYPT_KEY_HANDLE* key, const Make& make) {
    Object made = find(handle, false);
    if (made.provider == nullptr) return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status = make(*made.provider, key != nullptr ? &made.key : nullptr);
    if (status == ERROR_SUCCESS && key != nullptr) *key = addObject(std::move(made));
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
    if (status == ERROR_SUCCESS) *phProvider = addObject({.provider = std::move(provider)});
    return status;
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                     LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags) {
    return makeKey(hProvider, phKey, [&](const Provider& provider, NCRYPT_KEY_HANDLE* key) {
        return provider.functions->OpenKey(provider.inner, key, pszKeyName, dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags) {
    return makeKey(hProvider, phKey, [&](const Provider& provider, NCRYPT_KEY_HANDLE* key) {
        return provider.functions->CreatePersistedKey(provider.inner, key, pszAlgId, pszKeyName,
                                                      dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                       NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) {
    const Object importKey = find(hImportKey, true);
    if (hImportKey != 0 && importKey.provider == nullptr) return NTE_INVALID_HANDLE;
    return makeKey(hProvider, phKey, [&](const Provider& provider, NCRYPT_KEY_HANDLE* key) {
        return provider.functions->ImportKey(provider.inner, importKey.key, pszBlobType, pParameterList, key,
                                             pbData, cbData, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return withKey<&Functions::FinalizeKey>(hKey, dwFlags);
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withObject<&Functions::GetProviderProperty, &Functions::GetKeyProperty>(
        hObject, pszProperty, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags) {
    return withObject<&Functions::SetProviderProperty, &Functions::SetKeyProperty>(hObject, pszProperty,
                                                                                   pbInput, cbInput, dwFlags);
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
    const Object exportKey = find(hExportKey, true);
    if (hExportKey != 0 && exportKey.provider == nullptr) return NTE_INVALID_HANDLE;
    return withKey<&Functions::ExportKey>(hKey, exportKey.key, pszBlobType, pParameterList, pbOutput,
                                          cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                      NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags) {
    const Object object = find(hProvider, false);
    if (object.provider == nullptr) return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status = object.provider->functions->EnumKeys(object.provider->inner, pszScope,
                                                                        ppKeyName, ppEnumState, dwFlags);
    const std::lock_guard lock(mutex);
    if (*ppEnumState != nullptr) givenBuffers[*ppEnumState] = object.provider;
    if (status == ERROR_SUCCESS) givenBuffers[*ppKeyName] = object.provider;
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
    const Object own = find(hPrivKey, true);
    const Object peer = find(hPubKey, true);
    if (own.provider == nullptr || peer.provider == nullptr) return NTE_INVALID_HANDLE;
    Object made{.provider = own.provider};
    const SECURITY_STATUS status = own.provider->functions->SecretAgreement(own.provider->inner, own.key,
                                                                            peer.key, &made.secret, dwFlags);
    if (status == ERROR_SUCCESS) *phAgreedSecret = addObject(std::move(made));
    return status;
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                       NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                       DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags) {
    const Object object = find(hSharedSecret, false, true);
    if (object.provider == nullptr) return NTE_INVALID_HANDLE;
    return object.provider->functions->DeriveKey(object.provider->inner, object.secret, pwszKDF,
                                                 pParameterList, pbDerivedKey, cbDerivedKey, pcbResult,
                                                 dwFlags);
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
    const Object& object = node.mapped();
    if (object.secret != 0)
        return object.provider->functions->FreeSecret(object.provider->inner, object.secret);
    // A provider goes with the last object that was made with it.
    if (object.key == 0) return ERROR_SUCCESS;
    return object.provider->functions->FreeKey(object.provider->inner, object.key);
}
