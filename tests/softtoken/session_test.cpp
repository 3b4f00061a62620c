// The PIN, its attempts, and the sessions it opens. The DLL and the core library in this program are two
// processes to each other.

#include "softtoken_test.h"

#include "session.h"

#include <functional>

namespace veltra::softtoken::test {

TEST_F(SoftTokenTest, WrongPinsCountDownToALockThatTheRightPinDoesNotOpenAndWhatIsNoAttemptCostsNone) {
    create("T3", 2);
    const auto enter = [](const char* serial, const std::string& pin, int* remaining) {
        return static_cast<Failure>(veltra_validatePassword(serial, pin.c_str(), 1, remaining, nullptr));
    };
    // What the PIN is answered with, and the attempts that are left then; -1: it is right.
    const std::pair<std::string, int> steps[] = {{"", 2},        {"123", 2}, {std::string(64, '1'), 2},
                                                 {kWrongPin, 1}, {kPin, -1}, {kWrongPin, 1},
                                                 {kWrongPin, 0}, {kPin, 0}};
    for (const auto& [pin, left] : steps) {
        int remaining = -1;
        EXPECT_EQ(enter("T3", pin, &remaining) == kNoFailure, left == -1);
        EXPECT_EQ(remaining, left);
        EXPECT_EQ(attemptsOnDisk("T3"), left == -1 ? 2u : static_cast<unsigned>(left));
    }
    EXPECT_EQ(enter("T3", kPin, nullptr), Failure::PinLocked);
    change([](TokenDescription& token) { token.clockMismatch = true; });
    int remaining = 77;
    for (const char* pin : {kWrongPin, kPin})
        EXPECT_EQ(enter(kSerial, pin, &remaining), Failure::TimeMismatch);
    EXPECT_EQ(remaining, 77);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
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
    EXPECT_NE(failureOf([] { logIn(); }), kNoFailure);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts - 1);
}

TEST_F(SoftTokenTest, PinUsingOperationsNeedASessionAndItsPin) {
    logIn();
    VeltraKeyPair ec = generate(kKeyTypeEcP256);
    const VeltraKeyPair rsa = generate(kKeyTypeRsa2048);
    VeltraSymmetricKey aes = aesRecord(Bytes(16, 0x5A));
    VeltraCertificate certificate = certificateRecord(leaf_, 1);
    importAesKey(kSerial, kPin, aes);
    const std::function<void(const char*)> operations[] = {
        [&](const char* pin) { sign(ec, pin); },
        [&](const char* pin) { generateKeyPair(kSerial, pin, ec); },
        [&](const char* pin) { renameKeyPair(kSerial, ec.keyId, pin, "x"); },
        [&](const char* pin) { deleteKeyPair(kSerial, ec.keyId, pin); },
        [&](const char* pin) { importAesKey(kSerial, pin, aes); },
        [&](const char* pin) { importCertificate(kSerial, pin, certificate); },
        [&](const char* pin) { agree(kSerial, ec.keyId, pin, BytesView(ec.publicKey, 65)); },
        [&](const char* pin) { decrypt(kSerial, rsa.keyId, pin, BytesView(rsa.publicKey, 256)); }};
    for (const auto& operation : operations)
        EXPECT_EQ(failureOf([&] { operation(kWrongPin); }), Failure::WrongPin);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
    EXPECT_EQ(sign(ec, "").size(), 64u);
    plugInAgain();
    for (const auto& operation : operations)
        EXPECT_EQ(failureOf([&] { operation(kPin); }), Failure::SessionExpired);
    EXPECT_EQ(failureOf([&] { unwrapWithTokenKey(kSerial, aes.keyId, Bytes(32)); }), Failure::SessionExpired)
        << "unwrapping uses a key of the token";
    EXPECT_EQ(keyPairs(kSerial).size(), 2u);
}

TEST_F(SoftTokenTest, ASessionEndsWithItsTimeWithUnpluggingAndWithItsToken) {
    logIn();
    deleteToken(TokenFolder(kSerial));
    create(kSerial);
    EXPECT_EQ(failureOf([] { generate(kKeyTypeEcP256); }), Failure::SessionExpired)
        << "a key sealed under the old token's master key could never be used";

    logIn();
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    change([](TokenDescription& description) { description.sessionSeconds = 1; });
    logIn();
    Sleep(1100); // nothing has to happen within the second
    EXPECT_EQ(failureOf([&] { sign(key); }), Failure::SessionExpired);
    change([](TokenDescription& description) { description.sessionSeconds = 0; });
    logIn();
    EXPECT_EQ(sign(key).size(), 64u) << "a new PIN begins another";
    plugInAgain();
    EXPECT_EQ(failureOf([&] { sign(key); }), Failure::SessionExpired);

    setPlugged(TokenFolder(kSerial), false);
    EXPECT_TRUE(connectedSerials().empty());
    EXPECT_EQ(failureOf([] { requirePlugged(kSerial); }), Failure::NoSuchToken);
    EXPECT_EQ(failureOf([] { keyPairs(kSerial); }), Failure::NoSuchToken);
    EXPECT_EQ(failureOf([] { logIn(); }), Failure::NoSuchToken);
}

TEST_F(SoftTokenTest, SingleSignOnWorksInEveryProcessUntilItsTimeIsUp) {
    const fs::path file = TokenFolder(kSerial).path() / kSingleSignOnFile;
    std::uint32_t left = 0;
    const auto isSignedOn = [] {
        const TokenInfo info = veltra_getTokenInfo(kSerial, nullptr);
        return info.session == "single sign-on" && info.words[3] == 1 && info.words[4] == 1;
    };
    const auto generateElsewhere = [](const char* pin) {
        VeltraKeyPair key{};
        key.keyType = kKeyTypeEcP256;
        return static_cast<Failure>(veltra_generateKeyPair(kSerial, pin, &key, nullptr));
    };
    EXPECT_FALSE(isSignedOn());
    softtoken::logIn(kSerial, kPin, 600, left);
    EXPECT_TRUE(isSignedOn());
    for (const char* pin : {"", kPin})
        EXPECT_EQ(generateElsewhere(pin), kNoFailure);
    EXPECT_EQ(generateElsewhere(kWrongPin), Failure::WrongPin);
    const Bytes session = contentOf(file);
    plugInAgain();
    EXPECT_FALSE(isSignedOn());
    store(file, session);
    EXPECT_EQ(generateElsewhere(""), Failure::SessionExpired) << "it was for before the unplugging";

    softtoken::logIn(kSerial, kPin, 1, left);
    Sleep(1100);
    EXPECT_FALSE(isSignedOn());
    EXPECT_EQ(generateElsewhere(""), Failure::SessionExpired);
    EXPECT_FALSE(fs::exists(file));
}

} // namespace veltra::softtoken::test
