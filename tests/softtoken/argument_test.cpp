// What no caller should pass.

#include "softtoken_test.h"

namespace veltra::softtoken::test {

TEST_F(SoftTokenTest, OnlyNamesOfTokensAreSerials) {
    create("A-token_1.x");
    fs::create_directories(home_ / "not a token");
    fs::create_directories(home_ / "empty");
    EXPECT_EQ(veltra_getConnectedDeviceList(true, nullptr),
              (std::vector<std::string>{"A-token_1.x", kSerial}));
    const std::string outside = "..\\" + home_.filename().string() + "\\" + kSerial;
    for (const std::string& serial :
         {std::string(), std::string("t1"), std::string("."), std::string(".."), outside, std::string("./T1"),
          std::string("T1."), std::string("T1:x"), std::string("NUL"), std::string("com1.txt"),
          std::string("empty"), std::string(100'000, 'T'), std::string("T1\xFF")}) {
        SCOPED_TRACE(serial.substr(0, 80));
        expectRefusals({veltra_initDevice(serial.c_str(), false, nullptr)});
        EXPECT_TRUE(veltra_getTokenInfo(serial.c_str(), nullptr).model.empty());
        EXPECT_TRUE(veltra_getKeyPairList(serial.c_str(), nullptr).empty());
        if (serial != "t1" && serial != "empty") {
            EXPECT_EQ(codeOf([&] { create(serial.c_str()); }), static_cast<int>(Failure::BadArgument));
        }
    }
}

TEST_F(SoftTokenTest, HostileArgumentsAreRefused) {
    ASSERT_EQ(logIn(), 0);
    VeltraKeyPair key = generate(kKeyTypeEcP256);
    VeltraCertificate certificate = certificateRecord(leaf_, 1);
    unsigned char bytes[64] = {};
    LibraryOutput out;
    int length = 64;
    int negative = -1;
    void* hash = nullptr;
    expectRefusals({veltra_initDevice(nullptr, false, nullptr),
                    veltra_validatePassword(nullptr, kPin, 1, &length, nullptr),
                    veltra_validatePassword(kSerial, nullptr, 1, nullptr, nullptr),
                    veltra_generateKeyPair(kSerial, kPin, nullptr, nullptr),
                    veltra_deleteKeyPair(kSerial, nullptr, kPin, false, nullptr),
                    veltra_updateKeyPairDetails(kSerial, key.keyId, kPin, nullptr, nullptr, 0, nullptr),
                    veltra_updateKeyPairDetails(kSerial, key.keyId, kPin, "x", bytes, -1, nullptr),
                    veltra_importAesKey(kSerial, kPin, nullptr, nullptr),
                    veltra_importCertificate(kSerial, kPin, nullptr, nullptr),
                    veltra_importCertificate("T9", kPin, &certificate, nullptr),
                    veltra_generateRamdomNumber("", -1, bytes, true, nullptr),
                    veltra_generateRamdomNumber("", 1, nullptr, true, nullptr),
                    veltra_generateRamdomNumber("", 1, bytes, false, nullptr)});
    const auto sign = [&](const unsigned char* id, const unsigned char* data, int dataLength,
                          unsigned char* signature, int* signatureLength) {
        return veltra_signHash(kSerial, id, kPin, data, dataLength, signature, signatureLength, false,
                               nullptr, false);
    };
    expectRefusals({sign(nullptr, bytes, 32, bytes, &length), sign(key.keyId, nullptr, 32, bytes, &length),
                    sign(key.keyId, bytes, -32, bytes, &length), sign(key.keyId, bytes, 0, bytes, &length),
                    sign(key.keyId, bytes, 33, bytes, &length), sign(key.keyId, bytes, 32, nullptr, &length),
                    sign(key.keyId, bytes, 32, bytes, nullptr),
                    sign(key.keyId, bytes, 32, bytes, &negative)});
    for (const std::uint32_t type : {0u, 1u, 2u, 5u, 8u, ~0u}) {
        const auto verify = [&](const unsigned char* data, int keyLength, int signatureLength) {
            return veltra_verifySignatureHash(type, nullptr, data, 32, data, keyLength, data, signatureLength,
                                              nullptr, false);
        };
        expectRefusals({verify(nullptr, 65, 64), verify(bytes, 64, 64), verify(bytes, 0, 0)});
    }
    const auto derive = [&](const char* serial, const unsigned char* id, const unsigned char* point, int size,
                            unsigned char** data, int* dataLength) {
        return veltra_ecdhDerive(serial, id, kPin, point, size, data, dataLength, nullptr);
    };
    const unsigned char* point = key.publicKey;
    expectRefusals({derive("T9", key.keyId, point, 65, &out.data, &out.length),
                    derive(nullptr, key.keyId, point, 65, &out.data, &out.length),
                    derive(kSerial, nullptr, point, 65, &out.data, &out.length),
                    derive(kSerial, key.keyId, nullptr, 65, &out.data, &out.length),
                    derive(kSerial, key.keyId, point, -65, &out.data, &out.length),
                    derive(kSerial, key.keyId, point, 65, nullptr, &out.length),
                    derive(kSerial, key.keyId, point, 65, &out.data, nullptr)});
    const auto decrypt = [&](const unsigned char* id, const unsigned char* in, int size,
                             unsigned char** data) {
        return veltra_decrypt(kSerial, id, kPin, in, size, data, &out.length, false, nullptr);
    };
    const auto decryptAes = [&](const unsigned char* keyBytes, int size) {
        return veltra_decrypt_aes(kSerial, keyBytes, 16, bytes, size, &out.data, &out.length, false, nullptr,
                                  0, nullptr);
    };
    const auto encryptAes = [&](const char* serial, int extraLength) {
        return veltra_encrypt_aes(serial, EncryptionType::Aes128Ecb, bytes, 16, bytes, 16, &out.data,
                                  &out.length, false, nullptr, 0, bytes, extraLength, nullptr);
    };
    const auto decryptInto = [&](const char* serial, const unsigned char* in, unsigned char* data,
                                 int* dataLength, const unsigned char* keyBytes) {
        return veltra_decryptSymetric(serial, in, 32, data, dataLength, bytes, 16, keyBytes, 16, nullptr);
    };
    expectRefusals(
        {decrypt(nullptr, bytes, 64, &out.data), decrypt(key.keyId, bytes, -64, &out.data),
         decrypt(key.keyId, bytes, 64, nullptr), decryptAes(nullptr, 16), decryptAes(bytes, -16),
         encryptAes("T9", 0), encryptAes("", 1), decryptInto("T9", bytes, bytes, &length, bytes),
         decryptInto("", nullptr, bytes, &length, bytes), decryptInto("", bytes, nullptr, &length, bytes),
         decryptInto("", bytes, bytes, nullptr, bytes), decryptInto("", bytes, bytes, &negative, bytes),
         decryptInto("", bytes, bytes, &length, nullptr)});
    EXPECT_TRUE(out.isEmpty());
    EXPECT_TRUE(veltra_getKeyPairList(nullptr, nullptr).empty() &&
                veltra_getAesKeyList(nullptr, nullptr).empty());
    EXPECT_TRUE(veltra_getCertificateList(nullptr, nullptr).empty());
    EXPECT_TRUE(veltra_getTokenInfo(nullptr, nullptr).model.empty());
    EXPECT_EQ(veltra_findCertificateForKey(kSerial, nullptr, nullptr), nullptr);
    EXPECT_EQ(veltra_findCertificateForKey(nullptr, key.keyId, nullptr), nullptr);

    expectRefusals(
        {veltra_initHash("", 1, &hash, nullptr), veltra_initHash("", kMechanismSha256, nullptr, nullptr),
         veltra_updateHash(nullptr, bytes, 1, nullptr), veltra_updateHash(&hash, bytes, 1, nullptr),
         veltra_finalHash(&hash, bytes, &length, nullptr)});
    ASSERT_EQ(veltra_initHash("", kMechanismSha256, &hash, nullptr), 0);
    expectRefusals({veltra_updateHash(hash, nullptr, 1, nullptr), veltra_updateHash(hash, bytes, -1, nullptr),
                    veltra_finalHash(hash, nullptr, &length, nullptr),
                    veltra_finalHash(hash, bytes, nullptr, nullptr),
                    veltra_finalHash(hash, bytes, &negative, nullptr)});
    EXPECT_EQ(veltra_finalHash(hash, bytes, &length, nullptr), 0);
}

TEST_F(SoftTokenTest, RandomNumbersFillExactlyTheBuffer) {
    for (const bool software : {false, true}) {
        Bytes buffers[2] = {Bytes(34, 0xAA), Bytes(34, 0xAA)};
        for (Bytes& buffer : buffers) {
            ASSERT_EQ(veltra_generateRamdomNumber(kSerial, 32, buffer.data() + 1, software, nullptr), 0);
            EXPECT_TRUE(buffer.front() == 0xAA && buffer.back() == 0xAA);
        }
        EXPECT_NE(buffers[0], buffers[1]);
    }
}

} // namespace veltra::softtoken::test
