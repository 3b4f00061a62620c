#include "loaded_library.h"

#include <cstring>

namespace veltra::softtoken::test {

namespace {

struct KeyCase {
    std::uint32_t requested;
    std::uint32_t type;
    std::uint32_t publicKeyLength;
    std::size_t signatureLength;
};

constexpr KeyCase kKeyCases[] = {
    {0, kKeyTypeRsa2048, 256, 256},
    {kKeyTypeRsa3072, kKeyTypeRsa3072, 384, 384},
    {kKeyTypeRsa4096, kKeyTypeRsa4096, 512, 512},
    {kKeyTypeEcP256, kKeyTypeEcP256, 65, 64},
    {kKeyTypeEcP384, kKeyTypeEcP384, 97, 96},
    {kKeyTypeEcP521, kKeyTypeEcP521, 133, 132},
};

bool isAccepted(const KeyCase& keyCase, std::size_t hashLength, bool pss) {
    const bool isRsa = keyCase.type <= kKeyTypeRsa4096;
    return hashLength != 36 || (isRsa && !pss); // MD5 and SHA-1 together: PKCS#1 v1.5 only
}

} // namespace

TEST_F(SoftTokenTest, EveryKeyTypeSignsAndVerifiesEveryHash) {
    ASSERT_EQ(logIn(), 0);
    for (const KeyCase& keyCase : kKeyCases) {
        const VeltraKeyPair key = generate(keyCase.requested, kUsageEncrypt);
        EXPECT_EQ(key.keyType, keyCase.type);
        ASSERT_EQ(key.publicKeyLength, keyCase.publicKeyLength);
        EXPECT_EQ(key.publicKey[0] == 0x04, keyCase.type >= kKeyTypeEcP256);
        for (const std::size_t hashLength : {16, 20, 28, 32, 36, 48, 64}) {
            for (const bool pss : {false, true}) {
                SCOPED_TRACE(testing::Message() << "key type " << key.keyType << ", hash of " << hashLength
                                                << " bytes, PSS " << pss);
                Bytes signature;
                const int result = sign(key, hashLength, signature, pss);
                ASSERT_EQ(result == 0, isAccepted(keyCase, hashLength, pss));
                if (result != 0) continue;
                ASSERT_EQ(signature.size(), keyCase.signatureLength);
                EXPECT_EQ(verify(key, hashLength, signature, pss), 0);
                signature.back() ^= 1;
                EXPECT_NE(verify(key, hashLength, signature, pss), 0);
            }
        }
    }
}

TEST_F(SoftTokenTest, SignaturesOfOneSchemeOrHashDoNotPassForAnother) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    Bytes signature;
    ASSERT_EQ(sign(key, 32, signature, true), 0);
    EXPECT_NE(verify(key, 32, signature, false), 0);
    EXPECT_NE(verify(key, 48, signature, true), 0);
    EXPECT_NE(verify(generate(kKeyTypeRsa2048), 32, signature, true), 0);
}

TEST_F(SoftTokenTest, GeneratedKeysAreListedInOrderWithTheirAttributes) {
    ASSERT_EQ(logIn(), 0);
    std::vector<VeltraKeyPair> made;
    for (const std::uint32_t type : {kKeyTypeEcP521, kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP256}) {
        made.push_back(generate(type, kUsageBoth));
    }
    const std::vector<VeltraKeyPair> listed = library_.getKeyPairList(kSerial, nullptr);
    ASSERT_EQ(listed.size(), made.size());
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_EQ(std::memcmp(&listed[i], &made[i], sizeof(VeltraKeyPair)), 0) << "key " << i;
    }
    const VeltraKeyPair& key = listed.front();
    EXPECT_EQ(key.usage, kUsageBoth);
    EXPECT_EQ(key.credentialIdLength, kKeyIdLength);
    EXPECT_EQ(std::memcmp(key.credentialId, key.keyId, kKeyIdLength), 0);
    EXPECT_EQ(std::string(key.label), "Key-" + toHex(key.keyId).substr(0, 8));
}

TEST_F(SoftTokenTest, RefusesToGenerateRsa1024) {
    ASSERT_EQ(logIn(), 0);
    VeltraKeyPair record{};
    record.keyType = kKeyTypeRsa1024;
    EXPECT_NE(library_.generateKeyPair(kSerial, kPin, &record, nullptr), 0);
    EXPECT_TRUE(library_.getKeyPairList(kSerial, nullptr).empty());
}

TEST_F(SoftTokenTest, KeysAreRenamedAndDeletedOneByOne) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair first = generate(kKeyTypeEcP256);
    const VeltraKeyPair second = generate(kKeyTypeEcP256);
    const std::string longest(kLabelMaxLength, 'x');
    EXPECT_EQ(
        library_.updateKeyPairDetails(kSerial, second.keyId, kPin, longest.c_str(), nullptr, 0, nullptr), 0);
    EXPECT_NE(library_.updateKeyPairDetails(kSerial, second.keyId, kPin, (longest + "x").c_str(), nullptr, 0,
                                            nullptr),
              0);
    EXPECT_EQ(sign(second), 0) << "renaming broke the key";
    EXPECT_EQ(library_.deleteKeyPair(kSerial, first.keyId, kPin, false, nullptr), 0);
    EXPECT_NE(library_.deleteKeyPair(kSerial, first.keyId, kPin, false, nullptr), 0);
    EXPECT_NE(sign(first), 0);
    const std::vector<VeltraKeyPair> listed = library_.getKeyPairList(kSerial, nullptr);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(std::string(listed[0].label), longest);
}

TEST_F(SoftTokenTest, Fips1403TokensRefuseToSignWeakHashes) {
    change([](TokenDescription& token) { token.fips = FipsGeneration::Fips1403; });
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    Bytes signature;
    for (const std::size_t weak : {16, 20, 36})
        EXPECT_EQ(sign(key, weak, signature), kDeviceWeakHashRefused);
    for (const std::size_t strong : {28, 32, 48, 64})
        EXPECT_EQ(sign(key, strong, signature), 0);
}

TEST_F(SoftTokenTest, ATooSmallSignatureBufferIsLeftAlone) {
    ASSERT_EQ(logIn(), 0);
    for (const std::uint32_t type : {kKeyTypeRsa2048, kKeyTypeEcP521}) {
        const VeltraKeyPair key = generate(type);
        const Bytes hash = hashOf(32);
        const int needed = type == kKeyTypeRsa2048 ? 256 : 132;
        Bytes out(512, 0xAA);
        int length = needed - 1;
        EXPECT_NE(library_.signHash(kSerial, key.keyId, kPin, hash.data(), 32, out.data(), &length, false,
                                    nullptr, false),
                  0);
        EXPECT_EQ(length, needed - 1);
        EXPECT_EQ(out, Bytes(512, 0xAA));
        length = needed;
        EXPECT_EQ(library_.signHash(kSerial, key.keyId, kPin, hash.data(), 32, out.data(), &length, false,
                                    nullptr, false),
                  0);
        EXPECT_EQ(length, needed);
    }
}

TEST_F(SoftTokenTest, HashesAreThoseOfTheStandard) {
    struct {
        int mechanism;
        const char* digest; // of "abc", FIPS 180-4 examples
    } const cases[] = {
        {kMechanismSha1, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
        {kMechanismSha224, "23097D223405D8228642A477BDA255B32AADBCE4BDA0B3F7E36C9DA7"},
        {kMechanismSha256, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
        {kMechanismSha384, "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED"
                           "8086072BA1E7CC2358BAECA134C825A7"},
        {kMechanismSha512, "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A"
                           "2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F"},
    };
    const Bytes message = {'a', 'b', 'c'};
    for (const auto& testCase : cases) {
        for (const char* serial : {"", kSerial}) {
            void* hash = nullptr;
            ASSERT_EQ(library_.initHash(serial, testCase.mechanism, &hash, nullptr), 0);
            EXPECT_EQ(library_.updateHash(hash, message.data(), 1, nullptr), 0);
            EXPECT_EQ(library_.updateHash(hash, message.data() + 1, 2, nullptr), 0);
            Bytes digest(64);
            int length = 19;
            EXPECT_NE(library_.finalHash(hash, digest.data(), &length, nullptr), 0);
            length = 64;
            ASSERT_EQ(library_.finalHash(hash, digest.data(), &length, nullptr), 0);
            EXPECT_EQ(toHex({digest.data(), static_cast<std::size_t>(length)}), testCase.digest);
            void* another = nullptr;
            ASSERT_EQ(library_.initHash(serial, testCase.mechanism, &another, nullptr), 0);
            EXPECT_NE(library_.updateHash(hash, message.data(), 1, nullptr), 0);
            EXPECT_NE(library_.finalHash(hash, digest.data(), &length, nullptr), 0);
            EXPECT_EQ(library_.finalHash(another, digest.data(), &length, nullptr), 0);
        }
    }
}

} // namespace veltra::softtoken::test
