#include "softtoken_test.h"

#include <thread>

namespace veltra::softtoken::test {

// OpenSSL judges the signatures in the end-to-end tests.
TEST_F(SoftTokenTest, EveryKeyTypeSignsTheHashesThatItsTokenAndItsSchemeAllow) {
    logIn();
    // What is asked for, what is made, and the length of a signature.
    constexpr std::uint32_t kCases[][3] = {{0, kKeyTypeRsa2048, 256}, {5, 5, 64}, {6, 6, 96}, {7, 7, 132}};
    for (const auto& [requested, type, expected] : kCases) {
        const VeltraKeyPair key = generate(requested, kUsageEncrypt);
        EXPECT_EQ(key.keyType, type);
        for (const FipsGeneration fips : {FipsGeneration::Fips1402, FipsGeneration::Fips1403}) {
            change([=](TokenDescription& it) { it.fips = fips; });
            for (const std::size_t hash : {16, 20, 28, 32, 36, 48, 64}) {
                for (const auto scheme : {SignatureScheme::Pkcs1, SignatureScheme::Pss}) {
                    SCOPED_TRACE(testing::Message() << "key type " << type << ", hash of " << hash);
                    // MD5 and SHA-1, alone and, for PKCS#1 v1.5 only, together.
                    const bool weak = hash <= 20 || hash == 36;
                    const bool fits =
                        hash != 36 || (type == kKeyTypeRsa2048 && scheme == SignatureScheme::Pkcs1);
                    std::size_t length = expected;
                    const Failure failure = failureOf([&] { length = sign(key, kPin, hash, scheme).size(); });
                    if (weak && fips == FipsGeneration::Fips1403)
                        EXPECT_EQ(failure, Failure::WeakHash);
                    else
                        EXPECT_EQ(failure, fits ? kNoFailure : Failure::NotSupported);
                    EXPECT_EQ(length, expected);
                }
            }
        }
    }
}

TEST_F(SoftTokenTest, KeysAreListedInOrderRenamedAndDeletedOneByOne) {
    logIn();
    std::vector<VeltraKeyPair> made;
    for (const std::uint32_t type : {kKeyTypeEcP521, kKeyTypeEcP256, kKeyTypeEcP384})
        made.push_back(generate(type, kUsageBoth));
    const std::string longest(kLabelMaxLength, 'x');
    renameKeyPair(kSerial, made[1].keyId, kPin, longest);
    std::ranges::copy(longest, made[1].label);
    EXPECT_EQ(failureOf([&] { renameKeyPair(kSerial, made[1].keyId, kPin, longest + "x"); }),
              Failure::BadArgument);
    deleteKeyPair(kSerial, made[0].keyId, kPin);
    EXPECT_EQ(failureOf([&] { deleteKeyPair(kSerial, made[0].keyId, kPin); }), Failure::NoSuchKey);
    EXPECT_EQ(failureOf([&] { sign(made[0]); }), Failure::NoSuchKey);
    made.erase(made.begin());
    expectSameRecords(keyPairs(kSerial), made);
    for (const VeltraKeyPair& key : made) {
        EXPECT_FALSE(sign(key).empty());
        EXPECT_EQ(key.usage, kUsageBoth);
        EXPECT_EQ(toHex({key.credentialId, key.credentialIdLength}), toHex(key.keyId));
    }
    EXPECT_EQ(std::string(made[1].label), "Key-" + toHex(made[1].keyId).substr(0, 8));
}

TEST_F(SoftTokenTest, AListStaysAsItIsWhileOtherThreadsAskForTheirs) {
    logIn();
    generate(kKeyTypeEcP256);
    const std::vector<VeltraKeyPair>& mine = veltra_getKeyPairList(kSerial, nullptr);
    const VeltraKeyPair* data = mine.data();
    for (int round = 0; round < 100; ++round) { // enough ended threads for their lists to be dropped
        std::thread([&] {
            if (round == 0) generate(kKeyTypeEcP256);
            EXPECT_EQ(veltra_getKeyPairList(kSerial, nullptr).size(), 2u);
        }).join();
    }
    EXPECT_EQ(mine.data(), data);
    EXPECT_EQ(mine.size(), 1u);
}

} // namespace veltra::softtoken::test
