// The PIN, its attempts, and the sessions it opens. The DLL and the core library in this program are two
// processes to each other.

#include "softtoken_test.h"

#include "foundation/windows.h"
#include "session.h"

namespace veltra::softtoken::test {

TEST_F(SoftTokenTest, WrongPinsCountDownToALockThatTheRightPinDoesNotOpen) {
    create("T3", 3);
    // What the PIN is answered with, and the attempts that are left then; -1: it is right.
    for (const auto& [pin, left] :
         {std::pair(kWrongPin, 2), {kPin, -1}, {kWrongPin, 2}, {kWrongPin, 1}, {kWrongPin, 0}, {kPin, 0}}) {
        int remaining = -1;
        EXPECT_EQ(veltra_validatePassword("T3", pin, 1, &remaining, nullptr) == 0, left == -1);
        EXPECT_EQ(remaining, left);
        EXPECT_EQ(attemptsOnDisk("T3"), left == -1 ? 3u : static_cast<unsigned>(left));
    }
    expectRefusals({veltra_validatePassword("T3", kPin, 1, nullptr, nullptr)});
    std::uint32_t left = 77;
    EXPECT_EQ(failureOf([&] { validatePin("T3", kPin, left); }), Failure::PinLocked);
    EXPECT_EQ(left, 0u);
}

TEST_F(SoftTokenTest, AnAttemptIsTakenOnDiskBeforeThePinIsCompared) {
    // A stored scrypt cost that cannot be used stops the comparison half-way, as killing the process would.
    const fs::path pin = TokenFolder(kSerial).path() / "pin";
    parseRecord(pin, "pin", [&](const Expression& record) {
        writeRecord(pin,
                    Expression::build("(pin %S %S %S %S)", record.list("attempts").get(),
                                      record.list("salt").get(), Expression::field("cost", 3).get(),
                                      record.list("sealed").get()),
                    Overwrite::Allowed);
    });
    expectRefusals({logIn()});
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts - 1);
}

TEST_F(SoftTokenTest, WhatIsNoAttemptCostsNone) {
    int remaining = -1;
    for (const std::size_t length : {0, 3, 64, 5000}) {
        expectRefusals({logIn(std::string(length, '1').c_str(), &remaining)});
        EXPECT_EQ(remaining, static_cast<int>(kDefaultAttempts));
    }
    change([](TokenDescription& token) { token.clockMismatch = true; });
    remaining = 77;
    for (const char* pin : {kWrongPin, kPin})
        EXPECT_EQ(logIn(pin, &remaining), kDeviceTimeMismatch);
    EXPECT_EQ(remaining, 77);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
}

TEST_F(SoftTokenTest, PinUsingOperationsNeedASessionAndItsPin) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair ec = generate(kKeyTypeEcP256);
    const VeltraKeyPair rsa = generate(kKeyTypeRsa2048);
    VeltraSymmetricKey aes = aesRecord(Bytes(16, 0x5A));
    ASSERT_EQ(veltra_importAesKey(kSerial, kPin, &aes, nullptr), 0);
    LibraryOutput out;
    const auto expectAll = [&](int expected, const char* pin) {
        VeltraKeyPair key = ec;
        VeltraSymmetricKey aesKey = aesRecord(Bytes(16));
        VeltraCertificate certificate = certificateRecord(leaf_, 1);
        const int results[] = {
            sign(ec, pin),
            veltra_generateKeyPair(kSerial, pin, &key, nullptr),
            veltra_updateKeyPairDetails(kSerial, ec.keyId, pin, "x", nullptr, 0, nullptr),
            veltra_deleteKeyPair(kSerial, ec.keyId, pin, false, nullptr),
            veltra_importAesKey(kSerial, pin, &aesKey, nullptr),
            veltra_importCertificate(kSerial, pin, &certificate, nullptr),
            veltra_ecdhDerive(kSerial, ec.keyId, pin, ec.publicKey, 65, &out.data, &out.length, nullptr),
            veltra_decrypt(kSerial, rsa.keyId, pin, rsa.publicKey, 256, &out.data, &out.length, false,
                           nullptr)};
        EXPECT_THAT(results, testing::Each(expected));
    };
    expectAll(static_cast<int>(Failure::WrongPin), kWrongPin);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
    EXPECT_EQ(sign(ec, ""), 0);
    plugInAgain();
    expectAll(kDeviceSessionExpired, kPin);
    EXPECT_EQ(veltra_decrypt_aes(kSerial, aes.keyId, 16, rsa.publicKey, 32, &out.data, &out.length, false,
                                 nullptr, 0, nullptr),
              kDeviceSessionExpired)
        << "unwrapping uses a key of the token";
    EXPECT_TRUE(out.isEmpty());
    EXPECT_EQ(veltra_getKeyPairList(kSerial, nullptr).size(), 2u);
}

TEST_F(SoftTokenTest, ASessionEndsWithItsTimeWithUnpluggingAndWithItsToken) {
    ASSERT_EQ(logIn(), 0);
    deleteToken(TokenFolder(kSerial));
    create(kSerial);
    VeltraKeyPair record{};
    EXPECT_EQ(veltra_generateKeyPair(kSerial, kPin, &record, nullptr), kDeviceSessionExpired)
        << "a key sealed under the old token's master key could never be used";

    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    change([](TokenDescription& description) { description.sessionSeconds = 1; });
    ASSERT_EQ(logIn(), 0);
    Sleep(1100); // nothing has to happen within the second
    EXPECT_EQ(sign(key), kDeviceSessionExpired);
    change([](TokenDescription& description) { description.sessionSeconds = 0; });
    ASSERT_EQ(logIn(), 0);
    EXPECT_EQ(sign(key), 0) << "a new PIN begins another";
    plugInAgain();
    EXPECT_EQ(sign(key), kDeviceSessionExpired);

    setPlugged(TokenFolder(kSerial), false);
    EXPECT_TRUE(veltra_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_TRUE(veltra_getTokenInfo(kSerial, nullptr).model.empty());
    EXPECT_TRUE(veltra_getKeyPairList(kSerial, nullptr).empty());
    expectRefusals({veltra_initDevice(kSerial, false, nullptr), logIn()});
}

TEST_F(SoftTokenTest, SingleSignOnWorksInEveryProcessUntilItsTimeIsUp) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    const fs::path file = TokenFolder(kSerial).path() / kSingleSignOnFile;
    std::uint32_t left = 0;
    const auto isSignedOn = [] {
        const TokenInfo info = veltra_getTokenInfo(kSerial, nullptr);
        return info.session == "single sign-on" && info.words[3] == 1 && info.words[4] == 1;
    };
    EXPECT_FALSE(isSignedOn());
    softtoken::logIn(kSerial, kPin, 600, left);
    EXPECT_TRUE(isSignedOn());
    for (const char* pin : {"", kPin})
        EXPECT_EQ(signInCore(key.keyId, pin), kNoFailure);
    EXPECT_EQ(signInCore(key.keyId, kWrongPin), Failure::WrongPin);
    const Bytes session = contentOf(file);
    plugInAgain();
    EXPECT_FALSE(isSignedOn());
    store(file, session);
    EXPECT_EQ(signInCore(key.keyId, ""), Failure::SessionExpired) << "it was for before the unplugging";

    softtoken::logIn(kSerial, kPin, 1, left);
    Sleep(1100);
    EXPECT_FALSE(isSignedOn());
    EXPECT_EQ(signInCore(key.keyId, ""), Failure::SessionExpired);
    EXPECT_FALSE(fs::exists(file));
}

} // namespace veltra::softtoken::test
