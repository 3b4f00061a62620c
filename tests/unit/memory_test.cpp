// What is left in memory that is released. Only in the Windows builds, which link free as the program wants
// it.

#include "support/googletest.h"
#include "support/scripted_device_library.h"

#include "foundation/library_buffer.h"
#include "foundation/secret.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <functional>

namespace {

std::atomic<const unsigned char*> watched = nullptr;
veltra::test::Bytes released; ///< what `watched` held when it was released; as long as is looked at

} // namespace

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

using testing::Each;

constexpr unsigned char kSecretByte = 'S';
constexpr std::size_t kLength = 40;

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

} // namespace
} // namespace veltra::test
