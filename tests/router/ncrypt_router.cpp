// A small stand-in for the system's ncrypt.dll, for test programs that are written as applications are: the
// NCrypt* functions by their documented contracts. It finds the provider's DLL beside the program instead of
// in the system's configuration, gets its function table, and forwards each call with the handles that the
// provider made. Like the system, it keeps a provider open until its last key and secret is freed, and
// refuses handles that it did not give out.

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

/// An open provider, shared by its handle and everything that was made with it.
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

/// What a handle of the router stands for; `inner` is the provider's own handle.
struct Object {
    Kind kind;
    std::shared_ptr<Provider> provider;
    ULONG_PTR inner;
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

/// Null unless the handle is live and of this kind.
std::shared_ptr<Object> find(NCRYPT_HANDLE handle, Kind kind) {
    const std::lock_guard lock(mutex);
    const auto found = objects.find(handle);
    if (found == objects.end() || found->second.kind != kind) return nullptr;
    return std::make_shared<Object>(found->second);
}

void rememberBuffer(void* buffer, const std::shared_ptr<Provider>& provider) {
    const std::lock_guard lock(mutex);
    givenBuffers[buffer] = provider;
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

/// Runs `make`, which is given the place for the provider's handle, and gives out a handle of the router for
/// it.
template <class Make>
SECURITY_STATUS makeObject(Kind kind, const std::shared_ptr<Provider>& provider, ULONG_PTR* handle,
                           const Make& make) {
    if (handle == nullptr) return make(static_cast<ULONG_PTR*>(nullptr));
    ULONG_PTR inner = 0;
    const SECURITY_STATUS status = make(&inner);
    if (status == ERROR_SUCCESS) *handle = addObject({kind, provider, inner});
    return status;
}

/// Runs `call(functions, provider handle, inner handle)` for a live handle of this kind.
template <class Call>
SECURITY_STATUS forward(NCRYPT_HANDLE handle, Kind kind, const Call& call) {
    const auto object = find(handle, kind);
    if (object == nullptr) return NTE_INVALID_HANDLE;
    return call(*object->provider->functions, object->provider->inner, object->inner);
}

/// The provider's handle of a key that may be absent.
bool innerKey(NCRYPT_KEY_HANDLE handle, NCRYPT_KEY_HANDLE& inner) {
    inner = 0;
    if (handle == 0) return true;
    const auto key = find(handle, Kind::Key);
    if (key != nullptr) inner = key->inner;
    return key != nullptr;
}

} // namespace

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                 DWORD dwFlags) {
    if (phProvider == nullptr || pszProviderName == nullptr || pszProviderName != kProviderName) {
        return NTE_INVALID_PARAMETER;
    }
    auto provider = std::make_shared<Provider>();
    const SECURITY_STATUS status = loadProvider(*provider, pszProviderName, dwFlags);
    if (status == ERROR_SUCCESS) *phProvider = addObject({Kind::Provider, provider, provider->inner});
    return status;
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                     LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags) {
    const auto object = find(hProvider, Kind::Provider);
    if (object == nullptr) return NTE_INVALID_HANDLE;
    return makeObject(Kind::Key, object->provider, phKey, [&](ULONG_PTR* key) {
        return object->provider->functions->OpenKey(object->inner, key, pszKeyName, dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags) {
    const auto object = find(hProvider, Kind::Provider);
    if (object == nullptr) return NTE_INVALID_HANDLE;
    return makeObject(Kind::Key, object->provider, phKey, [&](ULONG_PTR* key) {
        return object->provider->functions->CreatePersistedKey(object->inner, key, pszAlgId, pszKeyName,
                                                               dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.FinalizeKey(provider, key, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    if (find(hObject, Kind::Provider) != nullptr) {
        return forward(hObject, Kind::Provider,
                       [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR) {
                           return functions.GetProviderProperty(provider, pszProperty, pbOutput, cbOutput,
                                                                pcbResult, dwFlags);
                       });
    }
    return forward(hObject, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.GetKeyProperty(provider, key, pszProperty, pbOutput, cbOutput, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags) {
    if (find(hObject, Kind::Provider) != nullptr) {
        return forward(
            hObject, Kind::Provider, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR) {
                return functions.SetProviderProperty(provider, pszProperty, pbInput, cbInput, dwFlags);
            });
    }
    return forward(hObject, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.SetKeyProperty(provider, key, pszProperty, pbInput, cbInput, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                      DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                      DWORD* pcbResult, DWORD dwFlags) {
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.SignHash(provider, key, pPaddingInfo, pbHashValue, cbHashValue, pbSignature,
                                  cbSignature, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                             DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                             DWORD dwFlags) {
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.VerifySignature(provider, key, pPaddingInfo, pbHashValue, cbHashValue, pbSignature,
                                         cbSignature, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.Encrypt(provider, key, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult,
                                 dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.Decrypt(provider, key, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult,
                                 dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                       NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) {
    const auto object = find(hProvider, Kind::Provider);
    NCRYPT_KEY_HANDLE importKey = 0;
    if (object == nullptr || !innerKey(hImportKey, importKey)) return NTE_INVALID_HANDLE;
    return makeObject(Kind::Key, object->provider, phKey, [&](ULONG_PTR* key) {
        return object->provider->functions->ImportKey(object->inner, importKey, pszBlobType, pParameterList,
                                                      key, pbData, cbData, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                       LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                       DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    NCRYPT_KEY_HANDLE exportKey = 0;
    if (!innerKey(hExportKey, exportKey)) return NTE_INVALID_HANDLE;
    return forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
        return functions.ExportKey(provider, key, exportKey, pszBlobType, pParameterList, pbOutput, cbOutput,
                                   pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope,
                                      NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags) {
    const auto object = find(hProvider, Kind::Provider);
    if (object == nullptr) return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status =
        object->provider->functions->EnumKeys(object->inner, pszScope, ppKeyName, ppEnumState, dwFlags);
    if (ppEnumState != nullptr && *ppEnumState != nullptr) rememberBuffer(*ppEnumState, object->provider);
    if (status == ERROR_SUCCESS) rememberBuffer(*ppKeyName, object->provider);
    return status;
}

SECURITY_STATUS WINAPI NCryptEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                            DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
                                            DWORD dwFlags) {
    const auto object = find(hProvider, Kind::Provider);
    if (object == nullptr) return NTE_INVALID_HANDLE;
    const SECURITY_STATUS status = object->provider->functions->EnumAlgorithms(
        object->inner, dwAlgOperations, pdwAlgCount, ppAlgList, dwFlags);
    if (status == ERROR_SUCCESS) rememberBuffer(*ppAlgList, object->provider);
    return status;
}

SECURITY_STATUS WINAPI NCryptIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags) {
    return forward(hProvider, Kind::Provider, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR) {
        return functions.IsAlgSupported(provider, pszAlgId, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptSecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                             NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags) {
    const auto own = find(hPrivKey, Kind::Key);
    const auto peer = find(hPubKey, Kind::Key);
    if (own == nullptr || peer == nullptr) return NTE_INVALID_HANDLE;
    // The documentation asks for keys of the same provider.
    if (own->provider != peer->provider) return NTE_INVALID_PARAMETER;
    return makeObject(Kind::Secret, own->provider, phAgreedSecret, [&](ULONG_PTR* secret) {
        return own->provider->functions->SecretAgreement(own->provider->inner, own->inner, peer->inner,
                                                         secret, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                       NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                       DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags) {
    return forward(hSharedSecret, Kind::Secret,
                   [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR secret) {
                       return functions.DeriveKey(provider, secret, pwszKDF, pParameterList, pbDerivedKey,
                                                  cbDerivedKey, pcbResult, dwFlags);
                   });
}

// Frees the handle too when it succeeds.
SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    const SECURITY_STATUS status =
        forward(hKey, Kind::Key, [&](const Functions& functions, ULONG_PTR provider, ULONG_PTR key) {
            return functions.DeleteKey(provider, key, dwFlags);
        });
    return status == ERROR_SUCCESS ? NCryptFreeObject(hKey) : status;
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE hObject) {
    std::unique_lock lock(mutex);
    const auto found = objects.find(hObject);
    if (found == objects.end()) return NTE_INVALID_HANDLE;
    const Object object = std::move(found->second);
    objects.erase(found);
    lock.unlock();
    const Functions& functions = *object.provider->functions;
    if (object.kind == Kind::Key) return functions.FreeKey(object.provider->inner, object.inner);
    if (object.kind == Kind::Secret) return functions.FreeSecret(object.provider->inner, object.inner);
    return ERROR_SUCCESS; // the provider goes with the last object that was made with it
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput) {
    std::unique_lock lock(mutex);
    const auto found = givenBuffers.find(pvInput);
    if (found == givenBuffers.end()) return NTE_INVALID_PARAMETER;
    const std::shared_ptr<Provider> provider = found->second;
    givenBuffers.erase(found);
    lock.unlock();
    return provider->functions->FreeBuffer(pvInput);
}
