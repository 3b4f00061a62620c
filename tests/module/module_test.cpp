// An application over the sanitized VeltraCSP.dll, through the system's CryptoAPI.

#include "support/googletest.h"
#include "support/sanitizer_stack.h"

#include "foundation/windows.h"

#include <array>
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

// The system finds the module by a registry entry.
void setInRegistry(const char* name, DWORD type, const void* data, std::size_t length) {
    EXPECT_EQ(
        0, RegSetKeyValueA(HKEY_LOCAL_MACHINE, kRegistryKey, name, type, data, static_cast<DWORD>(length)));
}

// Encrypts and decrypts 20 bytes in the application's buffer.
void expectRoundTrip(HCRYPTKEY key, DWORD flags) {
    Bytes data(256, 'x');
    DWORD length = 20;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, flags, data.data(), &length, 256));
    EXPECT_TRUE(CryptDecrypt(key, 0, TRUE, flags, data.data(), &length));
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 20), Bytes(20, 'x'));
}

DWORD WINAPI useCryptoApi(void*) {
    announceStackToSanitizer();
    HCRYPTPROV context = 0;
    EXPECT_TRUE(CryptAcquireContextA(&context, kContainer, kProvider, PROV_RSA_FULL, 0))
        << std::hex << GetLastError();
    EXPECT_TRUE(CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>("1234"), 0));
    HCRYPTKEY key = 0, session = 0;
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CryptGetUserKey(context, AT_SIGNATURE, &key));
    EXPECT_TRUE(CryptCreateHash(context, CALG_SHA_256, 0, 0, &hash));
    EXPECT_TRUE(CryptHashData(hash, Bytes(100).data(), 100, 0));
    Bytes output(256);
    DWORD length = 256;
    EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, output.data(), &length));
    EXPECT_TRUE(CryptVerifySignatureA(hash, output.data(), length, key, nullptr, 0));
    output[0] ^= 1;
    EXPECT_FALSE(CryptVerifySignatureA(hash, output.data(), length, key, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE));
    expectRoundTrip(key, CRYPT_OAEP);
    EXPECT_TRUE(CryptDeriveKey(context, CALG_AES_256, hash, 0, &session));
    expectRoundTrip(session, 0);
    EXPECT_TRUE(CryptDestroyHash(hash));
    EXPECT_TRUE(CryptDestroyKey(key) && CryptDestroyKey(session));
    EXPECT_TRUE(CryptReleaseContext(context, 0));
    return 0;
}

TEST(ModuleTest, CryptoApiReachesTheTokenOnManyThreads) {
    const DWORD type = PROV_RSA_FULL;
    setInRegistry("Image Path", REG_SZ, kModule, std::strlen(kModule) + 1);
    setInRegistry("Type", REG_DWORD, &type, sizeof(type));
    setInRegistry("Signature", REG_BINARY, Bytes(136).data(), 136);
    std::array<HANDLE, 4> threads{};
    for (HANDLE& thread : threads)
        thread = CreateThread(nullptr, 0, useCryptoApi, nullptr, 0, nullptr);
    EXPECT_EQ(WaitForMultipleObjects(4, threads.data(), TRUE, INFINITE), WAIT_OBJECT_0);
    for (HANDLE thread : threads)
        CloseHandle(thread);
    EXPECT_NE(GetModuleHandleA("VeltraCSP.dll"), nullptr) << "the system took another module";
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, kRegistryKey);
}

} // namespace
} // namespace veltra::test
