#include "support/ksp_test.h"

#include "foundation/text.h"
#include "foundation/wide_text.h"
#include "ksp/firmware_version.h"
#include "ksp/ksp_provider.h"
#include "token/device_state.h"

#include <span>

namespace veltra::test {
namespace {

class KspProviderTest : public KspTest {
protected:
    StatusAnswer open(NCRYPT_PROV_HANDLE* handle) {
        library.clearCalls();
        return call(KSPOpenProvider, handle, nullptr, MAXDWORD);
    }
    const std::string kInit = "veltra_init(mode=0, kind=2)";
    const std::string kList = "veltra_getConnectedDeviceList(refresh=0)";
};

TEST_F(KspProviderTest, OpeningBindsToTheFirstTokenAndInitialisesWhatIsNotYet) {
    const std::string second = freshName("Token"), third = freshName("Token");
    library.addToken(second);
    library.addToken(third);
    token.info.firmwareVersion = "2.1.7";
    library.script("veltra_initDevice", {.result = 17, .onCall = 1});
    const std::string info = "veltra_getTokenInfo(serial=" + serial + ")";
    const auto initialise = [](const std::string& of) {
        return "veltra_initDevice(serial=" + of + ", reread=0)";
    };
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(open(&handle), failed(0, {"KSP: Init device failed for " + second + " : 17"}));
    EXPECT_THAT(library.calls(),
                ElementsAre(kInit, kList, info, kInit, initialise(second), kInit, initialise(third)))
        << "the first token was initialised by the fixture's provider";
    ASSERT_NE(liveProvider(handle), nullptr);
    EXPECT_EQ(liveProvider(handle)->serial(), serial);
    EXPECT_EQ(liveProvider(handle)->firmwareVersion, "2.1.7");
    EXPECT_EQ(KSPFreeProvider(handle), 0);
}

TEST_F(KspProviderTest, ProviderOpenedWithoutATokenIsUnboundUntilAKeyIsOpened) {
    token.addKeyPair(0x11);
    library.setConnected(serial, false);
    NCRYPT_PROV_HANDLE handle = 0;
    NCRYPT_KEY_HANDLE key = 0;
    const auto openKey = [&] {
        return call(KSPOpenKey, handle, &key, L"11111111111111111111111111111111", 0, 0);
    };
    ASSERT_EQ(open(&handle), succeeded());
    EXPECT_THAT(library.calls(), ElementsAre(kInit, kList));
    EXPECT_EQ(openKey(), failed(NTE_NO_KEY, {"KSP: No keys found on token"}));
    library.setConnected(serial, true);
    EXPECT_EQ(liveProvider(handle)->serial(), "");
    EXPECT_EQ(openKey(), succeeded());
    EXPECT_EQ(liveProvider(handle)->serial(), serial);
    KSPFreeKey(handle, key);
    EXPECT_EQ(KSPFreeProvider(handle), 0);
}

// What keys can still use is left out: AES, and the agreement of keys.
TEST_F(KspProviderTest, SupportedAlgorithmsAreListedInOneBlock) {
    const std::vector<std::string> kAll = {"RSA 3 20 0",        "ECDSA_P256 5 16 0", "ECDSA_P384 5 16 0",
                                           "ECDSA_P521 5 16 0", "SHA1 2 2 0",        "SHA224 2 2 0",
                                           "SHA256 2 2 0",      "SHA384 2 2 0",      "SHA512 2 2 0"};
    // Cipher, hash, asymmetric encryption, secret agreement, signature, both of RSA's, hash and signature.
    for (const auto& [operations, first, count] : {std::tuple{0u, 0, 9},
                                                   {1, 0, 0},
                                                   {2, 4, 5},
                                                   {4, 0, 1},
                                                   {8, 0, 0},
                                                   {0x10, 0, 4},
                                                   {0x14, 0, 4},
                                                   {0x12, 0, 9}}) {
        SCOPED_TRACE(operations);
        DWORD length = 77;
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(call(KSPEnumAlgorithms, provider, operations, &length, &list, MAXDWORD), succeeded());
        ASSERT_NE(list, nullptr);
        std::vector<std::string> listed;
        for (const NCryptAlgorithmName& entry : std::span(list, length)) {
            listed.push_back(concat(fromWide(entry.pszName), " ", entry.dwClass, " ", entry.dwAlgOperations,
                                    " ", entry.dwFlags));
            EXPECT_EQ(call(KSPIsAlgSupported, 0, entry.pszName, MAXDWORD), succeeded());
        }
        EXPECT_EQ(listed, std::vector(kAll.begin() + first, kAll.begin() + first + count));
        // What was freed, or is no block of the provider's, is left alone.
        for (void* const buffer : {static_cast<void*>(list), static_cast<void*>(list),
                                   static_cast<void*>(&size), reinterpret_cast<void*>(provider)})
            EXPECT_EQ(call(KSPFreeBuffer, buffer), succeeded());
        EXPECT_EQ(LiveRecords<void>::find(reinterpret_cast<std::uintptr_t>(list)), nullptr);
    }
    EXPECT_NE(liveProvider(provider), nullptr);
    for (const LPCWSTR name : {L"AES", L"ECDH_P256", L"rsa", L"RSA ", L""})
        EXPECT_EQ(call(KSPIsAlgSupported, 0, name, MAXDWORD),
                  failed(NTE_NOT_SUPPORTED, {"KSPIsAlgSupported: algorithm not supported"}));
}

TEST(FirmwareVersionTest, PartsAreComparedAsNumbers) {
    for (const char* newer : {"2.0.0", "2", "2.0.1", "10.0.0", "2x.0.0", "18446744073709551617.0.0"})
        EXPECT_TRUE(isFirmware2OrNewer(newer)) << newer;
    for (const char* older : {"", "1.10.0", "v2.0.0", ".2", "-2.0.0", "1.99999999999999999999999"})
        EXPECT_FALSE(isFirmware2OrNewer(older)) << older;
}

} // namespace
} // namespace veltra::test
