// GetKeyStorageInterface.

#include "ksp/entry_guard.h"
#include "ksp/key_storage_interface.h"

namespace {

constinit NCRYPT_KEY_STORAGE_FUNCTION_TABLE functionTable = {
    {1, 0},
    KSPOpenProvider,
    KSPOpenKey,
    KSPCreatePersistedKey,
    KSPGetProviderProperty,
    KSPGetKeyProperty,
    KSPSetProviderProperty,
    KSPSetKeyProperty,
    KSPFinalizeKey,
    KSPDeleteKey,
    KSPFreeProvider,
    KSPFreeKey,
    KSPFreeBuffer,
    KSPEncrypt,
    KSPDecrypt,
    KSPIsAlgSupported,
    KSPEnumAlgorithms,
    KSPEnumKeys,
    KSPImportKey,
    KSPExportKey,
    KSPSignHash,
    KSPVerifySignature,
    KSPPromptUser,
    KSPNotifyChangeKey,
    KSPSecretAgreement,
    KSPDeriveKey,
    KSPFreeSecret,
};

} // namespace

SECURITY_STATUS WINAPI GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                              DWORD) {
    return veltra::kspEntry("GetKeyStorageInterface", [&] {
        if (ppFunctionTable == nullptr) {
            return veltra::refuse(NTE_INVALID_PARAMETER, "GetKeyStorageInterface: ppFunctionTable is null");
        }
        *ppFunctionTable = &functionTable;
        return veltra::kSuccess;
    });
}
