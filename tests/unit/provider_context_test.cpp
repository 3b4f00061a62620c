#include "support/csp_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

const DWORD kNoToken = 0x80090023;
const std::string kId1(32, '1'); // the key name of key pair 0x11
const std::string kId2(32, '2');
const std::string kLetters = "ABABABABABABABABABABABABABABABAB";

class ProviderContextTest : public CspTest {
protected:
    /// A container name of this test that the registry maps to `data`.
    std::string mappedContainer(const std::string& data, DWORD type = REG_SZ) {
        const std::string name = freshName("Container");
        writeContainerValue(name, data, type);
        return name;
    }
    /// Whether the last call started the device monitor or found it running.
    bool monitorWasStarted() const {
        return std::ranges::any_of(debugLines, [](const std::string& line) {
            return line == "Monitor thread started (startDeviceMonitor)." ||
                   line == "Monitor thread already running, not starting again.";
        });
    }
    std::string keyNameOfContainer(const std::string& container) {
        const auto context = liveContext(acquire(container.c_str()));
        return context ? context->keyName : "refused";
    }
};

class DeleteKeysetTest : public ProviderContextTest {
protected:
    Answer deleteKeyset(const std::string& container, DWORD flags = 0) {
        return run([&] { return tryAcquire(&context, container.c_str(), CRYPT_DELETEKEYSET | flags); });
    }
    std::vector<std::string> deletions() const { return library.calls("veltra_deleteKeyPair"); }

    HCRYPTPROV context = 0x5A5A;
};

const std::string kDeleting = "CPAcquireContext: CRYPT_DELETEKEYSET ";

TEST_F(ProviderContextTest, AcquireAndReleaseRefuseWhatIsMissing) {
    HCRYPTPROV none = 0;
    const HCRYPTPROV context = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    HCRYPTPROV released = 0;
    ASSERT_TRUE(tryAcquire(&released, nullptr, CRYPT_VERIFYCONTEXT));
    EXPECT_EQ(run([&] { return CPReleaseContext(released, 0); }), accepted());
    const auto releases = [](HCRYPTPROV handle, DWORD flags) {
        return [=] { return CPReleaseContext(handle, flags); };
    };
    const std::string acquires = "CPAcquireContext: invalid parameter - phProv=";
    const std::string releasing = "CPReleaseContext: invalid ";
    expectRefused({{[&] { return CPAcquireContext(nullptr, "x", CRYPT_DELETEKEYSET, table); },
                    ERROR_INVALID_PARAMETER, concat(acquires, "0 pVTable=", table)},
                   {[&] { return CPAcquireContext(&none, "x", 0, nullptr); }, ERROR_INVALID_PARAMETER,
                    concat(acquires, &none, " pVTable=0")},
                   {releases(0, 0), NTE_BAD_UID, releasing + "or uninitialized context"},
                   {releases(released, 0), NTE_BAD_UID, releasing + "or uninitialized context"},
                   {releases(context, 0xABCDEF), NTE_BAD_FLAGS, releasing + "dwFlags=0x00ABCDEF"}});
    EXPECT_THAT(library.calls(), IsEmpty());
    EXPECT_NE(createHash(context, CALG_SHA_256), 0u) << "the context stays usable";
}

TEST_F(ProviderContextTest, AnyOfTheTopFourBitsMakesAVerifyContextThatTouchesNoToken) {
    token.connected = false;
    for (const DWORD flags : {0xF0000000u, 0x10000000u, 0x20000000u, 0x40000000u, 0x80000040u}) {
        SCOPED_TRACE(flags);
        HCRYPTPROV handle = 0;
        EXPECT_EQ(run([&] { return tryAcquire(&handle, "name", flags); }), accepted());
        EXPECT_THAT(debugLines,
                    ElementsAre("CPAcquireContext", "CPAcquireContext - dwFlags : " + std::to_string(flags),
                                std::string("CPAcquireContext - isSilent : ") + (flags & 0x40 ? "1" : "0"),
                                "CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE"));
        const auto context = liveContext(handle);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->serial, "");
        EXPECT_EQ(context->containerName, "");
        EXPECT_EQ(context->fixedWord, 0u);
        EXPECT_EQ(context->initialised, 1);
        EXPECT_TRUE(CPReleaseContext(handle, 0));
    }
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(ProviderContextTest, OpenWithoutContainer) {
    token.addKeyPair(0x11);
    token.addKeyPair(0xAB);
    HCRYPTPROV handle = 0;
    EXPECT_EQ(run([&] { return tryAcquire(&handle, nullptr, CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET); }),
              accepted());
    EXPECT_TRUE(monitorWasStarted());
    EXPECT_THAT(debugLines, testing::AllOf(Contains("CPAcquireContext - dwFlags : 40"),
                                           Contains("CPAcquireContext - Container name not provided"),
                                           Contains("CPAcquireContext: container= serial=" + serial +
                                                    " silent=0, return TRUE")));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_init(mode=0, kind=2)", "veltra_getConnectedDeviceList(refresh=0)",
                            "veltra_init(mode=0, kind=2)",
                            "veltra_initDevice(serial=" + serial + ", reread=0)",
                            "veltra_getConnectedDeviceList(refresh=0)",
                            "veltra_getKeyPairList(serial=" + serial + ")"));
    const auto context = liveContext(handle);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->serial, serial);
    EXPECT_EQ(context->keyName, "");
    EXPECT_EQ(context->fixedWord, 4096u);
    EXPECT_EQ(context->silent, 0);
    EXPECT_FALSE(context->persistedContainer);
    EXPECT_THAT(context->keyList, ElementsAre(kId1, kLetters)) << "the token's order";

    library.clearCalls();
    EXPECT_EQ(liveContext(acquire(nullptr, CRYPT_SILENT))->silent, 1);
    EXPECT_THAT(library.calls("veltra_initDevice"), IsEmpty()) << "once per token and process";
    EXPECT_TRUE(CPReleaseContext(handle, 0));
}

TEST_F(ProviderContextTest, UnknownContainerOpensTheFirstTokenUnderItsOwnName) {
    library.addToken(freshName("Token"));
    const std::string name = freshName("Container");
    HCRYPTPROV handle = 0;
    EXPECT_EQ(run([&] { return tryAcquire(&handle, name.c_str(), CRYPT_SILENT); }), accepted());
    EXPECT_THAT(debugLines, testing::AllOf(Contains("CPAcquireContext - Container name : " + name),
                                           Contains("Acquire Context :: Key List is empty"),
                                           Contains("CPAcquireContext: container=" + name +
                                                    " serial=" + serial + " silent=1, return TRUE")));
    const auto context = liveContext(handle);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->keyName, name);
    EXPECT_EQ(context->containerName, name);
    EXPECT_TRUE(context->persistedContainer);
    EXPECT_TRUE(CPReleaseContext(handle, 0));
}

TEST_F(ProviderContextTest, TokenThatHoldsTheNamedKeyIsChosenIgnoringCase) {
    const std::string second = freshName("Token");
    library.addToken(second).addKeyPair(0xAB);
    token.addKeyPair(0x11);
    const std::pair<std::string, std::string> kRows[] = {
        {kLetters, second},       {"abababababababababababababababab", second},
        {kId1, serial},           {kLetters.substr(1), serial},
        {kLetters + "A", serial}, {"", serial}};
    for (const auto& [container, expected] : kRows) {
        const auto context = liveContext(acquire(container.c_str()));
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->serial, expected) << container;
        EXPECT_EQ(context->keyName, container);
    }
}

TEST_F(ProviderContextTest, NoTokenIsReportedAsAFullKeyset) {
    token.connected = false;
    HCRYPTPROV handle = 0;
    EXPECT_EQ(run([&] { return tryAcquire(&handle, nullptr, 0); }),
              refused(kNoToken, {"CPAcquireContext: valid token not connected, return FALSE"}));
    EXPECT_EQ(handle, 0u);
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_init(mode=0, kind=2)", "veltra_getConnectedDeviceList(refresh=0)"));
}

TEST_F(ProviderContextTest, TokenThatCannotBeInitialisedFailsAloneAndIsTriedAgain) {
    const std::string second = freshName("Token");
    library.addToken(second);
    library.script("veltra_initDevice", {.throws = true, .onCall = 1});
    library.script("veltra_initDevice", {.result = 5, .onCall = 3});
    HCRYPTPROV handle = 0;
    Answer answer = run([&] { return tryAcquire(&handle, nullptr, 0); });
    EXPECT_THAT(answer.errors, ElementsAre(testing::StartsWith("Init device failed for " + serial + " : ")));
    answer.errors.clear();
    EXPECT_EQ(answer, accepted());
    EXPECT_FALSE(isInitialised(serial));
    EXPECT_TRUE(isInitialised(second));
    EXPECT_TRUE(CPReleaseContext(handle, 0));
    EXPECT_EQ(run([&] { return tryAcquire(&handle, nullptr, 0); }),
              (Answer{TRUE, kUntouched, {"Init device failed for " + serial + " : 5"}}));
    EXPECT_TRUE(CPReleaseContext(handle, 0));
    EXPECT_NE(acquire(), 0u);
    EXPECT_TRUE(isInitialised(serial));
}

TEST_F(ProviderContextTest, ContainerMapGivesTheFirstKeyNameAndIsCached) {
    const std::string both = kId2 + "," + kId1;
    const std::string name = mappedContainer(both + std::string(1, '\0'));
    EXPECT_EQ(keyNameOfContainer(name), kId2);
    EXPECT_THAT(takeLogLines(),
                Contains("DEBUG CPAcquireContext - resolved container (registry) " + name + " -> " + kId2));
    writeContainerValue(name, kId1);
    EXPECT_EQ(keyNameOfContainer(name), kId2) << "the cache comes first";
    EXPECT_THAT(takeLogLines(),
                Contains("DEBUG CPAcquireContext - resolved container " + name + " -> " + kId2));
}

TEST_F(ProviderContextTest, RegistryDataIsNotTrusted) {
    struct Row {
        const char* name;
        std::string data;
        DWORD type;
        std::string expected; // empty: the container's own name
    };
    const Row kRows[] = {
        {"not terminated", kId1, REG_SZ, kId1},
        {"text behind the zero", kId1 + std::string(1, '\0') + "," + kId2, REG_SZ, kId1},
        {"empty names in front", ",," + kId2, REG_SZ, kId2},
        {"nothing but commas", ",,,", REG_SZ, ""},
        {"empty", "", REG_SZ, ""},
        {"zero in front", std::string(1, '\0') + kId1, REG_SZ, ""},
        {"exactly 1024 bytes", std::string(1024, 'A'), REG_SZ, std::string(1024, 'A')},
        {"1025 bytes", std::string(1025, 'A'), REG_SZ, ""},
        {"other text type", kId1, REG_EXPAND_SZ, ""},
        {"binary", kId1, REG_BINARY, ""},
        {"number", std::string("\1\0\0\0", 4), REG_DWORD, ""},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string name = mappedContainer(row.data, row.type);
        EXPECT_EQ(keyNameOfContainer(name), row.expected.empty() ? name : row.expected);
    }
}

TEST_F(DeleteKeysetTest, NothingMappedSucceedsWithoutAToken) {
    EXPECT_EQ(run([&] { return tryAcquire(&context, nullptr, CRYPT_DELETEKEYSET); }), accepted());
    EXPECT_EQ(context, 0u);
    EXPECT_THAT(debugLines,
                ElementsAre("CPAcquireContext", "CPAcquireContext - dwFlags : 16",
                            kDeleting + "container=(null)", kDeleting + "no container name, return TRUE"));
    EXPECT_EQ(deleteKeyset("unmapped", 0xF0000000), accepted()) << "deletion comes before a verify context";
    EXPECT_THAT(debugLines,
                testing::AllOf(Contains(kDeleting + "container=unmapped"),
                               Contains(kDeleting + "no mapped keys for container, return TRUE")));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(DeleteKeysetTest, DeletesTheMappedKeysInOrderAndGoesOnAfterAFailure) {
    token.addKeyPair(0x11).flag = 0;
    token.addKeyPair(0x22).flag = 1;
    token.addKeyPair(0x33).flag = 0x100;
    const std::string name = mappedContainer(std::string(32, '3') + "," + kLetters + "," + kId2);
    ASSERT_NE(acquire(name.c_str()), 0u) << "so that the map is cached";
    library.script("veltra_deleteKeyPair", {.result = 9, .onCall = 1});
    library.clearCalls();
    prompt.willType({"1234"});

    EXPECT_EQ(deleteKeyset(name),
              (Answer{TRUE,
                      kUntouched,
                      {kDeleting + "deleteKeyPair failed for " + std::string(32, '3') + " ret=9"}}));
    EXPECT_EQ(context, 0u);
    const std::string delete2 =
        "veltra_deleteKeyPair(serial=" + serial + ", key=2222..2222, pin=1234, flag=1)";
    EXPECT_THAT(deletions(),
                ElementsAre("veltra_deleteKeyPair(serial=" + serial + ", key=3333..3333, pin=1234, flag=1)",
                            delete2));
    EXPECT_THAT(debugLines,
                testing::AllOf(Contains(kDeleting + "deleting key " + kId2),
                               Contains(kDeleting + "key " + kLetters + " not found on token, skip"),
                               Contains(kDeleting + "done, return TRUE")));
    EXPECT_EQ(token.keyPairs.size(), 2u);
    EXPECT_EQ(readContainerValue(name), "");
    EXPECT_EQ(keyNameOfContainer(name), name) << "gone from the cache as well";
}

TEST_F(DeleteKeysetTest, LowerCaseNamesInTheMapAreSkippedAlthoughTheyOpenTheirToken) {
    token.addKeyPair(0xAB);
    storePinOfToken();
    const std::string name = mappedContainer("abababababababababababababababab");
    EXPECT_EQ(deleteKeyset(name), accepted());
    EXPECT_THAT(deletions(), IsEmpty());
    EXPECT_EQ(token.keyPairs.size(), 1u);
    EXPECT_EQ(readContainerValue(name), "");
}

TEST_F(DeleteKeysetTest, AlwaysWorksOnTheFirstTokenEvenIfItRefusesInitialisation) {
    library.addToken(freshName("Token")).addKeyPair(0x11);
    token.addKeyPair(0x11);
    storePinOfToken();
    library.script("veltra_initDevice", {.result = 5});
    EXPECT_EQ(deleteKeyset(mappedContainer(kId1), CRYPT_SILENT), accepted());
    EXPECT_TRUE(monitorWasStarted());
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_init(mode=0, kind=2)", "veltra_getConnectedDeviceList(refresh=0)",
                            "veltra_init(mode=0, kind=2)",
                            "veltra_initDevice(serial=" + serial + ", reread=0)",
                            "veltra_getKeyPairList(serial=" + serial + ")",
                            "veltra_deleteKeyPair(serial=" + serial + ", key=1111..1111, pin=1234, flag=0)"));
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
    EXPECT_EQ(deleteKeyset(name),
              refused(NTE_FAIL, {"loginUser: user cancelled password dialog, return FALSE",
                                 "ensurePasswordValidated: password validation failed, return false",
                                 kDeleting + "PIN validation failed"}));
    EXPECT_THAT(prompt.seen(), ElementsAre("ask"));
    EXPECT_THAT(deletions(), IsEmpty());
    EXPECT_EQ(readContainerValue(name), kId1);
}

} // namespace
} // namespace veltra::test
