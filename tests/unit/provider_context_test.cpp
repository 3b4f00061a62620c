#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <utility>

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
            run([&] { return tryAcquire(&handle, container.empty() ? nullptr : container.c_str(), flags); });
        context = liveContext(handle);
        EXPECT_EQ(context != nullptr, answer.result && (flags & CRYPT_DELETEKEYSET) == 0);
        EXPECT_TRUE(context || handle == 0);
        CPReleaseContext(handle, 0);
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
    EXPECT_THAT(
        library.calls("veltra_deleteKeyPair"),
        ElementsAre(concat("veltra_deleteKeyPair(serial=", serial, ", key=1111..1111, pin=1234, flag=0)")));
    EXPECT_TRUE(isInitialised(serial));
}

} // namespace
} // namespace veltra::test
