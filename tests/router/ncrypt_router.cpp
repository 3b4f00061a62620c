// A small stand-in for the system's ncrypt.dll, for test programs that are written as applications are: those
// NCrypt* functions that they call, by their documented contracts, for one thread at a time. It finds the
// provider's DLL beside the program instead of in the system's configuration, gets its function table, and
// forwards each call with the handles that the provider made. Like the system it refuses handles that it did
// not give out.

#include "ksp/key_storage_interface.h"

#include <bit>
#include <map>
#include <string_view>

namespace {

using Functions = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;

constexpr std::wstring_view kProviderName = L"Veltra Cryptographic Provider CSP";

enum class Kind { None, Provider, Key, Secret };

/// What a handle that was given out stands for, and the provider's handle. It is the provider's own.
struct Object {
    Kind kind = Kind::None;
    NCRYPT_PROV_HANDLE provider = 0;
};

std::map<NCRYPT_HANDLE, Object> objects;
Functions* functions = nullptr;

Object objectOf(NCRYPT_HANDLE handle) {
    const auto found = objects.find(handle);
    return found == objects.end() ? Object() : found->second;
}

SECURITY_STATUS loadProvider(LPCWSTR name, DWORD flags) {
    const HMODULE module = LoadLibraryW(L"VeltraCSP.dll");
    if (module == nullptr) return NTE_PROV_DLL_NOT_FOUND;
    const auto getInterface =
        std::bit_cast<decltype(&GetKeyStorageInterface)>(GetProcAddress(module, "GetKeyStorageInterface"));
    return getInterface == nullptr ? NTE_PROVIDER_DLL_FAIL : getInterface(name, &functions, flags);
}

/// Forwards what takes a provider and a key, or a secret.
template <auto Function, Kind Handle = Kind::Key, class... Arguments>
SECURITY_STATUS withKey(NCRYPT_HANDLE handle, Arguments... arguments) {
    const Object object = objectOf(handle);
    if (object.kind != Handle) return NTE_INVALID_HANDLE;
    return (functions->*Function)(object.provider, handle, arguments...);
}

/// Forwards what takes a provider.
template <auto Function, class... Arguments>
SECURITY_STATUS withProvider(NCRYPT_HANDLE handle, Arguments... arguments) {
    if (objectOf(handle).kind != Kind::Provider) return NTE_INVALID_HANDLE;
    return (functions->*Function)(handle, arguments...);
}

/// Remembers the object that a call with `parent` made.
SECURITY_STATUS give(SECURITY_STATUS status, NCRYPT_HANDLE parent, const NCRYPT_HANDLE* made, Kind kind) {
    if (status == ERROR_SUCCESS) objects[*made] = {.kind = kind, .provider = objectOf(parent).provider};
    return status;
}

} // namespace

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                 DWORD dwFlags) {
    if (phProvider == nullptr || pszProviderName == nullptr || pszProviderName != kProviderName) {
        return NTE_INVALID_PARAMETER;
    }
    SECURITY_STATUS status = loadProvider(pszProviderName, dwFlags);
    if (status == ERROR_SUCCESS) status = functions->OpenProvider(phProvider, pszProviderName, dwFlags);
    if (status == ERROR_SUCCESS) objects[*phProvider] = {.kind = Kind::Provider, .provider = *phProvider};
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
    if (objectOf(hObject).kind == Kind::Provider) {
        return withProvider<&Functions::GetProviderProperty>(hObject, pszProperty, pbOutput, cbOutput,
                                                             pcbResult, dwFlags);
    }
    return withKey<&Functions::GetKeyProperty>(hObject, pszProperty, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags) {
    if (objectOf(hObject).kind == Kind::Provider) {
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
    return withProvider<&Functions::EnumKeys>(hProvider, pszScope, ppKeyName, ppEnumState, dwFlags);
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput) {
    return functions->FreeBuffer(pvInput);
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
    const Object object = objectOf(hObject);
    objects.erase(hObject);
    switch (object.kind) {
    case Kind::Provider:
        return functions->FreeProvider(hObject);
    case Kind::Key:
        return functions->FreeKey(object.provider, hObject);
    case Kind::Secret:
        return functions->FreeSecret(object.provider, hObject);
    default:
        return NTE_INVALID_HANDLE;
    }
}
