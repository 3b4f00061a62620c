#pragma once

// What the platform's ncrypt_provider.h declares and this toolchain does not have: the function table of a
// key storage provider. Whoever calls the provider as the system's router does needs this header only.

#include "ksp/ksp_entry_points.h"

#include <cstddef>

/// BCRYPT_INTERFACE_VERSION, which not every version of the platform's headers has.
struct KeyStorageInterfaceVersion {
    USHORT MajorVersion;
    USHORT MinorVersion;
};

struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE {
    KeyStorageInterfaceVersion Version;
    decltype(&KSPOpenProvider) OpenProvider;
    decltype(&KSPOpenKey) OpenKey;
    decltype(&KSPCreatePersistedKey) CreatePersistedKey;
    decltype(&KSPGetProviderProperty) GetProviderProperty;
    decltype(&KSPGetKeyProperty) GetKeyProperty;
    decltype(&KSPSetProviderProperty) SetProviderProperty;
    decltype(&KSPSetKeyProperty) SetKeyProperty;
    decltype(&KSPFinalizeKey) FinalizeKey;
    decltype(&KSPDeleteKey) DeleteKey;
    decltype(&KSPFreeProvider) FreeProvider;
    decltype(&KSPFreeKey) FreeKey;
    decltype(&KSPFreeBuffer) FreeBuffer;
    decltype(&KSPEncrypt) Encrypt;
    decltype(&KSPDecrypt) Decrypt;
    decltype(&KSPIsAlgSupported) IsAlgSupported;
    decltype(&KSPEnumAlgorithms) EnumAlgorithms;
    decltype(&KSPEnumKeys) EnumKeys;
    decltype(&KSPImportKey) ImportKey;
    decltype(&KSPExportKey) ExportKey;
    decltype(&KSPSignHash) SignHash;
    decltype(&KSPVerifySignature) VerifySignature;
    decltype(&KSPPromptUser) PromptUser;
    decltype(&KSPNotifyChangeKey) NotifyChangeKey;
    decltype(&KSPSecretAgreement) SecretAgreement;
    decltype(&KSPDeriveKey) DeriveKey;
    decltype(&KSPFreeSecret) FreeSecret;
};

// The version takes one pointer's room, and the 26 functions follow without gaps, in this order.
static_assert([] {
    using Table = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;
    const auto fillTheTable = [](auto... offsets) {
        std::size_t expected = 0;
        return ((offsets == (expected += sizeof(void*))) && ...) && sizeof(Table) == expected + sizeof(void*);
    };
    return fillTheTable(
        offsetof(Table, OpenProvider), offsetof(Table, OpenKey), offsetof(Table, CreatePersistedKey),
        offsetof(Table, GetProviderProperty), offsetof(Table, GetKeyProperty),
        offsetof(Table, SetProviderProperty), offsetof(Table, SetKeyProperty), offsetof(Table, FinalizeKey),
        offsetof(Table, DeleteKey), offsetof(Table, FreeProvider), offsetof(Table, FreeKey),
        offsetof(Table, FreeBuffer), offsetof(Table, Encrypt), offsetof(Table, Decrypt),
        offsetof(Table, IsAlgSupported), offsetof(Table, EnumAlgorithms), offsetof(Table, EnumKeys),
        offsetof(Table, ImportKey), offsetof(Table, ExportKey), offsetof(Table, SignHash),
        offsetof(Table, VerifySignature), offsetof(Table, PromptUser), offsetof(Table, NotifyChangeKey),
        offsetof(Table, SecretAgreement), offsetof(Table, DeriveKey), offsetof(Table, FreeSecret));
}());

extern "C" {

/// Hands out the function table, which lives as long as the module. The name and the flags are not looked at.
SECURITY_STATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                              NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                              DWORD dwFlags);

} // extern "C"
