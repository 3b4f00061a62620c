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

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* provider, LPCWSTR name, DWORD flags) {
    if (provider == nullptr || name == nullptr || name != kProviderName) return NTE_INVALID_PARAMETER;
    SECURITY_STATUS status = loadProvider(name, flags);
    if (status == ERROR_SUCCESS) status = functions->OpenProvider(provider, name, flags);
    if (status == ERROR_SUCCESS) objects[*provider] = {.kind = Kind::Provider, .provider = *provider};
    return status;
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR name,
                                     DWORD keySpec, DWORD flags) {
    return give(withProvider<&Functions::OpenKey>(provider, key, name, keySpec, flags), provider, key,
                Kind::Key);
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key,
                                                LPCWSTR algorithm, LPCWSTR name, DWORD keySpec, DWORD flags) {
    return give(withProvider<&Functions::CreatePersistedKey>(provider, key, algorithm, name, keySpec, flags),
                provider, key, Kind::Key);
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey, LPCWSTR type,
                                       NCryptBufferDesc* parameters, NCRYPT_KEY_HANDLE* key, PBYTE data,
                                       DWORD length, DWORD flags) {
    return give(
        withProvider<&Functions::ImportKey>(provider, importKey, type, parameters, key, data, length, flags),
        provider, key, Kind::Key);
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE key, DWORD flags) {
    return withKey<&Functions::FinalizeKey>(key, flags);
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE handle, LPCWSTR property, PBYTE output, DWORD capacity,
                                         DWORD* length, DWORD flags) {
    return objectOf(handle).kind == Kind::Provider
               ? withProvider<&Functions::GetProviderProperty>(handle, property, output, capacity, length,
                                                               flags)
               : withKey<&Functions::GetKeyProperty>(handle, property, output, capacity, length, flags);
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE handle, LPCWSTR property, PBYTE input,
                                         DWORD inputLength, DWORD flags) {
    return objectOf(handle).kind == Kind::Provider
               ? withProvider<&Functions::SetProviderProperty>(handle, property, input, inputLength, flags)
               : withKey<&Functions::SetKeyProperty>(handle, property, input, inputLength, flags);
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash, DWORD hashLength,
                                      PBYTE signature, DWORD signatureLength, DWORD* length, DWORD flags) {
    return withKey<&Functions::SignHash>(key, padding, hash, hashLength, signature, signatureLength, length,
                                         flags);
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                                             DWORD hashLength, PBYTE signature, DWORD signatureLength,
                                             DWORD flags) {
    return withKey<&Functions::VerifySignature>(key, padding, hash, hashLength, signature, signatureLength,
                                                flags);
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputLength, VOID* padding,
                                     PBYTE output, DWORD capacity, DWORD* length, DWORD flags) {
    return withKey<&Functions::Encrypt>(key, input, inputLength, padding, output, capacity, length, flags);
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputLength, VOID* padding,
                                     PBYTE output, DWORD capacity, DWORD* length, DWORD flags) {
    return withKey<&Functions::Decrypt>(key, input, inputLength, padding, output, capacity, length, flags);
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey, LPCWSTR type,
                                       NCryptBufferDesc* parameters, PBYTE output, DWORD capacity,
                                       DWORD* length, DWORD flags) {
    return withKey<&Functions::ExportKey>(key, exportKey, type, parameters, output, capacity, length, flags);
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE provider, LPCWSTR scope, NCryptKeyName** name,
                                      PVOID* cursor, DWORD flags) {
    return withProvider<&Functions::EnumKeys>(provider, scope, name, cursor, flags);
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID buffer) {
    return functions == nullptr ? NTE_INVALID_PARAMETER : functions->FreeBuffer(buffer);
}

SECURITY_STATUS WINAPI NCryptSecretAgreement(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer,
                                             NCRYPT_SECRET_HANDLE* secret, DWORD flags) {
    return give(withKey<&Functions::SecretAgreement>(key, peer, secret, flags), key, secret, Kind::Secret);
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE secret, LPCWSTR function,
                                       NCryptBufferDesc* parameters, PBYTE output, DWORD capacity,
                                       DWORD* length, ULONG flags) {
    return withKey<&Functions::DeriveKey, Kind::Secret>(secret, function, parameters, output, capacity,
                                                        length, flags);
}

// Frees the handle too when it succeeds.
SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE key, DWORD flags) {
    const SECURITY_STATUS status = withKey<&Functions::DeleteKey>(key, flags);
    return status == ERROR_SUCCESS ? NCryptFreeObject(key) : status;
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE handle) {
    const Object object = objectOf(handle);
    objects.erase(handle);
    if (object.kind == Kind::Provider) return functions->FreeProvider(handle);
    if (object.kind == Kind::Key) return functions->FreeKey(object.provider, handle);
    if (object.kind == Kind::Secret) return functions->FreeSecret(object.provider, handle);
    return NTE_INVALID_HANDLE;
}
