#include "support/ksp_test.h"

#include "ksp/key_storage_interface.h"

#include <array>
#include <bit>
#include <cstring>

namespace veltra::test {
namespace {

using Function = void (*)();

template <class... Functions>
std::array<Function, sizeof...(Functions)> slots(Functions*... functions) {
    return {std::bit_cast<Function>(functions)...};
}

using FunctionTableTest = KspTest;

TEST_F(FunctionTableTest, AnyNameGivesTheOneTableInThePlatformsOrder) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr, *again = nullptr;
    ASSERT_EQ(call([&] { return GetKeyStorageInterface(nullptr, &table, 0xFFFFFFFF); }), succeeded());
    ASSERT_EQ(call([&] { return GetKeyStorageInterface(L"Another", &again, 0); }), succeeded());
    EXPECT_EQ(table, again);
    EXPECT_EQ(table->Version.MajorVersion * 10 + table->Version.MinorVersion, 10);
    std::array<Function, 26> actual{};
    std::memcpy(actual.data(), &table->OpenProvider, sizeof actual);
    // Many of them have the same type, so that the compiler would not notice a wrong place.
    EXPECT_EQ(actual, slots(KSPOpenProvider, KSPOpenKey, KSPCreatePersistedKey, KSPGetProviderProperty,
                            KSPGetKeyProperty, KSPSetProviderProperty, KSPSetKeyProperty, KSPFinalizeKey,
                            KSPDeleteKey, KSPFreeProvider, KSPFreeKey, KSPFreeBuffer, KSPEncrypt, KSPDecrypt,
                            KSPIsAlgSupported, KSPEnumAlgorithms, KSPEnumKeys, KSPImportKey, KSPExportKey,
                            KSPSignHash, KSPVerifySignature, KSPPromptUser, KSPNotifyChangeKey,
                            KSPSecretAgreement, KSPDeriveKey, KSPFreeSecret));
}

} // namespace
} // namespace veltra::test
