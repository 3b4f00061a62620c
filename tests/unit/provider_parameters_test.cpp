#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/random_numbers.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

const DWORD kMoreData = ERROR_MORE_DATA;
const std::string kEnumeration = "CPGetProvParam PP_ENUMALGS";

class ProviderParametersTest : public CspTest {
protected:
    ProviderParametersTest() : provider(acquire()) {}
    ~ProviderParametersTest() override { setHardwareRandom(true); }

    /// Asks with a buffer of `capacity` bytes that are 0xEE; with -1, without one.
    Answer get(DWORD parameter, int capacity, DWORD flags = 0, HCRYPTPROV handle = 0) {
        data.assign(static_cast<std::size_t>(std::max(capacity, 1)), 0xEE);
        length = static_cast<DWORD>(std::max(capacity, 0));
        return run([&] {
            return CPGetProvParam(handle ? handle : provider, parameter, capacity < 0 ? nullptr : data.data(),
                                  &length, flags);
        });
    }
    Answer set(DWORD parameter, const void* value) {
        return run(
            [&] { return CPSetProvParam(provider, parameter, static_cast<const BYTE*>(value), 0xFFFF); });
    }
    std::string text(std::size_t offset = 0) const {
        return reinterpret_cast<const char*>(data.data()) + offset;
    }
    DWORD word(std::size_t index) const {
        DWORD value = 0;
        std::memcpy(&value, data.data() + index * sizeof value, sizeof value);
        return value;
    }
    bool untouched() const {
        return std::ranges::all_of(data, [](BYTE byte) { return byte == 0xEE; });
    }
    auto lines(const std::string& line) const { return std::ranges::count(debugLines, line); }

    /// The short names that an enumeration gives, starting with these flags; `last` is what ended it.
    std::vector<std::string> names(DWORD parameter, DWORD flags = CRYPT_FIRST) {
        const bool ex = parameter != PP_ENUMALGS;
        std::vector<std::string> found;
        while ((last = get(parameter, ex ? 88 : 32, flags)).result && found.size() < 20) {
            found.push_back(text(ex ? 24 : 12));
            flags = CRYPT_NEXT;
        }
        return found;
    }

    const HCRYPTPROV provider;
    Bytes data;
    DWORD length = 0;
    Answer last;
};

TEST_F(ProviderParametersTest, HandlesAndUnknownParameters) {
    EXPECT_EQ(run([] { return CPGetProvParam(0, 99, nullptr, nullptr, 0); }),
              refused(NTE_BAD_UID, {"CPGetProvParam: context is null or not initialized"}));
    EXPECT_EQ(run([] { return CPSetProvParam(0, 99, nullptr, 0); }),
              refused(NTE_BAD_UID, {"CPSetProvParam: context is null or not initialized"}));
    EXPECT_FALSE(CPGetProvParam(provider, PP_NAME, nullptr, nullptr, 0));
    for (const DWORD code : {0u, 7u, 37u, 0xFFFFFFFFu}) {
        EXPECT_EQ(get(code, 4),
                  refused(NTE_BAD_TYPE, {concat("CPGetProvParam: unsupported dwParam=", code)}));
        EXPECT_EQ(set(code, nullptr),
                  refused(NTE_BAD_TYPE, {concat("CPSetProvParam: unsupported dwParam=", code)}));
    }
}

TEST_F(ProviderParametersTest, EveryNumberHasItsOwnRuleForASmallBuffer) {
    enum Rule { kRefused, kRefusedWithoutSize, kAccepted };
    struct Row {
        DWORD parameter, value;
        Rule rule;
        std::vector<std::string> trace;
    };
    liveContext(provider)->keySpec = 77;
    const std::vector<std::string> pin = {"CPGetProvParam: PIN query"};
    for (const Row& row : {Row{3, 9, kRefused, {"CPGetProvParam not null value provided"}},
                           {5, 256, kRefused, {}},
                           {16, 1, kRefused, {}},
                           {17, 9, kRefused, {}},
                           {27, 77, kRefusedWithoutSize, {}},
                           {34, 1024, kRefusedWithoutSize, {}},
                           {35, 1024, kRefusedWithoutSize, {}},
                           {31, 1, kAccepted, pin},
                           {32, 1, kAccepted, pin},
                           {33, 1, kAccepted, pin},
                           {38, 1, kAccepted, {"CPGetProvParam: PP_USE_HARDWARE_RNG = 1"}},
                           {39, 1, kAccepted, {}}}) {
        SCOPED_TRACE(row.parameter);
        EXPECT_EQ(get(row.parameter, -1), accepted(row.rule == kAccepted ? kMoreData : kUntouched));
        EXPECT_EQ(length, 4u);
        const Answer small = get(row.parameter, 3);
        EXPECT_EQ(small.result, row.rule == kAccepted);
        EXPECT_EQ(small.lastError, kMoreData);
        EXPECT_EQ(length, row.rule == kRefusedWithoutSize ? 3u : 4u);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(lines("Required size is Large"), row.parameter == PP_USE_HARDWARE_RNG);
        EXPECT_EQ(get(row.parameter, 9, 5), accepted());
        EXPECT_EQ(length, 4u);
        EXPECT_EQ(word(0), row.value);
        EXPECT_EQ(data[4], 0xEE);
        std::vector<std::string> expected = {
            "CPGetProvParam", concat("CPGetProvParam input : ", row.parameter), "CPGetProvParam : 5"};
        expected.insert(expected.end(), row.trace.begin(), row.trace.end());
        expected.insert(expected.end(), {"CPGetProvParam out length : 4", "CPGetProvParam return success"});
        EXPECT_EQ(debugLines, expected);
    }
}

TEST_F(ProviderParametersTest, NamesAreCopiedWholeOrNotAtAll) {
    const HCRYPTPROV named = acquire("My container");
    const std::string trace = "CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER";
    for (const DWORD code : {PP_NAME, PP_CONTAINER, PP_UNIQUE_CONTAINER}) {
        const std::string name = code == PP_NAME ? "Veltra Cryptographic Provider CSP" : "My container";
        const int size = static_cast<int>(name.size()) + 1;
        for (const int capacity : {-1, 0, 8, size - 1, size}) {
            bool& answered = liveContext(named)->containerNameAnswered;
            answered = false;
            const Answer answer = get(code, capacity, 0, named);
            EXPECT_EQ(answered, answer.result && code != PP_NAME);
            EXPECT_EQ(length, static_cast<DWORD>(size));
            if (capacity < 0 || capacity == size) {
                EXPECT_EQ(answer, accepted());
            } else {
                EXPECT_FALSE(answer.result);
                EXPECT_EQ(answer.lastError, kMoreData);
            }
            EXPECT_EQ(untouched(), capacity != size);
            EXPECT_EQ(lines(trace + " size query, requiredSize=13, return TRUE"),
                      capacity < 0 && code != PP_NAME);
            EXPECT_EQ(lines(trace + "=My container, return TRUE"), capacity == size && code != PP_NAME);
        }
        EXPECT_EQ(text(), name);
    }
}

TEST_F(ProviderParametersTest, AlgorithmsOfBothTokenGenerations) {
    const std::vector<std::string> kOlder = {"RSA-Sign", "RSA-KeyX", "AES-128", "AES-192", "AES-256",
                                             "SHA-1",    "SHA-256",  "SHA-384", "SHA-512", "HMAC"};
    std::vector<std::string> newer = kOlder;
    newer.erase(newer.begin() + 5);
    for (const DWORD parameter : {PP_ENUMALGS, PP_ENUMALGS_EX}) {
        const std::string start = kEnumeration + (parameter == PP_ENUMALGS ? "" : "_EX");
        token.info.fipsMarker = "3.0.9";
        EXPECT_EQ(names(parameter), newer);
        EXPECT_EQ(last, refused(ERROR_NO_MORE_ITEMS, {start + ": no more algorithms, index=9"}));
        EXPECT_FALSE(get(parameter, 88, CRYPT_NEXT).result) << "and it stays at the end";
        token.info.fipsMarker = "2.1";
        EXPECT_EQ(names(parameter, CRYPT_FIRST | 4), kOlder); // 4: CRYPT_SGC_ENUM, ignored
    }
    get(PP_ENUMALGS_EX, 88, CRYPT_FIRST, acquire(nullptr, CRYPT_VERIFYCONTEXT));
    EXPECT_EQ(word(2), 2048u) << "without a token the newer rules";

    // Both records of the first row; the name lengths count the terminating zero.
    EXPECT_EQ(get(PP_ENUMALGS_EX, 89, CRYPT_FIRST), accepted());
    const std::vector<DWORD> words = {word(0), word(1), word(2), word(3), word(4), word(5), word(11)};
    EXPECT_THAT(words, ElementsAre(0x2400, 2048, 1024, 4096, 0x30, 9, 14));
    EXPECT_EQ(text(48), "RSA Signature");
    EXPECT_EQ(length, 88u);
    EXPECT_EQ(data[88], 0xEE);
    EXPECT_EQ(lines("CPGetProvParam: returned EX algorithm -> RSA-Sign"), 1);
    EXPECT_EQ(get(PP_ENUMALGS, 32, CRYPT_FIRST), accepted());
    EXPECT_THAT((std::vector{word(0), word(1), word(2)}), ElementsAre(0x2400, 2048, 9));
    EXPECT_EQ(lines("CPGetProvParam: returned algorithm -> RSA-Sign"), 1);
    for (int i = 0; i < 9; ++i)
        get(PP_ENUMALGS_EX, 88, i % 2 ? CRYPT_NEXT : 0); // one cursor for both
    EXPECT_EQ(text(48), "Orvo's MAC (HMAC)");
}

TEST_F(ProviderParametersTest, EnumerationMovesOnBeforeItReadsAndAlsoWhenTheRecordDoesNotFit) {
    for (const auto& [parameter, size] : {std::pair{DWORD{PP_ENUMALGS}, 32u}, {PP_ENUMALGS_EX, 88u}}) {
        EXPECT_EQ(get(parameter, -1, 0xFF), accepted());
        EXPECT_EQ(length, size);
    }
    EXPECT_EQ(names(PP_ENUMALGS, 0).front(), "RSA-KeyX") << "a new context's first call gives the second row";
    for (const DWORD flags : {3u, 8u, 0x20u})
        EXPECT_EQ(get(PP_ENUMALGS, 32, flags),
                  refused(ERROR_INVALID_PARAMETER, {concat(kEnumeration, ": invalid dwFlags=", flags)}));
    get(PP_ENUMALGS, 32, CRYPT_FIRST);
    EXPECT_EQ(get(PP_ENUMALGS, 31, CRYPT_NEXT),
              refused(kMoreData, {kEnumeration + ": output buffer too small, required=32"}));
    EXPECT_EQ(length, 32u);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(names(PP_ENUMALGS, CRYPT_NEXT).front(), "AES-128") << "a retry skips a row";

    get(PP_ENUMALGS, 32, CRYPT_FIRST);
    EXPECT_THAT(names(PP_ENUMEX_SIGNING_PROT),
                ElementsAre("RSA-Sign", "RSA-KeyX", "SHA-256", "SHA-384", "SHA-512"));
    EXPECT_EQ(last, refused(ERROR_NO_MORE_ITEMS, {"CPGetProvParam: PP_ENUMEX_SIGNING_PROT no more items"}));
    const std::string index = "CPGetProvParam: PP_ENUMEX_SIGNING_PROT index=";
    EXPECT_EQ(lines(index + "5"), 1);
    get(PP_ENUMEX_SIGNING_PROT, -1, CRYPT_FIRST);
    EXPECT_EQ(lines(index + "5"), 1) << "a size query leaves the cursor alone";
    get(PP_ENUMEX_SIGNING_PROT, 88, CRYPT_FIRST);
    EXPECT_EQ(lines(index + "0"), 1);
    EXPECT_EQ(names(PP_ENUMALGS, CRYPT_NEXT).front(), "RSA-KeyX") << "the signing rows have their own cursor";
}

TEST_F(ProviderParametersTest, ContainersAreTheKeysAtAcquisition) {
    const std::string start = "CPGetProvParam PP_ENUMCONTAINERS: ";
    EXPECT_EQ(get(PP_ENUMCONTAINERS, 64, CRYPT_FIRST),
              refused(ERROR_NO_MORE_ITEMS, {start + "no more containers, index=0"}));
    EXPECT_FALSE(liveContext(provider)->containersEnumerated);
    token.addKeyPair(0x1A);
    token.addKeyPair(0x2B);
    const HCRYPTPROV handle = acquire();
    token.keyPairs.clear();
    for (const DWORD flags : {0u, 3u, 4u})
        EXPECT_EQ(get(PP_ENUMCONTAINERS, 64, flags, handle),
                  refused(ERROR_INVALID_PARAMETER, {concat(start, "invalid dwFlags=", flags)}));
    for (const int capacity : {-1, 0, 32}) {
        EXPECT_EQ(get(PP_ENUMCONTAINERS, capacity, CRYPT_FIRST, handle), accepted(kMoreData));
        EXPECT_EQ(length, 33u);
        EXPECT_TRUE(untouched());
    }
    EXPECT_TRUE(liveContext(handle)->containersEnumerated);
    for (const DWORD flags : {CRYPT_FIRST | CRYPT_MACHINE_KEYSET, CRYPT_NEXT}) {
        EXPECT_EQ(get(PP_ENUMCONTAINERS, 33, flags, handle), accepted());
        EXPECT_EQ(text(), flags == CRYPT_NEXT ? "2B2B2B2B2B2B2B2B2B2B2B2B2B2B2B2B"
                                              : "1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A");
        EXPECT_EQ(lines("CPGetProvParam: returned container -> " + text()), 1);
    }
    EXPECT_EQ(get(PP_ENUMCONTAINERS, 33, CRYPT_NEXT, handle),
              refused(ERROR_NO_MORE_ITEMS, {start + "no more containers, index=2"}));
}

TEST_F(ProviderParametersTest, SecurityDescriptorHasANullAccessList) {
    EXPECT_EQ(get(PP_KEYSET_SEC_DESCR, -1), accepted(kMoreData));
    const int size = static_cast<int>(length);
    EXPECT_EQ(get(PP_KEYSET_SEC_DESCR, size - 1), accepted(kMoreData));
    EXPECT_EQ(length, static_cast<DWORD>(size));
    EXPECT_TRUE(untouched());
    EXPECT_EQ(get(PP_KEYSET_SEC_DESCR, size), accepted());
    BOOL present = FALSE;
    BOOL defaulted = TRUE;
    PACL list = reinterpret_cast<PACL>(1);
    EXPECT_TRUE(GetSecurityDescriptorDacl(data.data(), &present, &list, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(list, nullptr);
}

TEST_F(ProviderParametersTest, AcceptedPinIsStoredSoThatNothingPrompts) {
    for (const DWORD parameter : {PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN}) {
        EXPECT_EQ(set(parameter, nullptr),
                  refused(ERROR_INVALID_PARAMETER, {"CPSetProvParam: NULL PIN data"}));
        EXPECT_EQ(set(parameter, std::string(256, '1').c_str()),
                  refused(0x8009001A, {"CPSetProvParam: PIN is longer than 255 characters"}));
        EXPECT_EQ(set(parameter, "12"),
                  refused(0x8009001A, {"CPSetProvParam - Token password validation failed : 73"}));
    }
    EXPECT_EQ(storedPin(), "");
    library.clearCalls();
    EXPECT_EQ(set(PP_SIGNATURE_PIN, "1234"), accepted());
    EXPECT_EQ(lines("CPSetProvParam - input param : 33") + lines("CPSetProvParam - passwordLength : 4"), 2);
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_validatePassword(serial=" + serial + ", pin=1234, mode=1, remaining=0)"));
    EXPECT_EQ(storedPin(), "1234");
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CPGenKey(acquire(nullptr, CRYPT_SILENT), CALG_RSA_SIGN, 0, &key));
    CPDestroyKey(provider, key);

    const HWND window = reinterpret_cast<HWND>(0x1234);
    EXPECT_EQ(set(PP_CLIENT_HWND, &window), accepted());
    EXPECT_EQ(liveContext(provider)->ownerWindow, window);
    EXPECT_EQ(set(PP_CLIENT_HWND, nullptr), accepted());
    EXPECT_EQ(liveContext(provider)->ownerWindow, nullptr);
}

TEST_F(ProviderParametersTest, RandomNumbersComeFromTheTokenUntilItIsSwitchedOff) {
    data.assign(8, 0);
    const auto fill = [&](HCRYPTPROV handle, DWORD count, BYTE* out) {
        library.clearCalls();
        return run([&] { return CPGenRandom(handle, count, out); });
    };
    const auto call = [](const std::string& name, DWORD software) {
        return std::vector{
            concat("veltra_generateRamdomNumber(serial=", name, ", count=7, software=", software, ")")};
    };
    const std::string invalid = "CPGenRandom: invalid buffer or length, cbLen=";
    EXPECT_EQ(fill(0, 0, nullptr), refused(NTE_BAD_UID, {"CPGenRandom: context is null or not initialized"}));
    EXPECT_EQ(fill(provider, 0, data.data()), refused(ERROR_INVALID_PARAMETER, {invalid + "0"}));
    EXPECT_EQ(fill(provider, 7, nullptr), refused(ERROR_INVALID_PARAMETER, {invalid + "7"}));
    EXPECT_EQ(fill(provider, 7, data.data()), accepted());
    EXPECT_EQ(library.calls(), call(serial, 0));
    EXPECT_EQ(toHex(data), "7777777777777700");
    const HCRYPTPROV tokenless = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    EXPECT_EQ(fill(tokenless, 7, data.data()), accepted());
    EXPECT_EQ(library.calls(), call("", 1));
    EXPECT_EQ(lines("CPGenRandom: no token, using software RNG"), 1);

    EXPECT_EQ(set(PP_USE_HARDWARE_RNG, nullptr),
              refused(ERROR_INVALID_PARAMETER, {"CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG"}));
    for (const DWORD value : {0u, 5u, 0u}) {
        const DWORD stored = value != 0;
        EXPECT_EQ(set(PP_USE_HARDWARE_RNG, &value), accepted());
        EXPECT_EQ(lines(concat("CPSetProvParam: PP_USE_HARDWARE_RNG set to ", stored)), 1);
        EXPECT_EQ(fill(provider, 7, data.data()), accepted());
        EXPECT_EQ(library.calls(), call(serial, 1 - stored));
        get(PP_USE_HARDWARE_RNG, 8);
        EXPECT_EQ(word(0), stored);
    }
    library.script("veltra_generateRamdomNumber", {.result = 4});
    EXPECT_EQ(fill(provider, 7, data.data()), refused(0x8009001D, {"Random number generation failed: 4"}));
    EXPECT_EQ(fill(tokenless, 7, data.data()), refused(0x8009001D, {"CPGenRandom: software RNG failed: 4"}));
}

} // namespace
} // namespace veltra::test
