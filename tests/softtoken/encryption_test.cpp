#include "loaded_library.h"

#include <algorithm>
#include <cstring>

namespace veltra::softtoken::test {

namespace {

int lengthOf(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

} // namespace

class EncryptionTest : public SoftTokenTest {
protected:
    EncryptionTest() { EXPECT_EQ(logIn(), 0); }

    int encryptRsa(const VeltraKeyPair& key, PaddingMode padding, const Bytes& message, Bytes& ciphertext,
                   int capacity = 512, EncryptionType type = EncryptionType::Rsa2048) const {
        const Bytes der = rsaKeyDer(key);
        ciphertext.assign(512, 0xAA);
        int length = capacity;
        const int result = library_.encrypt(type, padding, message.data(), lengthOf(message),
                                            ciphertext.data(), &length, der.data(), lengthOf(der), nullptr);
        if (result == 0) ciphertext.resize(static_cast<std::size_t>(length));
        return result;
    }

    int decryptRsa(const VeltraKeyPair& key, const Bytes& ciphertext, LibraryOutput& plaintext) const {
        return library_.decrypt(kSerial, key.keyId, kPin, ciphertext.data(), lengthOf(ciphertext),
                                &plaintext.data, &plaintext.length, false, nullptr);
    }

    int encryptAes(EncryptionType type, const Bytes& key, const Bytes& iv, const Bytes& plaintext, bool final,
                   LibraryOutput& ciphertext) const {
        return library_.encryptAes(kSerial, type, key.data(), lengthOf(key), plaintext.data(),
                                   lengthOf(plaintext), &ciphertext.data, &ciphertext.length, final,
                                   iv.data(), lengthOf(iv), nullptr, 0, nullptr);
    }

    int decryptAes(const Bytes& key, const Bytes& iv, const Bytes& ciphertext,
                   LibraryOutput& plaintext) const {
        return library_.decryptAes(kSerial, key.data(), lengthOf(key), ciphertext.data(),
                                   lengthOf(ciphertext), &plaintext.data, &plaintext.length, false, iv.data(),
                                   lengthOf(iv), nullptr);
    }

    /// veltra_decryptSymetric without a token into a buffer of this capacity, cut to the length that comes
    /// back.
    int decryptInto(Bytes& buffer, std::size_t capacity, const Bytes& key, const Bytes& iv,
                    const Bytes& ciphertext) const {
        buffer.assign(capacity + 16, 0xAA);
        int length = static_cast<int>(capacity);
        const int result =
            library_.decryptSymetric("", ciphertext.data(), lengthOf(ciphertext), buffer.data(), &length,
                                     iv.data(), lengthOf(iv), key.data(), lengthOf(key), nullptr);
        EXPECT_EQ(Bytes(buffer.end() - 16, buffer.end()), Bytes(16, 0xAA)) << "written behind the buffer";
        buffer.resize(static_cast<std::size_t>(length), 0xAA);
        return result;
    }

    int importAes(const Bytes& key, VeltraSymmetricKey& record) const {
        std::ranges::copy(key, record.key);
        record.keyLength = static_cast<std::uint32_t>(key.size());
        return library_.importAesKey(kSerial, kPin, &record, nullptr);
    }
};

TEST_F(EncryptionTest, RsaDecryptsEveryPaddingUpToItsLongestMessage) {
    struct {
        PaddingMode padding;
        int overhead; // RFC 8017: 11, and twice the hash and 2
    } const cases[] = {
        {PaddingMode::Pkcs1, 11},      {PaddingMode::OaepSha1, 42},    {PaddingMode::OaepSha256, 66},
        {PaddingMode::OaepSha384, 98}, {PaddingMode::OaepSha512, 130}, {PaddingMode::OaepSha1Alternative, 42},
    };
    for (const std::uint32_t type : {kKeyTypeRsa2048, kKeyTypeRsa3072}) {
        const VeltraKeyPair key = generate(type, kUsageEncrypt);
        const int modulusLength = static_cast<int>(key.publicKeyLength);
        for (const auto& testCase : cases) {
            const int longest = modulusLength - testCase.overhead;
            for (const int length : {1, 32, longest}) {
                SCOPED_TRACE(testing::Message() << modulusLength << " bytes, padding "
                                                << static_cast<int>(testCase.padding) << ", " << length);
                Bytes message = hashOf(static_cast<std::size_t>(length));
                message[0] = 0; // the first byte of a message is no different
                Bytes ciphertext;
                ASSERT_EQ(encryptRsa(key, testCase.padding, message, ciphertext, modulusLength), 0);
                ASSERT_EQ(lengthOf(ciphertext), modulusLength);
                LibraryOutput plaintext;
                ASSERT_EQ(decryptRsa(key, ciphertext, plaintext), 0);
                EXPECT_EQ(plaintext.bytes(), message);
            }
            Bytes ciphertext;
            EXPECT_NE(encryptRsa(key, testCase.padding, hashOf(static_cast<std::size_t>(longest) + 1),
                                 ciphertext, modulusLength),
                      0);
            EXPECT_NE(encryptRsa(key, testCase.padding, hashOf(1), ciphertext, modulusLength - 1), 0);
            EXPECT_EQ(ciphertext, Bytes(512, 0xAA)) << "a refusal leaves the buffer alone";
        }
    }
}

TEST_F(EncryptionTest, RsaEncryptionRefusesOtherTypesPaddingsAndKeys) {
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    Bytes out;
    const auto encrypts = [&](EncryptionType type, int padding) {
        return encryptRsa(key, static_cast<PaddingMode>(padding), hashOf(16), out, 512, type) == 0;
    };
    for (const std::uint32_t type : {7, 8, 9, 10})
        EXPECT_TRUE(encrypts(static_cast<EncryptionType>(type), 1)) << "the key decides, not type " << type;
    for (const std::uint32_t type : {0, 1, 2, 5, 6, 11})
        EXPECT_FALSE(encrypts(static_cast<EncryptionType>(type), 1)) << type;
    for (const int padding : {0, 2, 3, 9, -1})
        EXPECT_FALSE(encrypts(EncryptionType::Rsa2048, padding)) << padding;
    const Bytes der = rsaKeyDer(key);
    for (std::size_t length = 0; length < der.size(); length += 7) {
        int outLength = 512;
        EXPECT_NE(library_.encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, out.data(), 16, out.data(),
                                   &outLength, der.data(), static_cast<int>(length), nullptr),
                  0);
    }
    int outLength = 512;
    EXPECT_NE(library_.encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, out.data(), -1, out.data(),
                               &outLength, der.data(), lengthOf(der), nullptr),
              0);
    EXPECT_NE(library_.encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, out.data(), 16, nullptr,
                               &outLength, der.data(), lengthOf(der), nullptr),
              0);
}

TEST_F(EncryptionTest, WhateverIsWrongWithAnRsaCiphertextGivesOneCode) {
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    const VeltraKeyPair other = generate(kKeyTypeRsa2048);
    std::vector<Bytes> wrong = {{}, Bytes(256), Bytes(256, 0xFF), Bytes(255, 1), Bytes(257), Bytes(10'000)};
    wrong.emplace_back(key.publicKey, key.publicKey + 256);
    wrong.emplace_back(256).back() = 1;
    for (const int padding : {1, 4, 5, 6, 7}) {
        Bytes ciphertext;
        ASSERT_EQ(encryptRsa(key, static_cast<PaddingMode>(padding), hashOf(32), ciphertext), 0);
        wrong.emplace_back(ciphertext.begin(), ciphertext.end() - 1);
        ciphertext[100] ^= 1;
        wrong.push_back(ciphertext);
        ASSERT_EQ(encryptRsa(other, static_cast<PaddingMode>(padding), hashOf(32), ciphertext), 0);
        wrong.push_back(ciphertext);
    }
    LibraryOutput first;
    const int code = decryptRsa(key, wrong.front(), first);
    EXPECT_NE(code, 0);
    EXPECT_NE(code, kDeviceSessionExpired);
    for (const Bytes& ciphertext : wrong) {
        LibraryOutput plaintext;
        EXPECT_EQ(decryptRsa(key, ciphertext, plaintext), code) << toHex(ciphertext).substr(0, 32);
        EXPECT_TRUE(plaintext.isEmpty());
    }
    LibraryOutput plaintext;
    EXPECT_NE(decryptRsa(generate(kKeyTypeEcP256), wrong[1], plaintext), 0);
    EXPECT_NE(library_.decrypt(kSerial, nullptr, kPin, wrong[1].data(), 256, &plaintext.data,
                               &plaintext.length, false, nullptr),
              0);
    EXPECT_NE(library_.decrypt(kSerial, key.keyId, kPin, wrong[1].data(), 256, nullptr, &plaintext.length,
                               false, nullptr),
              0);
}

TEST_F(EncryptionTest, AesIsThatOfTheStandard) {
    // NIST SP 800-38A, F.1 and F.2, the first two blocks.
    const Bytes plaintext = fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
    const Bytes cbcIv = fromHex("000102030405060708090a0b0c0d0e0f");
    const Bytes keys[] = {fromHex("2b7e151628aed2a6abf7158809cf4f3c"),
                          fromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"),
                          fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4")};
    struct {
        EncryptionType type;
        int key;
        const char* ciphertext;
    } const cases[] = {
        {EncryptionType::Aes128Ecb, 0, "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"},
        {EncryptionType::Aes192Or256Ecb, 1,
         "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"},
        {EncryptionType::Aes192Or256Ecb, 2,
         "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"},
        {EncryptionType::Aes128Cbc, 0, "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
        {EncryptionType::Aes192Or256Cbc, 1,
         "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"},
        {EncryptionType::Aes192Or256Cbc, 2,
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.ciphertext);
        const Bytes& key = keys[testCase.key];
        const Bytes iv = static_cast<int>(testCase.type) >= 5 ? Bytes() : cbcIv;
        LibraryOutput ciphertext;
        ASSERT_EQ(encryptAes(testCase.type, key, iv, plaintext, false, ciphertext), 0);
        EXPECT_EQ(ciphertext.bytes(), fromHex(testCase.ciphertext));
        LibraryOutput again;
        ASSERT_EQ(decryptAes(key, iv, ciphertext.bytes(), again), 0);
        EXPECT_EQ(again.bytes(), plaintext) << "data that was not padded comes back whole";
        Bytes buffer;
        ASSERT_EQ(decryptInto(buffer, 32, key, iv, ciphertext.bytes()), 0);
        EXPECT_EQ(buffer, plaintext);
        for (const std::size_t length : {0, 1, 15, 16, 17, 100'000}) {
            const Bytes message = hashOf(length);
            LibraryOutput padded;
            LibraryOutput decrypted;
            ASSERT_EQ(encryptAes(testCase.type, key, iv, message, true, padded), 0);
            EXPECT_EQ(padded.length, static_cast<int>(length / 16 * 16 + 16));
            ASSERT_EQ(decryptAes(key, iv, padded.bytes(), decrypted), 0);
            EXPECT_EQ(decrypted.bytes(), message);
            ASSERT_EQ(decryptInto(buffer, length, key, iv, padded.bytes()), 0);
            EXPECT_EQ(buffer, message);
        }
    }
}

TEST_F(EncryptionTest, DecryptionTakesOffOnlyValidPadding) {
    const Bytes key(16, 0x55);
    struct {
        const char* lastBytes;
        std::size_t left;
    } const cases[] = {{"01", 15},     {"0202", 14}, {"0102", 16},
                       {"00", 16},     {"11", 16},   {"10", 16},
                       {"030303", 13}, {"0303", 16}, {"10101010101010101010101010101010", 0}};
    for (const auto& testCase : cases) {
        Bytes block(16, 0xEE);
        const Bytes last = fromHex(testCase.lastBytes);
        std::copy(last.begin(), last.end(), block.end() - static_cast<std::ptrdiff_t>(last.size()));
        LibraryOutput ciphertext;
        LibraryOutput plaintext;
        ASSERT_EQ(encryptAes(EncryptionType::Aes128Ecb, key, {}, block, false, ciphertext), 0);
        ASSERT_EQ(decryptAes(key, {}, ciphertext.bytes(), plaintext), 0);
        block.resize(testCase.left);
        EXPECT_EQ(plaintext.bytes(), block) << testCase.lastBytes;
        EXPECT_NE(plaintext.data, nullptr);
    }
}

TEST_F(EncryptionTest, AesRefusesWhatDoesNotFit) {
    struct {
        std::uint32_t type;
        std::size_t keyLength, ivLength, length;
    } const cases[] = {
        {1, 15, 16, 16}, {1, 24, 16, 16}, {1, 0, 16, 16},  {2, 16, 16, 16}, {2, 33, 16, 16}, {5, 32, 0, 16},
        {6, 16, 0, 16},  {1, 16, 15, 16}, {1, 16, 0, 16},  {1, 16, 17, 16}, {0, 16, 16, 16}, {7, 16, 16, 16},
        {1, 16, 16, 15}, {5, 16, 0, 17},  {5, 16, 16, 16}, {6, 32, 16, 16}, {2, 32, 0, 16},
    };
    for (const auto& it : cases) {
        LibraryOutput out;
        EXPECT_NE(encryptAes(static_cast<EncryptionType>(it.type), Bytes(it.keyLength), Bytes(it.ivLength),
                             Bytes(it.length), false, out),
                  0)
            << it.type << ' ' << it.keyLength << ' ' << it.ivLength << ' ' << it.length;
        EXPECT_TRUE(out.isEmpty());
    }
    LibraryOutput out;
    for (const std::size_t length : {0, 1, 15, 17})
        EXPECT_NE(decryptAes(Bytes(16), {}, Bytes(length), out), 0) << length;
    EXPECT_NE(decryptAes(Bytes(16), Bytes(8), Bytes(16), out), 0);
    EXPECT_NE(decryptAes(Bytes(17), {}, Bytes(16), out), 0);
    EXPECT_NE(decryptAes({}, {}, Bytes(16), out), 0);
    EXPECT_TRUE(out.isEmpty());
    const unsigned char bytes[32] = {};
    EXPECT_NE(library_.decryptAes(kSerial, nullptr, 16, bytes, 16, &out.data, &out.length, false, nullptr, 0,
                                  nullptr),
              0);
    EXPECT_NE(library_.decryptAes(kSerial, bytes, 16, bytes, -16, &out.data, &out.length, false, nullptr, 0,
                                  nullptr),
              0);
    EXPECT_NE(library_.encryptAes("T9", EncryptionType::Aes128Ecb, bytes, 16, bytes, 16, &out.data,
                                  &out.length, false, nullptr, 0, nullptr, 0, nullptr),
              0);
    EXPECT_EQ(library_.encryptAes("", EncryptionType::Aes128Ecb, bytes, 16, bytes, 16, &out.data, &out.length,
                                  false, nullptr, 0, nullptr, 0, nullptr),
              0)
        << "key material needs no token";
}

TEST_F(EncryptionTest, DecryptionIntoABufferRefusesWhatDoesNotFit) {
    const Bytes key(16, 0x55);
    const Bytes iv(16, 0x0F);
    LibraryOutput encrypted;
    ASSERT_EQ(encryptAes(EncryptionType::Aes128Cbc, key, iv, hashOf(20), true, encrypted), 0);
    const Bytes ciphertext = encrypted.bytes();
    for (const std::size_t capacity : {0, 1, 19}) {
        Bytes buffer;
        EXPECT_NE(decryptInto(buffer, capacity, key, iv, ciphertext), 0) << capacity;
        EXPECT_EQ(buffer, Bytes(20, 0xAA)) << "left alone, and the length tells what is needed";
    }
    struct {
        std::size_t keyLength, ivLength, length;
    } const cases[] = {{16, 16, 0}, {16, 16, 31}, {16, 15, 32}, {16, 17, 32}, {0, 16, 32}, {20, 16, 32}};
    for (const auto& it : cases) {
        Bytes buffer;
        EXPECT_NE(decryptInto(buffer, 32, Bytes(it.keyLength), Bytes(it.ivLength), Bytes(it.length)), 0)
            << it.keyLength << ' ' << it.ivLength << ' ' << it.length;
        EXPECT_EQ(buffer, Bytes(32, 0xAA));
    }
    Bytes out(32, 0xAA);
    int length = 32;
    int negative = -1;
    const auto call = [&](const char* serial, const unsigned char* in, unsigned char* data, int* dataLength,
                          const unsigned char* keyBytes) {
        return library_.decryptSymetric(serial, in, 32, data, dataLength, iv.data(), 16, keyBytes, 16,
                                        nullptr);
    };
    EXPECT_NE(call("T9", ciphertext.data(), out.data(), &length, key.data()), 0)
        << "a token that is not there";
    EXPECT_NE(call("", nullptr, out.data(), &length, key.data()), 0);
    EXPECT_NE(call("", ciphertext.data(), nullptr, &length, key.data()), 0);
    EXPECT_NE(call("", ciphertext.data(), out.data(), nullptr, key.data()), 0);
    EXPECT_NE(call("", ciphertext.data(), out.data(), &negative, key.data()), 0);
    EXPECT_NE(call("", ciphertext.data(), out.data(), &length, nullptr), 0);
    EXPECT_EQ(out, Bytes(32, 0xAA));
    EXPECT_EQ(call(kSerial, ciphertext.data(), out.data(), &length, key.data()), 0);
    EXPECT_EQ(length, 20);
}

TEST_F(EncryptionTest, KeysOfTheTokenUnwrapAsTheStandardSays) {
    // RFC 3394, 4.1 to 4.6: the keys are prefixes of these.
    const Bytes wrapping = fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    const Bytes wrapped = fromHex("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F");
    struct {
        std::size_t wrappingLength, wrappedLength;
        const char* ciphertext;
    } const cases[] = {
        {16, 16, "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"},
        {24, 16, "96778B25AE6CA435F92B5B97C050AED2468AB8A17AD84E5D"},
        {32, 16, "64E8C3F9CE0F5BA263E9777905818A2A93C8191E7D6E8AE7"},
        {24, 24, "031D33264E15D33268F24EC260743EDCE1C6C7DDEE725A936BA814915C6762D2"},
        {32, 24, "A8F9BC1612C68B3FF6E6F4FBE30E71E4769C8B80A32CB8958CD5D17D6B254DA1"},
        {32, 32, "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"},
    };
    for (const auto& it : cases) {
        SCOPED_TRACE(it.ciphertext);
        VeltraSymmetricKey key{};
        ASSERT_EQ(
            importAes({wrapping.begin(), wrapping.begin() + static_cast<std::ptrdiff_t>(it.wrappingLength)},
                      key),
            0);
        const Bytes keyId(std::begin(key.keyId), std::end(key.keyId));
        Bytes ciphertext = fromHex(it.ciphertext);
        LibraryOutput unwrapped;
        ASSERT_EQ(decryptAes(keyId, {}, ciphertext, unwrapped), 0);
        EXPECT_EQ(unwrapped.bytes(),
                  Bytes(wrapped.begin(), wrapped.begin() + static_cast<std::ptrdiff_t>(it.wrappedLength)));
        LibraryOutput nothing;
        ciphertext.back() ^= 1;
        EXPECT_NE(decryptAes(keyId, {}, ciphertext, nothing), 0);
        for (const std::size_t length : {0, 8, 16, 23}) {
            ciphertext.resize(length);
            EXPECT_NE(decryptAes(keyId, {}, ciphertext, nothing), 0) << length;
        }
        EXPECT_TRUE(nothing.isEmpty());
    }
}

TEST_F(EncryptionTest, AesKeysAreListedWithoutTheirMaterial) {
    std::vector<VeltraSymmetricKey> made;
    for (const std::size_t length : {32, 16, 24}) {
        VeltraSymmetricKey& key = made.emplace_back();
        key.usage = kUsageEncrypt;
        if (length == 24) std::ranges::fill(key.label, 'x'); // not terminated
        ASSERT_EQ(importAes(Bytes(length, 0xC3), key), 0);
        EXPECT_EQ(key.keyType, length == 16 ? kKeyTypeAes128 : kKeyTypeAes192Or256);
        EXPECT_EQ(key.key[length - 1], 0xC3) << "the caller keeps its own copy";
    }
    EXPECT_EQ(std::string(made[0].label), "AES-" + toHex(made[0].keyId).substr(0, 8));
    EXPECT_EQ(std::string(made[2].label), std::string(kLabelMaxLength, 'x'));
    const std::vector<VeltraSymmetricKey> listed = library_.getAesKeyList(kSerial, nullptr);
    ASSERT_EQ(listed.size(), made.size());
    for (std::size_t i = 0; i < made.size(); ++i) {
        std::ranges::fill(made[i].key, static_cast<unsigned char>(0));
        EXPECT_EQ(std::memcmp(&listed[i], &made[i], sizeof(VeltraSymmetricKey)), 0) << i;
    }
    for (const std::uint32_t length : {0u, 8u, 17u, 33u, 0xFFFFFFFFu}) {
        VeltraSymmetricKey key{};
        key.keyLength = length;
        EXPECT_NE(library_.importAesKey(kSerial, kPin, &key, nullptr), 0) << length;
    }
    EXPECT_NE(library_.importAesKey(kSerial, kPin, nullptr, nullptr), 0);
    EXPECT_EQ(library_.getAesKeyList(kSerial, nullptr).size(), made.size());
    EXPECT_TRUE(library_.getAesKeyList(nullptr, nullptr).empty());
}

} // namespace veltra::softtoken::test
