// Contexts of CryptoAPI and their parameters.

#include "support/blob_bytes.h"
#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"
#include "token/random_numbers.h"

namespace veltra::test {
namespace {

const std::string kId1(32, '1'); // the key name of key pair 0x11
const std::string kId2(32, '2');
const std::string kLetters = "ABABABABABABABABABABABABABABABAB";
const std::string kLowerCase = "abababababababababababababababab";

class ProviderContextTest : public CspTest {
protected:
    /// Opens a context, or deletes a container.
    Answer open(const std::string& container = {}, DWORD flags = 0) {
        HCRYPTPROV handle = 0x5A5A;
        const Answer answer =
            run(CPAcquireContext, &handle, container.empty() ? nullptr : container.c_str(), flags, table);
        context = liveContext(keep(handle));
        EXPECT_EQ(context != nullptr, answer.result && (flags & CRYPT_DELETEKEYSET) == 0);
        EXPECT_TRUE(context || handle == 0);
        return answer;
    }
    /// The key name of a container of this test that the registry maps to `data`; with "?" for its own.
    std::string mappedTo(const std::string& data, DWORD type = REG_SZ) {
        const std::string name = mappedContainer(data, type);
        EXPECT_EQ(open(name), accepted());
        return context->keyName == name ? "?" : context->keyName;
    }
    std::string mappedContainer(const std::string& data, DWORD type = REG_SZ) {
        const std::string name = freshName("Container");
        writeContainerValue(name, data, type);
        return name;
    }
    /// The last call started the device monitor, or found it running, and initialised the token.
    void expectInitialisation() const {
        EXPECT_THAT(debugLines, Contains(testing::StartsWith("Monitor thread ")));
        EXPECT_THAT(library.calls("veltra_initDevice"),
                    ElementsAre("veltra_initDevice(serial=" + serial + ", reread=0)"));
    }

    std::shared_ptr<CSP_CONTEXT> context; ///< what the last call opened
};

TEST_F(ProviderContextTest, AnyOfTheTopFourBitsMakesAVerifyContextThatTouchesNoToken) {
    for (const DWORD flags : {0xF0000000u, 0x10000000u, 0x20000000u, 0x40000000u, 0x80000040u}) {
        ASSERT_EQ(open("name", flags), accepted());
        EXPECT_EQ(context->serial + context->containerName, "");
        EXPECT_EQ(context->fixedWord, 0u);
        EXPECT_EQ(context->silent != 0, (flags & CRYPT_SILENT) != 0);
    }
    EXPECT_EQ(open({}, CRYPT_DELETEKEYSET), accepted());
    EXPECT_EQ(open("unmapped", 0xF0000000 | CRYPT_DELETEKEYSET), accepted()) << "deletion comes first";
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(ProviderContextTest, WithoutAContainerTheFirstTokenIsOpened) {
    token.addKeyPair(0x11);
    token.addKeyPair(0xAB);
    ASSERT_EQ(open({}, CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET), accepted());
    expectInitialisation();
    EXPECT_EQ(context->fixedWord, 4096u);
    EXPECT_FALSE(context->persistedContainer);
    EXPECT_THAT(context->keyList, ElementsAre(kId1, kLetters)) << "the token's order";
    EXPECT_EQ(open(), accepted());
    expectInitialisation(); // once per token and process
}

TEST_F(ProviderContextTest, TokenThatHoldsTheNamedKeyIsChosenIgnoringCaseElseTheFirst) {
    const std::string second = freshName("Token");
    library.addToken(second).addKeyPair(0xAB);
    const auto expectToken = [&](const std::string& container, const std::string& expected) {
        ASSERT_EQ(open(container, CRYPT_SILENT), accepted());
        EXPECT_EQ(context->serial, expected);
        EXPECT_EQ(context->containerName, container);
        EXPECT_EQ(context->persistedContainer, !container.empty());
    };
    expectToken("no key of any token", serial);
    token.addKeyPair(0x11);
    expectToken(kLetters, second);
    expectToken(kLowerCase, second);
    for (const std::string& other : {kId1, kLetters.substr(1), kLetters + "A", std::string()})
        expectToken(other, serial);
    const std::string line = "Key list of " + serial + " cannot be read";
    library.script("veltra_getKeyPairList", {.throws = true, .onCall = 1});
    EXPECT_EQ(open(kLetters, CRYPT_SILENT).errors, std::vector{line});
    EXPECT_EQ(context->serial, second);
    library.script("veltra_getKeyPairList", {.throws = true, .onCall = 1});
    HCRYPTPROV none = 0;
    EXPECT_FALSE(CPAcquireContext(&none, "whatever", CRYPT_SILENT, table))
        << "its key may be on the token that cannot be read";
}

TEST_F(ProviderContextTest, TokenThatCannotBeInitialisedFailsAloneAndIsTriedAgain) {
    const std::string second = freshName("Token");
    library.addToken(second);
    library.script("veltra_initDevice", {.throws = true, .onCall = 1});
    library.script("veltra_initDevice", {.result = 5, .onCall = 3});
    const std::string failure = "Init device failed for " + serial + " : ";
    EXPECT_THAT(open().errors, ElementsAre(testing::StartsWith(failure)));
    EXPECT_TRUE(!isInitialised(serial) && isInitialised(second));
    EXPECT_EQ(open(), (Answer{TRUE, kUntouched, {failure + "5"}}));
    EXPECT_EQ(open(), accepted());
    EXPECT_TRUE(isInitialised(serial));
}

TEST_F(ProviderContextTest, ContainerMapGivesTheFirstKeyNameAndIsNotTrusted) {
    const std::string zero(1, '\0'), longest(1024, 'A');
    EXPECT_EQ(mappedTo(kId2 + "," + kId1 + zero), kId2);
    writeContainerValue(context->containerName, kId1);
    open(context->containerName);
    EXPECT_EQ(context->keyName, kId2) << "the cache comes first";
    EXPECT_EQ(mappedTo(kId1), kId1) << "not terminated";
    EXPECT_EQ(mappedTo(kId1 + zero + "," + kId2), kId1);
    EXPECT_EQ(mappedTo(",," + kId2), kId2);
    EXPECT_EQ(mappedTo(longest), longest);
    for (const std::string& data : {std::string(",,,"), std::string(), zero + kId1, longest + "A"})
        EXPECT_EQ(mappedTo(data), "?");
    for (const DWORD type : {REG_EXPAND_SZ, REG_BINARY, REG_DWORD})
        EXPECT_EQ(mappedTo(kId1.substr(0, 4), type), "?");
}

TEST_F(ProviderContextTest, DeletionTakesTheMappedKeysInOrderAndGoesOnAfterAFailure) {
    token.addKeyPair(0x11).flag = 0;
    token.addKeyPair(0x22).flag = 1;
    token.addKeyPair(0x33).flag = 0x100;
    token.addKeyPair(0xAB); // its name in the map has another case
    const std::string name = mappedContainer(std::string(32, '3') + "," + kLowerCase + "," + kId2);
    EXPECT_EQ(open(name), accepted()); // so that the map is cached
    library.script("veltra_deleteKeyPair", {.result = 9, .onCall = 1});
    prompt.willType({"1234"});
    const std::string failure = "CPAcquireContext: CRYPT_DELETEKEYSET deleteKeyPair failed for ";
    EXPECT_EQ(open(name, CRYPT_DELETEKEYSET),
              (Answer{TRUE, kUntouched, {failure + std::string(32, '3') + " ret=9"}}));
    EXPECT_THAT(library.calls("veltra_deleteKeyPair"),
                ElementsAre(HasSubstr("key=3333..3333, pin=1234, flag=1"),
                            HasSubstr("key=2222..2222, pin=1234, flag=1")));
    EXPECT_EQ(token.keyPairs.size(), 3u);
    EXPECT_EQ(readContainerValue(name), "");
    EXPECT_EQ(open(name), accepted());
    EXPECT_EQ(context->keyName, name) << "gone from the cache as well";
}

TEST_F(ProviderContextTest, DeletionIsOnTheFirstTokenEvenIfItRefusesInitialisation) {
    library.addToken(freshName("Token")).addKeyPair(0x11);
    token.addKeyPair(0x11);
    storePinOfToken();
    library.script("veltra_initDevice", {.result = 5});
    EXPECT_EQ(open(mappedContainer(kId1), CRYPT_DELETEKEYSET | CRYPT_SILENT), accepted());
    expectInitialisation();
    EXPECT_THAT(library.calls("veltra_deleteKeyPair"),
                ElementsAre(HasSubstr("(serial=" + serial + ", key=1111..1111, pin=1234, flag=0)")));
    EXPECT_TRUE(isInitialised(serial));
}

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
    EXPECT_EQ(get(PP_ENUMALGS_EX, 88, CRYPT_FIRST), accepted());
    EXPECT_THAT(toHex(data), testing::StartsWith(toHex(dwords({0x2400, 2048, 2048, 4096}))));
    token.info.fipsMarker = "2.1";
    EXPECT_EQ(names(PP_ENUMALGS, CRYPT_FIRST | 4), // 4: CRYPT_SGC_ENUM, ignored
              kStart + "SHA-1 " + kEnd + ": no more algorithms, index=10");
    // Both records of the first row; the name lengths count the terminating zero.
    EXPECT_EQ(get(PP_ENUMALGS, 32, CRYPT_FIRST), accepted());
    EXPECT_THAT(toHex(data), testing::StartsWith(toHex(dwords({0x2400, 2048, 9}))));
    EXPECT_EQ(get(PP_ENUMALGS_EX, 89, CRYPT_FIRST), accepted());
    EXPECT_THAT(toHex(data), testing::StartsWith(toHex(dwords({0x2400, 2048, 1024, 4096, 0x30, 9}))));
    EXPECT_EQ(data[44], 14);
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
    EXPECT_EQ(set(PP_KEYEXCHANGE_PIN, "1234"), accepted());
    EXPECT_THAT(library.calls("veltra_validatePassword"),
                ElementsAre("veltra_validatePassword(serial=" + serial + ", pin=1234, mode=1, remaining=0)"));
    EXPECT_FALSE(set(PP_SIGNATURE_PIN, "12").result);
    EXPECT_EQ(getPin(serial).view(), "1234") << "a refused one takes nothing away";
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
        EXPECT_EQ(data, dwords({value != 0}));
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
