#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/random_numbers.h"

#include <cstring>

namespace veltra::test {
namespace {

class ProviderParametersTest : public CspTest {
protected:
    ~ProviderParametersTest() override { setHardwareRandom(true); }

    /// Asks with a buffer of `capacity` bytes that are 0xEE; with 0, without one.
    Answer get(DWORD parameter, DWORD capacity, DWORD flags = 0) {
        data.assign(capacity, 0xEE);
        length = capacity;
        return run(CPGetProvParam, provider, parameter, capacity ? data.data() : nullptr, &length, flags);
    }
    Answer set(DWORD parameter, const void* value) {
        return run(CPSetProvParam, provider, parameter, static_cast<const BYTE*>(value), 0xFFFF);
    }
    std::string text(std::size_t offset = 0) const {
        return reinterpret_cast<const char*>(data.data()) + offset;
    }
    std::vector<DWORD> words(std::size_t count) const {
        std::vector<DWORD> all(count);
        std::memcpy(all.data(), data.data(), count * sizeof(DWORD));
        return all;
    }

    /// The short names that an enumeration gives, starting with these flags, with blanks between them, and
    /// what ended it.
    std::string names(DWORD parameter, DWORD flags = CRYPT_FIRST) {
        const DWORD capacity = parameter == PP_ENUMALGS ? 32 : 88;
        std::string found;
        Answer answer = get(parameter, capacity, flags);
        for (; answer.result; answer = get(parameter, capacity, CRYPT_NEXT))
            found += text(parameter == PP_ENUMALGS ? 12 : 24) + " ";
        EXPECT_EQ(answer.lastError, static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
        return found + answer.errors.at(0);
    }

    HCRYPTPROV provider = acquire();
    Bytes data;
    DWORD length = 0;
};

const std::string kStart = "RSA-Sign RSA-KeyX AES-128 AES-192 AES-256 ";
const std::string kEnd = "SHA-256 SHA-384 SHA-512 HMAC CPGetProvParam PP_ENUMALGS";
const std::string kNewer = kStart + kEnd + ": no more algorithms, index=9";

TEST_F(ProviderParametersTest, AlgorithmsOfBothTokenGenerations) {
    EXPECT_EQ(names(PP_ENUMALGS), kNewer);
    EXPECT_FALSE(get(PP_ENUMALGS, 88, CRYPT_NEXT).result) << "and it stays at the end";
    EXPECT_EQ(names(PP_ENUMALGS_EX), kStart + kEnd + "_EX: no more algorithms, index=9");
    token.info.fipsMarker = "2.1";
    EXPECT_EQ(names(PP_ENUMALGS, CRYPT_FIRST | 4), // 4: CRYPT_SGC_ENUM, ignored
              kStart + "SHA-1 " + kEnd + ": no more algorithms, index=10");
    // Both records of the first row; the name lengths count the terminating zero.
    EXPECT_EQ(get(PP_ENUMALGS, 32, CRYPT_FIRST), accepted());
    EXPECT_THAT(words(3), ElementsAre(0x2400, 2048, 9));
    EXPECT_EQ(get(PP_ENUMALGS_EX, 89, CRYPT_FIRST), accepted());
    EXPECT_THAT(words(6), ElementsAre(0x2400, 2048, 1024, 4096, 0x30, 9));
    EXPECT_EQ(words(12).back(), 14u);
    EXPECT_EQ(text(48), "RSA Signature");
    EXPECT_EQ(data[88], 0xEE);
    EXPECT_THAT(names(PP_ENUMALGS, CRYPT_NEXT), testing::StartsWith("RSA-KeyX")) << "one cursor for both";
    provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    EXPECT_EQ(names(PP_ENUMALGS), kNewer) << "without a token the newer rules";
}

TEST_F(ProviderParametersTest, EnumerationMovesOnBeforeItReadsAndAlsoWhenTheRecordDoesNotFit) {
    const std::string start = "CPGetProvParam PP_ENUMALGS: ";
    for (const auto& [parameter, size] : {std::pair{PP_ENUMALGS, 32u}, {PP_ENUMALGS_EX, 88u}}) {
        EXPECT_EQ(get(parameter, 0, 0xFF), accepted());
        EXPECT_EQ(length, size);
    }
    EXPECT_THAT(names(PP_ENUMALGS, 0), testing::StartsWith("RSA-KeyX")) << "a new context's first call";
    for (const DWORD flags : {3u, 8u, 0x20u})
        EXPECT_EQ(get(PP_ENUMALGS, 32, flags),
                  refused(ERROR_INVALID_PARAMETER, {concat(start, "invalid dwFlags=", flags)}));
    get(PP_ENUMALGS, 32, CRYPT_FIRST);
    EXPECT_EQ(get(PP_ENUMALGS, 31, CRYPT_NEXT),
              refused(ERROR_MORE_DATA, {start + "output buffer too small, required=32"}));
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(data, Bytes(31, 0xEE));
    EXPECT_THAT(names(PP_ENUMALGS, CRYPT_NEXT), testing::StartsWith("AES-128")) << "a retry skips a row";

    get(PP_ENUMALGS, 32, CRYPT_FIRST);
    EXPECT_EQ(
        names(PP_ENUMEX_SIGNING_PROT),
        "RSA-Sign RSA-KeyX SHA-256 SHA-384 SHA-512 CPGetProvParam: PP_ENUMEX_SIGNING_PROT no more items");
    get(PP_ENUMEX_SIGNING_PROT, 0, CRYPT_FIRST);
    EXPECT_FALSE(get(PP_ENUMEX_SIGNING_PROT, 88, CRYPT_NEXT).result) << "a size query leaves the cursor";
    EXPECT_THAT(names(PP_ENUMALGS, CRYPT_NEXT), testing::StartsWith("RSA-KeyX")) << "a cursor of its own";
}

TEST_F(ProviderParametersTest, ContainersAreTheKeysAtAcquisition) {
    const std::string start = "CPGetProvParam PP_ENUMCONTAINERS: ";
    token.addKeyPair(0x11);
    token.addKeyPair(0x22);
    const HCRYPTPROV without = std::exchange(provider, acquire());
    token.keyPairs.clear();
    for (const DWORD flags : {0u, 3u, 4u})
        EXPECT_EQ(get(PP_ENUMCONTAINERS, 64, flags),
                  refused(ERROR_INVALID_PARAMETER, {concat(start, "invalid dwFlags=", flags)}));
    EXPECT_EQ(get(PP_ENUMCONTAINERS, 33, CRYPT_FIRST | CRYPT_MACHINE_KEYSET), accepted());
    EXPECT_EQ(text(), std::string(32, '1'));
    EXPECT_EQ(get(PP_ENUMCONTAINERS, 33, CRYPT_NEXT), accepted());
    EXPECT_EQ(text(), std::string(32, '2'));
    EXPECT_EQ(get(PP_ENUMCONTAINERS, 64, CRYPT_NEXT),
              refused(ERROR_NO_MORE_ITEMS, {start + "no more containers, index=2"}));
    provider = without;
    EXPECT_FALSE(get(PP_ENUMCONTAINERS, 64, CRYPT_FIRST).result);
    EXPECT_FALSE(liveContext(provider)->containersEnumerated);
}

TEST_F(ProviderParametersTest, PinAndWindowAreStored) {
    EXPECT_EQ(set(PP_SIGNATURE_PIN, "1234"), accepted());
    EXPECT_THAT(library.calls("veltra_validatePassword"),
                ElementsAre("veltra_validatePassword(serial=" + serial + ", pin=1234, mode=1, remaining=0)"));
    EXPECT_EQ(storedPin(), "1234");
    const HWND window = reinterpret_cast<HWND>(0x1234);
    EXPECT_EQ(set(PP_CLIENT_HWND, &window), accepted());
    EXPECT_EQ(liveContext(provider)->ownerWindow, window);
    EXPECT_EQ(set(PP_CLIENT_HWND, nullptr), accepted());
    EXPECT_EQ(liveContext(provider)->ownerWindow, nullptr);
}

TEST_F(ProviderParametersTest, RandomNumbersComeFromTheTokenUntilItIsSwitchedOff) {
    const auto expectRandom = [&](const std::string& from, DWORD software) {
        data.assign(8, 0);
        EXPECT_EQ(run(CPGenRandom, provider, 7, data.data()), accepted());
        EXPECT_EQ(toHex(data), "7777777777777700");
        EXPECT_EQ(library.calls().back(),
                  concat("veltra_generateRamdomNumber(serial=", from, ", count=7, software=", software, ")"));
    };
    expectRandom(serial, 0);
    for (const DWORD value : {0u, 5u, 0u}) {
        EXPECT_EQ(set(PP_USE_HARDWARE_RNG, &value), accepted());
        expectRandom(serial, value == 0);
        get(PP_USE_HARDWARE_RNG, 4);
        EXPECT_THAT(words(1), ElementsAre(value != 0));
    }
    setHardwareRandom(true);
    provider = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    expectRandom("", 1);
    library.script("veltra_generateRamdomNumber", {.result = 4});
    EXPECT_EQ(run(CPGenRandom, provider, 7, data.data()),
              refused(0x8009001D, {"CPGenRandom: software RNG failed: 4"}));
}

} // namespace
} // namespace veltra::test
