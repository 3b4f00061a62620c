#include "support/log_file.h"
#include "support/provider_test.h"

#include "token/crypto_policy.h"
#include "token/device_monitor.h"
#include "token/device_state.h"
#include "token/token_session.h"

#include <algorithm>

namespace veltra::test {
namespace {

class TokenSessionTest : public ProviderTest {};
class DeviceMonitorTest : public ProviderTest {
protected:
    /// Waits until `condition` holds; false when it does not within three polls.
    static bool soon(const std::function<bool()>& condition) {
        for (int i = 0; i < 150; ++i) {
            if (condition()) return true;
            Sleep(20);
        }
        return false;
    }
};

TEST_F(TokenSessionTest, ThirdCharacterOfTheMarkerTellsTheGeneration) {
    const std::pair<const char*, bool> kRows[] = {
        {"3.1.0", true}, {"3.1", true},  {"  1", true}, {"3.0.9", false}, {"31", false},
        {"111", true},   {"110", false}, {"", false},   {"1", false},     {"3.2.1", false}};
    for (const auto& [marker, expected] : kRows) {
        token.info.fipsMarker = marker;
        EXPECT_EQ(isFips1402Token(serial, nullptr), expected) << marker;
    }
    EXPECT_FALSE(isFips1402Token("unknown", nullptr));
    token.info.fipsMarker = "3.1.0";
    library.script("veltra_getTokenInfo", {.throws = true});
    EXPECT_FALSE(isFips1402Token(serial, nullptr)) << "a token that cannot be read";
}

TEST_F(TokenSessionTest, SessionNeedsTextAndBothFlags) {
    struct Row {
        const char* session;
        std::uint32_t third, fourth, fifth;
        bool expected;
    };
    const Row kRows[] = {{"s", 0, 1, 1, true},  {"", 0, 1, 1, false},  {"s", 1, 1, 0, false},
                         {"s", 1, 0, 1, false}, {"s", 0, 2, 1, false}, {"s", 0, 1, 2, false}};
    for (const Row& row : kRows) {
        TokenInfo info;
        info.session = row.session;
        info.words[2] = row.third;
        info.words[3] = row.fourth;
        info.words[4] = row.fifth;
        EXPECT_EQ(hasLoggedInSession(info), row.expected) << row.session << row.fourth << row.fifth;
    }
}

TEST_F(TokenSessionTest, PinStateOfASerial) {
    EXPECT_FALSE(isPinValidated(serial));
    EXPECT_STREQ(getPin(serial).c_str(), "");
    forgetPin(serial);
    EXPECT_FALSE(isPinValidated(serial)) << "forgetting makes no entry";

    storePin(serial, Pin());
    EXPECT_TRUE(isPinValidated(serial));
    EXPECT_FALSE(hasUsablePin(serial)) << "an empty PIN is not usable";

    storePin(serial, Pin("1234"));
    EXPECT_TRUE(hasUsablePin(serial));
    EXPECT_STREQ(getPin(serial).c_str(), "1234");

    forgetPin(serial, Pin("an older one"));
    EXPECT_TRUE(hasUsablePin(serial)) << "another thread has stored a newer PIN meanwhile";
    forgetPin(serial);
    EXPECT_TRUE(isPinValidated(serial)) << "the mark stays";
    EXPECT_FALSE(hasUsablePin(serial));
    EXPECT_FALSE(isInitialised(serial)) << "neither sets the other";
}

TEST_F(DeviceMonitorTest, PulledTokenIsForgottenAndOnlyThat) {
    startDeviceMonitor();
    const std::string second = freshName("Token");
    const std::string neverKnown = freshName("Token");
    library.addToken(second);
    library.addToken(neverKnown);
    for (const std::string& name : {serial, second}) {
        storePin(name, Pin("1234"));
        markInitialised(name);
    }
    library.setConnected(serial, false);
    library.setConnected(neverKnown, false);
    EXPECT_TRUE(soon([&] { return !isInitialised(serial); }));
    EXPECT_FALSE(isPinValidated(serial));
    EXPECT_STREQ(getPin(serial).c_str(), "");
    EXPECT_TRUE(hasUsablePin(second));
    EXPECT_TRUE(isInitialised(second));

    EXPECT_TRUE(
        soon([&] { return readLog().find("Device disconnected: " + serial + "\n") != std::string::npos; }));
    EXPECT_EQ(readLog().find("Device disconnected: " + neverKnown), std::string::npos);

    library.setConnected(serial, true);
    Sleep(1100);
    EXPECT_FALSE(isPinValidated(serial)) << "a token that comes back needs a new PIN";
}

TEST_F(DeviceMonitorTest, PollThatThrowsErasesNothingAndTheThreadLives) {
    startDeviceMonitor();
    markInitialised(serial);
    library.script("veltra_getConnectedDeviceList", {.throws = true});
    const int before = library.countOnAllThreads("veltra_getConnectedDeviceList");
    EXPECT_TRUE(
        soon([&] { return library.countOnAllThreads("veltra_getConnectedDeviceList") > before + 1; }));
    EXPECT_TRUE(isInitialised(serial));
    library.clearScripts();
    library.setConnected(serial, false);
    EXPECT_TRUE(soon([&] { return !isInitialised(serial); }));
}

TEST_F(DeviceMonitorTest, StopsAtOnceAndStartsAgain) {
    startDeviceMonitor();
    EXPECT_TRUE(soon([&] { return library.countOnAllThreads("veltra_getConnectedDeviceList") > 0; }));
    takeRawLogLines();
    const ULONGLONG begin = GetTickCount64();
    stopDeviceMonitor();
    EXPECT_LT(GetTickCount64() - begin, 500u) << "it does not wait for the next poll";
    EXPECT_THAT(takeRawLogLines(),
                ElementsAre(testing::EndsWith("Device monitor thread stopped."),
                            testing::EndsWith("Monitor thread joined (stopDeviceMonitor).")));
    stopDeviceMonitor();
    EXPECT_THAT(takeRawLogLines(), IsEmpty()) << "nothing was running";
    const int polls = library.countOnAllThreads("veltra_getConnectedDeviceList");
    Sleep(1100);
    EXPECT_EQ(library.countOnAllThreads("veltra_getConnectedDeviceList"), polls);
    runOnThreads(4, startDeviceMonitor);
    EXPECT_TRUE(soon([&] { return library.countOnAllThreads("veltra_getConnectedDeviceList") > polls; }));
    const auto lines = takeLogLines();
    EXPECT_EQ(std::ranges::count(lines, "DEBUG Monitor thread started (startDeviceMonitor)."), 1);
    EXPECT_EQ(std::ranges::count(lines, "DEBUG Monitor thread already running, not starting again."), 3);
}

} // namespace
} // namespace veltra::test
