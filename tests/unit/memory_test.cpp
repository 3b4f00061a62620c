// Memory that runs out, and what is left in memory that is released. Only in the Windows builds, which link
// operator new and free as the program wants them.

#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/library_buffer.h"
#include "ksp/ksp_secret.h"
#include "token/aes_keys.h"
#include "token/pin.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>

namespace {

std::atomic<DWORD> failingThread = 0; ///< 0: no allocation fails
int allocationsLeft = 0;              ///< of failingThread; at 0 one fails

std::atomic<const unsigned char*> watched = nullptr;
veltra::test::Bytes released; ///< what `watched` held when it was released; as long as is looked at

} // namespace

// Not inlined: the compiler would find that it does not match operator delete, which is the library's.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (failingThread == GetCurrentThreadId() && --allocationsLeft == 0) throw std::bad_alloc();
    if (void* memory = std::malloc(size + 1)) return memory;
    throw std::bad_alloc();
}

// The linker puts __wrap_free in the place of free (--wrap), in the library's operator delete too.
extern "C" void __real_free(void* memory);
extern "C" void __wrap_free(void* memory) {
    if (memory != nullptr && memory == watched) {
        std::copy_n(watched.exchange(nullptr), released.size(), released.begin());
    }
    __real_free(memory);
}

namespace veltra::test {
namespace {

using testing::Contains;
using testing::Each;

constexpr unsigned char kSecretByte = 'S';
constexpr std::size_t kLength = 40;

/// The memory of a `Secret` after its destructor; `fill` puts kSecretByte into it before.
template <class Secret>
Bytes leftBehind(void (*fill)(Secret&)) {
    alignas(Secret) static unsigned char memory[sizeof(Secret)];
    const volatile unsigned char* const bytes = memory;
    auto* secret = new (memory) Secret;
    fill(*secret);
    EXPECT_THAT(Bytes(bytes, bytes + sizeof(memory)), Contains(kSecretByte));
    secret->~Secret();
    return Bytes(bytes, bytes + sizeof(memory));
}

TEST(SecretTypesTest, LeaveOnlyZerosWhereTheyLay) {
    EXPECT_THAT(leftBehind<SecretBytes<kLength>>([](auto& secret) { secret[kLength - 1] = kSecretByte; }),
                Each(0));
    EXPECT_THAT(leftBehind<SymmetricKeyRecord>(
                    [](auto& secret) { EXPECT_TRUE(secret.setMaterial(Bytes(32, kSecretByte))); }),
                Each(0));
    EXPECT_THAT(
        leftBehind<Pin>([](auto& secret) { secret = Pin(std::string(Pin::kMaxLength, kSecretByte)); }),
        Each(0));
}

/// What the first kLength bytes at `memory` held when `release` released them.
Bytes releasedBy(const unsigned char* memory, const std::function<void()>& release) {
    released.assign(kLength, 0xEE);
    watched = memory;
    release();
    EXPECT_EQ(watched.exchange(nullptr), nullptr) << "not released";
    return released;
}

TEST(SecretTypesTest, ReleaseOnlyWipedMemory) {
    auto buffer = std::make_unique<SecretBuffer>();
    for (const bool reused : {true, false}) {
        buffer->allocate(kLength);
        std::fill_n(buffer->data(), kLength, kSecretByte);
        buffer->truncate(1);
        EXPECT_THAT(releasedBy(buffer->data(), [&] { reused ? buffer->allocate(1000) : buffer.reset(); }),
                    Each(0));
        if (reused) buffer = std::make_unique<SecretBuffer>();
    }
}

TEST(SecretTypesTest, LibraryBufferWipesWhatASuccessHandedOutAndReleasesTheRestAsItIs) {
    for (const auto& [code, length, throws] :
         {std::tuple{0, int{kLength}, false}, {9, INT_MAX, false}, {0, -1, false}, {0, INT_MAX, true}}) {
        LibraryBuffer buffer;
        unsigned char* memory = nullptr;
        const auto call = [&, code = code, length = length, throws = throws](unsigned char** out,
                                                                             int* outLength) {
            *out = memory = static_cast<unsigned char*>(std::malloc(kLength));
            std::fill_n(memory, kLength, kSecretByte);
            *outLength = length;
            if (throws) throw std::runtime_error("after handing out");
            return code;
        };
        if (throws) {
            EXPECT_THROW(buffer.fill(call), std::runtime_error);
        } else {
            buffer.fill(call);
        }
        const bool success = length == kLength;
        EXPECT_EQ(buffer.size(), success ? kLength : 0);
        const auto again = [&] { buffer.fill([](unsigned char**, int*) { return 0; }); };
        EXPECT_THAT(releasedBy(memory, again), Each(success ? 0 : kSecretByte));
    }
}

class MemoryFailureTest : public KspTest {
protected:
    MemoryFailureTest() { setLogLevel(2); } // so that it is not the log where most allocations fail
};

// Every allocation on the way fails once.
TEST_F(MemoryFailureTest, HandleIsOutExactlyWhenTheCallSucceedsAndTheTokenHasTheKey) {
    storePinOfToken();
    const NCRYPT_PROV_HANDLE provider = openProvider();
    const NCRYPT_KEY_HANDLE ecKey = addKey(token.addKeyPair(0x11, kKeyTypeEcP256, kUsageEncrypt));
    NCRYPT_HANDLE handle = 0;
    const auto import = [&](std::string_view type, Bytes blob) {
        return [&handle, provider, name = wideText(type), data = std::move(blob)]() mutable {
            return KSPImportKey(provider, 0, name.data(), nullptr, &handle, data.data(),
                                static_cast<DWORD>(data.size()), 0);
        };
    };
    struct Row {
        std::function<SECURITY_STATUS()> call;
        std::size_t keysStored;
        std::string error;
    };
    const std::string outOfMemory = ": out of memory";
    for (const Row& row :
         {Row{import("KeyDataBlob", joined({dwords({0x4D42444B, 1, 16}), Bytes(16)})), 1,
              "KSPImportKey" + outOfMemory},
          {import("CAPIPUBLICBLOB", joined({dwords({0x0206, 0xA400, 0x31415352, 2048, 3}), Bytes(256)})), 0,
           "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer"},
          {[&] { return KSPSecretAgreement(provider, ecKey, ecKey, &handle, 0); }, 0,
           "KSPSecretAgreement" + outOfMemory}}) {
        takeLogLines();
        for (int number = 1;; ++number) {
            // Every run allocates the same: the double's lists grow in each or in none.
            library.clearCalls();
            token.aesKeys.clear();
            token.aesKeys.shrink_to_fit();
            handle = 0;
            allocationsLeft = number;
            failingThread = GetCurrentThreadId();
            const SECURITY_STATUS status = row.call();
            failingThread = 0;
            const bool succeeded = status == 0;
            EXPECT_TRUE(succeeded || status == NTE_NO_MEMORY) << status;
            EXPECT_EQ(handle != 0, succeeded) << number;
            EXPECT_EQ(token.aesKeys.size(), succeeded ? row.keysStored : 0) << number;
            LiveRecords<KSP_KEY>::take(handle).reset();
            LiveRecords<KSP_SECRET>::take(handle).reset();
            if (allocationsLeft > 0) break;
        }
        EXPECT_THAT(takeLogLines(), Contains("ERROR " + row.error));
    }
}

} // namespace
} // namespace veltra::test
