#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <utility>

namespace veltra::test {
namespace {

const DWORD kNoToken = 0x80090023;
const std::string kId1(32, '1'); // the key name of key pair 0x11
const std::string kId2(32, '2');
const std::string kLetters = "ABABABABABABABABABABABABABABABAB";
const std::string kLowerCase = "abababababababababababababababab";

class ProviderContextTest : public CspTest {
protected:
    ~ProviderContextTest() override { CPReleaseContext(handle, 0); }

    /// Opens a context in the place of the last one.
    Answer open(const char* container, DWORD flags = 0) {
        CPReleaseContext(std::exchange(handle, 0), 0);
        return run([&] { return tryAcquire(&handle, container, flags); });
    }
    /// A container name of this test that the registry maps to `data`.
    std::string mappedContainer(const std::string& data, DWORD type = REG_SZ) {
        const std::string name = freshName("Container");
        writeContainerValue(name, data, type);
        return name;
    }
    std::string keyNameOfContainer(const std::string& container) {
        const auto context = liveContext(acquire(container.c_str()));
        return context ? context->keyName : "refused";
    }
    /// The last call started the device monitor, or found it running, and initialised the token.
    void expectInitialisation() const {
        EXPECT_THAT(debugLines, Contains(testing::StartsWith("Monitor thread ")));
        EXPECT_THAT(library.calls("veltra_initDevice"),
                    ElementsAre("veltra_initDevice(serial=" + serial + ", reread=0)"));
    }

    HCRYPTPROV handle = 0;
};

TEST_F(ProviderContextTest, AnyOfTheTopFourBitsMakesAVerifyContextThatTouchesNoToken) {
    token.connected = false;
    for (const DWORD flags : {0xF0000000u, 0x10000000u, 0x20000000u, 0x40000000u, 0x80000040u}) {
        EXPECT_EQ(open("name", flags), accepted());
        const auto context = liveContext(handle);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->serial + context->containerName, "");
        EXPECT_EQ(context->fixedWord, 0u);
        EXPECT_EQ(context->silent != 0, (flags & CRYPT_SILENT) != 0);
    }
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(ProviderContextTest, WithoutAContainerTheFirstTokenIsOpened) {
    token.addKeyPair(0x11);
    token.addKeyPair(0xAB);
    EXPECT_EQ(open(nullptr, CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET), accepted());
    expectInitialisation();
    const auto context = liveContext(handle);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->fixedWord, 4096u);
    EXPECT_FALSE(context->persistedContainer);
    EXPECT_THAT(context->keyList, ElementsAre(kId1, kLetters)) << "the token's order";
    library.clearCalls();
    EXPECT_EQ(open(nullptr), accepted());
    EXPECT_THAT(library.calls("veltra_initDevice"), IsEmpty()) << "once per token and process";
}

TEST_F(ProviderContextTest, TokenThatHoldsTheNamedKeyIsChosenIgnoringCaseElseTheFirst) {
    const std::string second = freshName("Token");
    library.addToken(second).addKeyPair(0xAB);
    const auto expectToken = [&](const std::string& container, const std::string& expected) {
        EXPECT_EQ(open(container.c_str(), CRYPT_SILENT), accepted());
        const auto context = liveContext(handle);
        ASSERT_NE(context, nullptr);
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

TEST_F(ProviderContextTest, NoTokenIsReportedAsAFullKeyset) {
    token.connected = false;
    EXPECT_EQ(open(nullptr),
              refused(kNoToken, {"CPAcquireContext: valid token not connected, return FALSE"}));
    EXPECT_EQ(handle, 0u);
    EXPECT_THAT(library.calls("veltra_getConnectedDeviceList"), SizeIs(1));
}

TEST_F(ProviderContextTest, TokenThatCannotBeInitialisedFailsAloneAndIsTriedAgain) {
    const std::string second = freshName("Token");
    library.addToken(second);
    library.script("veltra_initDevice", {.throws = true, .onCall = 1});
    library.script("veltra_initDevice", {.result = 5, .onCall = 3});
    const std::string failure = "Init device failed for " + serial + " : ";
    EXPECT_THAT(open(nullptr).errors, ElementsAre(testing::StartsWith(failure)));
    EXPECT_FALSE(isInitialised(serial));
    EXPECT_TRUE(isInitialised(second));
    EXPECT_EQ(open(nullptr), (Answer{TRUE, kUntouched, {failure + "5"}}));
    EXPECT_EQ(open(nullptr), accepted());
    EXPECT_TRUE(isInitialised(serial));
}

TEST_F(ProviderContextTest, ContainerMapGivesTheFirstKeyNameAndIsCached) {
    const std::string both = kId2 + "," + kId1;
    const std::string name = mappedContainer(both + std::string(1, '\0'));
    EXPECT_EQ(keyNameOfContainer(name), kId2);
    writeContainerValue(name, kId1);
    EXPECT_EQ(keyNameOfContainer(name), kId2) << "the cache comes first";
}

TEST_F(ProviderContextTest, RegistryDataIsNotTrusted) {
    const auto expectKeyName = [&](const std::string& data, const std::string& expected,
                                   DWORD type = REG_SZ) {
        EXPECT_EQ(keyNameOfContainer(mappedContainer(data, type)), expected) << data;
    };
    const auto expectNothing = [&](const std::string& data, DWORD type = REG_SZ) {
        const std::string name = mappedContainer(data, type);
        EXPECT_EQ(keyNameOfContainer(name), name) << data;
    };
    const std::string zero(1, '\0');
    expectKeyName(kId1, kId1); // not terminated
    expectKeyName(kId1 + zero + "," + kId2, kId1);
    expectKeyName(",," + kId2, kId2);
    expectKeyName(std::string(1024, 'A'), std::string(1024, 'A'));
    for (const std::string& data : {std::string(",,,"), std::string(), zero + kId1, std::string(1025, 'A')})
        expectNothing(data);
    for (const DWORD type : {REG_EXPAND_SZ, REG_BINARY, REG_DWORD})
        expectNothing(kId1.substr(0, 4), type);
}

class DeleteKeysetTest : public ProviderContextTest {
protected:
    Answer deleteKeyset(const std::string& container, DWORD flags = 0) {
        return open(container.c_str(), CRYPT_DELETEKEYSET | flags);
    }
    std::vector<std::string> deletions() const { return library.calls("veltra_deleteKeyPair"); }
    std::string deletion(const char* key, int flag) const {
        return concat("veltra_deleteKeyPair(serial=", serial, ", key=", key, ", pin=1234, flag=", flag, ")");
    }
};

const std::string kDeleting = "CPAcquireContext: CRYPT_DELETEKEYSET ";

TEST_F(DeleteKeysetTest, NothingMappedSucceedsWithoutAToken) {
    EXPECT_EQ(open(nullptr, CRYPT_DELETEKEYSET), accepted());
    EXPECT_EQ(deleteKeyset("unmapped", 0xF0000000), accepted()) << "deletion comes before a verify context";
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(DeleteKeysetTest, DeletesTheMappedKeysInOrderAndGoesOnAfterAFailure) {
    token.addKeyPair(0x11).flag = 0;
    token.addKeyPair(0x22).flag = 1;
    token.addKeyPair(0x33).flag = 0x100;
    token.addKeyPair(0xAB); // its name in the map has another case
    const std::string name = mappedContainer(std::string(32, '3') + "," + kLowerCase + "," + kId2);
    ASSERT_NE(acquire(name.c_str()), 0u) << "so that the map is cached";
    library.script("veltra_deleteKeyPair", {.result = 9, .onCall = 1});
    library.clearCalls();
    prompt.willType({"1234"});

    const std::string failure = kDeleting + "deleteKeyPair failed for " + std::string(32, '3') + " ret=9";
    handle = 0x5A5A;
    EXPECT_EQ(run([&] { return tryAcquire(&handle, name.c_str(), CRYPT_DELETEKEYSET); }),
              (Answer{TRUE, kUntouched, {failure}}));
    EXPECT_EQ(handle, 0u);
    EXPECT_THAT(deletions(), ElementsAre(deletion("3333..3333", 1), deletion("2222..2222", 1)));
    EXPECT_EQ(token.keyPairs.size(), 3u);
    EXPECT_EQ(readContainerValue(name), "");
    EXPECT_EQ(keyNameOfContainer(name), name) << "gone from the cache as well";
}

TEST_F(DeleteKeysetTest, AlwaysWorksOnTheFirstTokenEvenIfItRefusesInitialisation) {
    library.addToken(freshName("Token")).addKeyPair(0x11);
    token.addKeyPair(0x11);
    storePinOfToken();
    library.script("veltra_initDevice", {.result = 5});
    EXPECT_EQ(deleteKeyset(mappedContainer(kId1), CRYPT_SILENT), accepted());
    expectInitialisation();
    EXPECT_THAT(deletions(), ElementsAre(deletion("1111..1111", 0)));
    EXPECT_TRUE(isInitialised(serial));
}

TEST_F(DeleteKeysetTest, RefusalsLeaveTheMapAlone) {
    token.addKeyPair(0x11);
    const std::string name = mappedContainer(kId1);
    token.connected = false;
    EXPECT_EQ(deleteKeyset(name), refused(kNoToken, {kDeleting + "no token connected"}));
    token.connected = true;
    EXPECT_EQ(deleteKeyset(name, CRYPT_SILENT),
              refused(NTE_SILENT_CONTEXT, {kDeleting + "CRYPT_SILENT set, cannot prompt for PIN"}));
    EXPECT_EQ(deleteKeyset(name).errors.back(), kDeleting + "PIN validation failed");
    EXPECT_THAT(prompt.seen(), ElementsAre("ask"));
    EXPECT_EQ(token.keyPairs.size(), 1u);
    EXPECT_EQ(readContainerValue(name), kId1);
}

} // namespace
} // namespace veltra::test
