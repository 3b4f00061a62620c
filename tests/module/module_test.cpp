// An application over the sanitized VeltraCSP.dll: CryptoAPI through the system, CNG through the function
// table.

#include "support/googletest.h"
#include "support/sanitizer_stack.h"

#include "ksp/key_storage_interface.h"

#include <array>
#include <bit>
#include <cstring>
#include <vector>

namespace veltra::test {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr const char* kProvider = "Veltra sanitized module";
constexpr const char* kRegistryKey =
    R"(SOFTWARE\Microsoft\Cryptography\Defaults\Provider\Veltra sanitized module)";
constexpr const char* kModule = "Z:" MODULE_FILE;
constexpr const char* kContainer = "11111111111111111111111111111111";

/// The system finds the module by a registry entry.
class ModuleTest : public testing::Test {
protected:
    ModuleTest() {
        const DWORD type = PROV_RSA_FULL;
        const Bytes signature(136);
        set("Image Path", REG_SZ, kModule, std::strlen(kModule) + 1);
        set("Type", REG_DWORD, &type, sizeof(type));
        set("Signature", REG_BINARY, signature.data(), signature.size());
    }
    ~ModuleTest() override { RegDeleteTreeA(HKEY_LOCAL_MACHINE, kRegistryKey); }

private:
    static void set(const char* name, DWORD type, const void* data, std::size_t length) {
        EXPECT_EQ(0, RegSetKeyValueA(HKEY_LOCAL_MACHINE, kRegistryKey, name, type, data,
                                     static_cast<DWORD>(length)));
    }
};

// Encrypts and decrypts 20 bytes in the application's buffer.
void expectRoundTrip(HCRYPTKEY key, DWORD flags) {
    Bytes data(256, 'x');
    DWORD length = 20;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, flags, data.data(), &length, 256));
    EXPECT_TRUE(CryptDecrypt(key, 0, TRUE, flags, data.data(), &length));
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 20), Bytes(20, 'x'));
}

void signAndVerify(HCRYPTHASH hash, HCRYPTKEY key) {
    Bytes signature(256);
    DWORD length = 256;
    ASSERT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length));
    EXPECT_TRUE(CryptVerifySignatureA(hash, signature.data(), length, key, nullptr, 0));
    signature[0] ^= 1;
    EXPECT_FALSE(CryptVerifySignatureA(hash, signature.data(), length, key, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE));
}

void useCryptoApi() {
    HCRYPTPROV context = 0;
    ASSERT_TRUE(CryptAcquireContextA(&context, kContainer, kProvider, PROV_RSA_FULL, 0))
        << std::hex << GetLastError();
    EXPECT_TRUE(CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>("1234"), 0));
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(context, AT_SIGNATURE, &key));
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(context, CALG_SHA_256, 0, 0, &hash));
    EXPECT_TRUE(CryptHashData(hash, Bytes(100).data(), 100, 0));
    signAndVerify(hash, key);
    expectRoundTrip(key, CRYPT_OAEP);
    HCRYPTKEY session = 0;
    ASSERT_TRUE(CryptDeriveKey(context, CALG_AES_256, hash, 0, &session));
    expectRoundTrip(session, 0);
    HCRYPTHASH mac = 0;
    ASSERT_TRUE(CryptCreateHash(context, CALG_HMAC, session, 0, &mac));
    HMAC_INFO info{};
    info.HashAlgid = CALG_SHA_256;
    EXPECT_TRUE(CryptSetHashParam(mac, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&info), 0));
    EXPECT_TRUE(CryptHashData(mac, Bytes(20).data(), 20, 0));
    Bytes value(32);
    DWORD length = 32;
    EXPECT_TRUE(CryptGetHashParam(mac, HP_HASHVAL, value.data(), &length, 0));
    for (const HCRYPTHASH it : {hash, mac})
        EXPECT_TRUE(CryptDestroyHash(it));
    for (const HCRYPTKEY it : {key, session})
        EXPECT_TRUE(CryptDestroyKey(it));
    EXPECT_TRUE(CryptReleaseContext(context, 0));
}

DWORD WINAPI useCryptoApiOnThread(void*) {
    announceStackToSanitizer();
    useCryptoApi();
    return 0;
}

TEST_F(ModuleTest, CryptoApiReachesTheToken) {
    useCryptoApi();
    EXPECT_NE(GetModuleHandleA("VeltraCSP.dll"), nullptr) << "the system took another module";
}

TEST_F(ModuleTest, ThreadsOfTheApplicationShareTheToken) {
    std::array<HANDLE, 4> threads{};
    for (HANDLE& thread : threads)
        thread = CreateThread(nullptr, 0, useCryptoApiOnThread, nullptr, 0, nullptr);
    EXPECT_EQ(WaitForMultipleObjects(4, threads.data(), TRUE, INFINITE), WAIT_OBJECT_0);
    for (HANDLE thread : threads)
        CloseHandle(thread);
}

TEST_F(ModuleTest, TheFunctionTableReachesTheToken) {
    const HMODULE module = LoadLibraryA(kModule);
    ASSERT_NE(module, nullptr);
    const auto entry =
        std::bit_cast<decltype(&GetKeyStorageInterface)>(GetProcAddress(module, "GetKeyStorageInterface"));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    ASSERT_EQ(entry(nullptr, &table, 0), 0);
    NCRYPT_PROV_HANDLE provider = 0;
    ASSERT_EQ(table->OpenProvider(&provider, nullptr, 0), 0);
    Bytes pin = {'1', '2', '3', '4', 0};
    EXPECT_EQ(table->SetProviderProperty(provider, L"SmartCardPin", pin.data(), 5, 0), 0);
    NCryptKeyName* name = nullptr;
    void* cursor = nullptr;
    int keys = 0;
    for (; table->EnumKeys(provider, nullptr, &name, &cursor, 0) == 0; ++keys) {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(table->OpenKey(provider, &key, name->pszName, 0, 0), 0);
        Bytes hash(32);
        Bytes signature(256);
        DWORD length = 0;
        EXPECT_EQ(table->SignHash(provider, key, nullptr, hash.data(), 32, signature.data(), 256, &length, 0),
                  0);
        EXPECT_EQ(
            table->VerifySignature(provider, key, nullptr, hash.data(), 32, signature.data(), length, 0), 0);
        EXPECT_EQ(table->FreeKey(provider, key), 0);
        EXPECT_EQ(table->FreeBuffer(name), 0);
    }
    EXPECT_EQ(keys, 2);
    EXPECT_EQ(table->FreeBuffer(cursor), 0);
    EXPECT_EQ(table->FreeProvider(provider), 0);
    FreeLibrary(module);
}

} // namespace
} // namespace veltra::test
