#include "loaded_library.h"

#include "foundation/windows.h"
#include "pin_vault.h"
#include "token_operations.h"

#include <thread>

namespace veltra::softtoken::test {

namespace {

std::uint32_t attemptsOnDisk(const char* serial) {
    return PinVault(TokenFolder(serial).path()).attemptsLeft();
}

} // namespace

TEST_F(SoftTokenTest, WrongPinsCountDownToALockThatTheRightPinDoesNotOpen) {
    create("T3", FipsGeneration::Fips1402, 3);
    int remaining = -1;
    const auto tryPin = [&](const char* pin) {
        return library_.validatePassword("T3", pin, 1, &remaining, nullptr);
    };
    EXPECT_NE(tryPin("000000"), 0);
    EXPECT_EQ(remaining, 2);
    EXPECT_EQ(tryPin(kPin), 0);
    EXPECT_EQ(attemptsOnDisk("T3"), 3u) << "the right PIN gives the attempts back";
    for (const int left : {2, 1, 0}) {
        const int result = tryPin("000000");
        EXPECT_NE(result, 0);
        EXPECT_NE(result, kDeviceTimeMismatch);
        EXPECT_NE(result, kDeviceSessionExpired);
        EXPECT_EQ(remaining, left);
    }
    remaining = -1;
    EXPECT_NE(tryPin(kPin), 0);
    EXPECT_EQ(remaining, 0);
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    EXPECT_NE(other.validatePassword("T3", kPin, 1, &remaining, nullptr), 0) << "the lock is on disk";
    EXPECT_EQ(library_.validatePassword("T3", kPin, 1, nullptr, nullptr), tryPin(kPin)) << "null is allowed";
}

TEST_F(SoftTokenTest, AnAttemptIsTakenOnDiskBeforeThePinIsCompared) {
    // A stored scrypt cost that cannot be used stops the comparison half-way, as killing the process would.
    const TokenFolder token(kSerial);
    const std::optional<Expression> record = readRecord(token.path() / "pin", "pin");
    ASSERT_TRUE(record);
    const Expression unusable =
        Expression::build("(pin %S %S %S %S)", record->list("attempts").get(), record->list("salt").get(),
                          Expression::field("cost", 3).get(), record->list("sealed").get());
    writeRecord(token.path() / "pin", unusable, Overwrite::Allowed);
    int remaining = -1;
    EXPECT_NE(logIn(kPin, &remaining), 0);
    EXPECT_EQ(attemptsOnDisk(kSerial), kDefaultAttempts - 1);
}

TEST_F(SoftTokenTest, WrongPinsFromManyThreadsAndProcessesAreAllCounted) {
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        for (const LoadedLibrary* library : {&library_, &other}) {
            threads.emplace_back([=] { library->validatePassword(kSerial, "000000", 1, nullptr, nullptr); });
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(attemptsOnDisk(kSerial), kDefaultAttempts - threads.size());
}

TEST_F(SoftTokenTest, PinsOfImpossibleLengthCostNoAttempt) {
    for (const std::string& pin :
         {std::string(), std::string("123"), std::string(64, '1'), std::string(5000, '1')}) {
        int remaining = -1;
        EXPECT_NE(logIn(pin.c_str(), &remaining), 0);
        EXPECT_EQ(remaining, static_cast<int>(kDefaultAttempts));
    }
}

TEST_F(SoftTokenTest, AClockMismatchAnswers48AndCostsNoAttempt) {
    change([](TokenDescription& token) { token.clockMismatch = true; });
    int remaining = 77;
    EXPECT_EQ(logIn("000000", &remaining), kDeviceTimeMismatch);
    EXPECT_EQ(logIn(kPin, &remaining), kDeviceTimeMismatch);
    EXPECT_EQ(remaining, 77);
    EXPECT_EQ(attemptsOnDisk(kSerial), kDefaultAttempts);
}

TEST_F(SoftTokenTest, PinUsingOperationsNeedASession) {
    ASSERT_EQ(logIn(), 0);
    VeltraKeyPair key = generate(kKeyTypeEcP256);
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    const Bytes hash = hashOf(32);
    Bytes out(64);
    int length = 64;
    const int expired = kDeviceSessionExpired;
    EXPECT_EQ(
        other.signHash(kSerial, key.keyId, kPin, hash.data(), 32, out.data(), &length, false, nullptr, false),
        expired);
    EXPECT_EQ(other.generateKeyPair(kSerial, kPin, &key, nullptr), expired);
    EXPECT_EQ(other.updateKeyPairDetails(kSerial, key.keyId, kPin, "x", nullptr, 0, nullptr), expired);
    EXPECT_EQ(other.deleteKeyPair(kSerial, key.keyId, kPin, false, nullptr), expired);
    VeltraSymmetricKey aesKey{};
    aesKey.keyLength = 16;
    EXPECT_EQ(other.importAesKey(kSerial, kPin, &aesKey, nullptr), expired);
    VeltraCertificate certificate{};
    EXPECT_EQ(other.importCertificate(kSerial, kPin, &certificate, nullptr), expired);
    ASSERT_EQ(library_.importAesKey(kSerial, kPin, &aesKey, nullptr), 0);
    LibraryOutput secret;
    EXPECT_EQ(
        other.ecdhDerive(kSerial, key.keyId, kPin, key.publicKey, 65, &secret.data, &secret.length, nullptr),
        expired);
    key = generate(kKeyTypeRsa2048);
    LibraryOutput plaintext;
    EXPECT_EQ(other.decrypt(kSerial, key.keyId, kPin, key.publicKey, 256, &plaintext.data, &plaintext.length,
                            false, nullptr),
              expired);
    EXPECT_EQ(other.decryptAes(kSerial, aesKey.keyId, 16, hash.data(), 32, &plaintext.data, &plaintext.length,
                               false, nullptr, 0, nullptr),
              expired)
        << "unwrapping uses a key of the token";
    EXPECT_EQ(other.getKeyPairList(kSerial, nullptr).size(), 2u);
}

TEST_F(SoftTokenTest, ASessionEndsWithItsTimeAndANewPinBeginsAnother) {
    change([](TokenDescription& token) { token.sessionSeconds = 1; });
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    EXPECT_EQ(sign(key), 0);
    Sleep(1100);
    EXPECT_EQ(sign(key), kDeviceSessionExpired);
    ASSERT_EQ(logIn(), 0);
    EXPECT_EQ(sign(key), 0);
}

TEST_F(SoftTokenTest, ASessionEndsWhenTheTokenIsPulledOut) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    const TokenFolder token(kSerial);
    setPlugged(token, false);
    setPlugged(token, true);
    EXPECT_EQ(sign(key), kDeviceSessionExpired);
    ASSERT_EQ(logIn(), 0);
    EXPECT_EQ(sign(key), 0);

    setPlugged(token, false);
    EXPECT_TRUE(library_.getConnectedDeviceList(false, nullptr).empty());
    EXPECT_NE(library_.initDevice(kSerial, false, nullptr), 0);
    EXPECT_TRUE(library_.getTokenInfo(kSerial, nullptr).model.empty());
    EXPECT_TRUE(library_.getKeyPairList(kSerial, nullptr).empty());
    EXPECT_NE(sign(key), 0);
}

TEST_F(SoftTokenTest, ASessionDoesNotOutliveItsTokenIntoANewOneOfTheSameSerial) {
    ASSERT_EQ(logIn(), 0);
    deleteToken(TokenFolder(kSerial));
    create(kSerial);
    VeltraKeyPair record{};
    EXPECT_EQ(library_.generateKeyPair(kSerial, kPin, &record, nullptr), kDeviceSessionExpired)
        << "a key sealed under the old token's master key could never be used";
}

TEST_F(SoftTokenTest, AnotherPinThanTheSessionsIsRefusedWithoutCostingAnAttempt) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    EXPECT_EQ(sign(key, ""), 0);
    const int result = sign(key, "654321");
    EXPECT_NE(result, 0);
    EXPECT_NE(result, kDeviceSessionExpired);
    LibraryOutput secret;
    const auto agree = [&](const char* pin) {
        return library_.ecdhDerive(kSerial, key.keyId, pin, key.publicKey, 65, &secret.data, &secret.length,
                                   nullptr);
    };
    EXPECT_EQ(agree("654321"), result);
    EXPECT_EQ(agree(""), 0);
    EXPECT_EQ(attemptsOnDisk(kSerial), kDefaultAttempts);
}

TEST_F(SoftTokenTest, SingleSignOnWorksInEveryProcessUntilItsTimeIsUp) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    const auto signElsewhere = [&](const char* pin) {
        const Bytes hash = hashOf(32);
        Bytes out(64);
        int length = 64;
        return other.signHash(kSerial, key.keyId, pin, hash.data(), 32, out.data(), &length, false, nullptr,
                              false);
    };
    const auto isSignedOn = [&] {
        const TokenInfo info = other.getTokenInfo(kSerial, nullptr);
        return !info.session.empty() && info.words[3] == 1 && info.words[4] == 1;
    };
    EXPECT_FALSE(isSignedOn());
    std::uint32_t remaining = 0;
    softtoken::logIn(kSerial, kPin, 2, remaining);
    EXPECT_TRUE(isSignedOn());
    EXPECT_EQ(signElsewhere(""), 0);
    EXPECT_EQ(signElsewhere(kPin), 0);
    EXPECT_NE(signElsewhere("654321"), 0);
    Sleep(2100);
    EXPECT_FALSE(isSignedOn());
    EXPECT_EQ(signElsewhere(""), kDeviceSessionExpired);
    EXPECT_FALSE(std::filesystem::exists(TokenFolder(kSerial).path() / kSingleSignOnFile));

    softtoken::logIn(kSerial, kPin, 600, remaining);
    setPlugged(TokenFolder(kSerial), false);
    setPlugged(TokenFolder(kSerial), true);
    EXPECT_FALSE(isSignedOn());
}

TEST_F(SoftTokenTest, ChangingThePinKeepsTheKeys) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    const TokenFolder token(kSerial);
    PinVault(token.path()).change(token.description().tokenId, kPin, "another one");
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    EXPECT_NE(other.validatePassword(kSerial, kPin, 1, nullptr, nullptr), 0);
    ASSERT_EQ(other.validatePassword(kSerial, "another one", 1, nullptr, nullptr), 0);
    const Bytes hash = hashOf(32);
    Bytes out(64);
    int length = 64;
    EXPECT_EQ(
        other.signHash(kSerial, key.keyId, "", hash.data(), 32, out.data(), &length, false, nullptr, false),
        0);
}

} // namespace veltra::softtoken::test
