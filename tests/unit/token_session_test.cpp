#include "support/log_file.h"
#include "support/provider_test.h"

#include "token/crypto_policy.h"
#include "token/device_monitor.h"
#include "token/device_state.h"
#include "token/token_session.h"

#include <algorithm>
#include <array>

namespace veltra::test {
namespace {

class TokenSessionTest : public ProviderTest {};
class DeviceMonitorTest : public ProviderTest {
protected:
    DeviceMonitorTest() { stopDeviceMonitor(); }

    int polls() const { return library.countOnAllThreads("veltra_getConnectedDeviceList"); }
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
    for (const char* marker : {"3.1.0", "  1", "3.0.9", "31", "110", "", "1", "3.2.1"}) {
        token.info.fipsMarker = marker;
        EXPECT_EQ(isFips1402Token(serial, nullptr), std::string_view(marker).find('1', 2) == 2) << marker;
    }
    EXPECT_FALSE(isFips1402Token("unknown", nullptr));
    token.info.fipsMarker = "3.1.0";
    library.script("veltra_getTokenInfo", {.throws = true});
    EXPECT_FALSE(isFips1402Token(serial, nullptr)) << "a token that cannot be read";
}

TEST_F(TokenSessionTest, SessionNeedsTextAndBothFlags) {
    const auto hasSession = [](const char* session, std::array<std::uint32_t, 3> flags) {
        TokenInfo info;
        info.session = session;
        std::ranges::copy(flags, info.words + 2);
        return hasLoggedInSession(info);
    };
    EXPECT_TRUE(hasSession("s", {0, 1, 1}));
    EXPECT_FALSE(hasSession("", {0, 1, 1}) || hasSession("s", {1, 1, 0}) || hasSession("s", {1, 0, 1}));
    EXPECT_FALSE(hasSession("s", {0, 2, 1}) || hasSession("s", {0, 1, 2})) << "no other number counts as set";
}

TEST_F(TokenSessionTest, PinStateOfASerial) {
    forgetPin(serial);
    EXPECT_FALSE(isPinValidated(serial)) << "forgetting makes no entry";
    storePin(serial, Pin());
    EXPECT_TRUE(isPinValidated(serial) && !hasUsablePin(serial)) << "an empty PIN is not usable";
    storePin(serial, Pin("1234"));
    forgetPin(serial, Pin("an older one"));
    EXPECT_TRUE(hasUsablePin(serial)) << "another thread has stored a newer PIN meanwhile";
    forgetPin(serial, Pin("1234"));
    EXPECT_FALSE(hasUsablePin(serial) || isInitialised(serial));
}

TEST_F(DeviceMonitorTest, PulledTokenIsForgottenAndOnlyThat) {
    const std::string second = freshName("Token");
    library.addToken(second);
    for (const std::string& name : {serial, second}) {
        storePin(name, Pin("1234"));
        markInitialised(name);
    }
    library.script("veltra_getConnectedDeviceList", {.throws = true});
    startDeviceMonitor();
    EXPECT_TRUE(soon([&] { return polls() > 1; })) << "a poll that throws does not end it";
    EXPECT_TRUE(isInitialised(serial)) << "and erases nothing";
    const std::string failed = "Device monitor: a poll of the connected tokens failed", log = readLog();
    EXPECT_THAT(log, HasSubstr(failed));
    EXPECT_EQ(log.find(failed), log.rfind(failed)) << "the first one of a row is reported";
    library.clearScripts();
    library.setConnected(serial, false);
    EXPECT_TRUE(soon([&] { return !isInitialised(serial); }));
    EXPECT_FALSE(isPinValidated(serial)) << "a token that comes back needs a new PIN";
    EXPECT_STREQ(getPin(serial).c_str(), "");
    EXPECT_TRUE(hasUsablePin(second) && isInitialised(second));
}

TEST_F(DeviceMonitorTest, StopsAtOnceAndStartsAgainOnce) {
    startDeviceMonitor();
    EXPECT_TRUE(soon([&] { return polls() > 0; }));
    const ULONGLONG begin = GetTickCount64();
    stopDeviceMonitor();
    EXPECT_LT(GetTickCount64() - begin, 500u) << "it does not wait for the next poll";
    stopDeviceMonitor(); // nothing is running
    const int before = polls();
    Sleep(1100);
    EXPECT_EQ(polls(), before);
    takeLogLines();
    runOnThreads(4, startDeviceMonitor);
    EXPECT_EQ(std::ranges::count(takeLogLines(), "DEBUG Monitor thread started (startDeviceMonitor)."), 1);
}

} // namespace
} // namespace veltra::test
