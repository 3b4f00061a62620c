#include "softtoken_test.h"

#include <thread>

namespace veltra::softtoken::test {

// OpenSSL judges the signatures in the end-to-end tests.
TEST_F(SoftTokenTest, EveryKeyTypeSignsTheHashesThatItsTokenAndItsSchemeAllow) {
    const std::tuple<std::uint32_t, std::uint32_t, std::size_t> cases[] = {
        {0, kKeyTypeRsa2048, 256}, {5, 5, 64}, {6, 6, 96}, {7, 7, 132}};
    ASSERT_EQ(logIn(), 0);
    for (const auto& [requested, type, signatureLength] : cases) {
        const VeltraKeyPair key = generate(requested, kUsageEncrypt);
        EXPECT_EQ(key.keyType, type);
        for (const FipsGeneration fips : {FipsGeneration::Fips1402, FipsGeneration::Fips1403}) {
            change([=](TokenDescription& it) { it.fips = fips; });
            for (const std::size_t hashLength : {16, 20, 28, 32, 36, 48, 64}) {
                for (const bool pss : {false, true}) {
                    SCOPED_TRACE(testing::Message()
                                 << "type " << type << ", " << hashLength << ", PSS " << pss);
                    // MD5 and SHA-1, alone and, for PKCS#1 v1.5 only, together.
                    const bool weak = hashLength <= 20 || hashLength == 36;
                    const bool fits = hashLength != 36 || (type == kKeyTypeRsa2048 && !pss);
                    Bytes signature;
                    const int result = sign(key, hashLength, signature, pss);
                    if (weak && fips == FipsGeneration::Fips1403)
                        EXPECT_EQ(result, kDeviceWeakHashRefused);
                    else
                        EXPECT_EQ(result == 0, fits);
                    if (result != 0) continue;
                    EXPECT_EQ(signature.size(), signatureLength);
                }
            }
        }
        Bytes out(512, 0xAA);
        int length = static_cast<int>(signatureLength) - 1;
        expectRefusals({veltra_signHash(kSerial, key.keyId, kPin, hashOf(32).data(), 32, out.data(), &length,
                                        false, nullptr, false)});
        EXPECT_EQ(out, Bytes(512, 0xAA)) << "a buffer that is too small is left alone";
    }
}

TEST_F(SoftTokenTest, KeysAreListedInOrderRenamedAndDeletedOneByOne) {
    ASSERT_EQ(logIn(), 0);
    std::vector<VeltraKeyPair> made;
    for (const std::uint32_t type : {kKeyTypeEcP521, kKeyTypeEcP256, kKeyTypeEcP384})
        made.push_back(generate(type, kUsageBoth));
    const auto rename = [&](const VeltraKeyPair& key, const std::string& label) {
        return veltra_updateKeyPairDetails(kSerial, key.keyId, kPin, label.c_str(), nullptr, 0, nullptr);
    };
    const auto remove = [&](const VeltraKeyPair& key) {
        return veltra_deleteKeyPair(kSerial, key.keyId, kPin, false, nullptr);
    };
    const std::string longest(kLabelMaxLength, 'x');
    EXPECT_EQ(rename(made[1], longest), 0);
    std::ranges::copy(longest, made[1].label);
    EXPECT_EQ(remove(made[0]), 0);
    expectRefusals({rename(made[1], longest + "x"), remove(made[0]), sign(made[0])});
    made.erase(made.begin());
    expectSameRecords(veltra_getKeyPairList(kSerial, nullptr), made);
    for (const VeltraKeyPair& key : made) {
        EXPECT_EQ(sign(key), 0);
        EXPECT_EQ(key.usage, kUsageBoth);
        EXPECT_EQ(toHex({key.credentialId, key.credentialIdLength}), toHex(key.keyId));
    }
    EXPECT_EQ(std::string(made[1].label), "Key-" + toHex(made[1].keyId).substr(0, 8));
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

} // namespace veltra::softtoken::test
