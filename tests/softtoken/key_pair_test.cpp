#include "softtoken_test.h"

#include <thread>

namespace veltra::softtoken::test {

TEST_F(SoftTokenTest, EveryKeyTypeSignsAndVerifiesEveryHash) {
    struct {
        std::uint32_t requested, type;
        std::size_t publicKeyLength, signatureLength;
    } const cases[] = {{0, 2, 256, 256}, {5, 5, 65, 64}, {6, 6, 97, 96}, {7, 7, 133, 132}};
    ASSERT_EQ(logIn(), 0);
    const auto setFips = [](FipsGeneration fips) { change([=](TokenDescription& it) { it.fips = fips; }); };
    for (const auto& it : cases) {
        const VeltraKeyPair key = generate(it.requested, kUsageEncrypt);
        EXPECT_EQ(key.keyType, it.type);
        ASSERT_EQ(key.publicKeyLength, it.publicKeyLength);
        const bool isRsa = it.type == kKeyTypeRsa2048;
        EXPECT_EQ(key.publicKey[0] == 0x04, !isRsa);
        for (const std::size_t hashLength : {16, 20, 28, 32, 36, 48, 64}) {
            for (const bool pss : {false, true}) {
                SCOPED_TRACE(testing::Message() << "key type " << key.keyType << ", hash of " << hashLength
                                                << " bytes, PSS " << pss);
                Bytes signature;
                const int result = sign(key, hashLength, signature, pss);
                // MD5 and SHA-1 together: PKCS#1 v1.5 only
                ASSERT_EQ(result == 0, hashLength != 36 || (isRsa && !pss));
                if (result != 0) continue;
                ASSERT_EQ(signature.size(), it.signatureLength);
                EXPECT_EQ(verify(key, hashLength, signature, pss), 0);
                // ECDSA takes no more of a hash than the curve's length, and knows one scheme.
                if (isRsa)
                    expectRefusals({verify(key, hashLength, signature, !pss),
                                    verify(key, hashLength == 32 ? 48 : 32, signature, pss)});
                signature.back() ^= 1;
                expectRefusals({verify(key, hashLength, signature, pss)});
                setFips(FipsGeneration::Fips1403); // signs neither MD5 nor SHA-1
                EXPECT_EQ(sign(key, hashLength, signature, pss),
                          hashLength <= 20 || hashLength == 36 ? kDeviceWeakHashRefused : 0);
                setFips(FipsGeneration::Fips1402);
            }
        }
        Bytes out(512, 0xAA);
        int length = static_cast<int>(it.signatureLength) - 1;
        expectRefusals({veltra_signHash(kSerial, key.keyId, kPin, hashOf(32).data(), 32, out.data(), &length,
                                        false, nullptr, false)});
        EXPECT_EQ(out, Bytes(512, 0xAA)) << "a buffer that is too small is left alone";
    }
}

TEST_F(SoftTokenTest, KeysAreListedInOrderRenamedAndDeletedOneByOne) {
    ASSERT_EQ(logIn(), 0);
    VeltraKeyPair refused{};
    refused.keyType = kKeyTypeRsa1024;
    expectRefusals({veltra_generateKeyPair(kSerial, kPin, &refused, nullptr)});
    std::vector<VeltraKeyPair> made;
    for (const std::uint32_t type : {kKeyTypeEcP521, kKeyTypeEcP256, kKeyTypeEcP384})
        made.push_back(generate(type, kUsageBoth));
    EXPECT_EQ(made[0].usage, kUsageBoth);
    EXPECT_EQ(made[0].credentialIdLength, kKeyIdLength);
    EXPECT_EQ(toHex({made[0].credentialId, kKeyIdLength}), toHex(made[0].keyId));
    EXPECT_EQ(std::string(made[0].label), "Key-" + toHex(made[0].keyId).substr(0, 8));

    const std::string longest(kLabelMaxLength, 'x');
    const auto rename = [&](const VeltraKeyPair& key, const std::string& label) {
        return veltra_updateKeyPairDetails(kSerial, key.keyId, kPin, label.c_str(), nullptr, 0, nullptr);
    };
    const auto remove = [&](const VeltraKeyPair& key) {
        return veltra_deleteKeyPair(kSerial, key.keyId, kPin, false, nullptr);
    };
    EXPECT_EQ(rename(made[1], longest), 0);
    std::ranges::copy(longest, made[1].label);
    EXPECT_EQ(remove(made[0]), 0);
    expectRefusals({rename(made[1], longest + "x"), remove(made[0]), sign(made[0])});
    made.erase(made.begin());
    expectSameRecords(veltra_getKeyPairList(kSerial, nullptr), made);
    for (const VeltraKeyPair& key : made)
        EXPECT_EQ(sign(key), 0);
}

TEST_F(SoftTokenTest, AListStaysAsItIsWhileOtherThreadsAskForTheirs) {
    ASSERT_EQ(logIn(), 0);
    static_cast<void>(generate(kKeyTypeEcP256));
    const std::vector<VeltraKeyPair>& mine = veltra_getKeyPairList(kSerial, nullptr);
    const VeltraKeyPair* data = mine.data();
    for (int round = 0; round < 100; ++round) { // enough ended threads for their lists to be dropped
        std::thread([&] {
            if (round == 0) static_cast<void>(generate(kKeyTypeEcP256));
            EXPECT_EQ(veltra_getKeyPairList(kSerial, nullptr).size(), 2u);
        }).join();
    }
    EXPECT_EQ(mine.data(), data);
    EXPECT_EQ(mine.size(), 1u);
}

TEST_F(SoftTokenTest, AHashIsFinishedOnceAndThoseOfTheStandardAreRight) {
    // The mechanism and how the digest of "abc" begins, FIPS 180-4 examples.
    for (const auto& [mechanism, expected] : {std::pair(kMechanismSha1, "A9993E364706816A"),
                                              {kMechanismSha224, "23097D223405D822"},
                                              {kMechanismSha256, "BA7816BF8F01CFEA"},
                                              {kMechanismSha384, "CB00753F45A35E8B"},
                                              {kMechanismSha512, "DDAF35A193617ABA"}}) {
        Bytes data = {'a', 'b', 'c'};
        Bytes digest(64);
        void* hash = nullptr;
        ASSERT_EQ(veltra_initHash(kSerial, mechanism, &hash, nullptr), 0);
        for (const unsigned char& byte : data)
            EXPECT_EQ(veltra_updateHash(hash, &byte, 1, nullptr), 0);
        int length = 19;
        expectRefusals({veltra_finalHash(hash, digest.data(), &length, nullptr)});
        length = 64;
        ASSERT_EQ(veltra_finalHash(hash, digest.data(), &length, nullptr), 0);
        EXPECT_EQ(toHex(digest).substr(0, 16), expected);
        expectRefusals({veltra_updateHash(hash, data.data(), 1, nullptr),
                        veltra_finalHash(hash, digest.data(), &length, nullptr)});
    }
}

} // namespace veltra::softtoken::test
